#pragma once

namespace quorvelctl {

/// Does what the command line says, and answers the exit status. What libraries throw comes through.
int runCommandLine(int argc, char** argv);

}  // namespace quorvelctl

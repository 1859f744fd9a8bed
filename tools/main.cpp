#include <cstdio>
#include <exception>

#include "tools/base/context.h"
#include "tools/commands/command_line.h"

int main(int argc, char** argv) {
  try {
    return quorvelctl::runCommandLine(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "quorvelctl: %s\n", error.what());
    return quorvelctl::kFailed;
  }
}

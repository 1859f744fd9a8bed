#pragma once

#include <string>

#include "kelvane/verdict/launch_verdict.h"

namespace kelvane {

/// Of a launch of which too little or nothing is recorded: what its process has had in its life, most of
/// which the launch was, says at least what did not make it slow. Leaves the cause as it is where that says
/// nothing.
void judgeByLife(const LaunchEvidence& evidence, bool isRecorded, Verdict& verdict);

/// A further sentence for a launch that goes by the samples of its process's first thread: what others of the
/// process computed, and its children, if that is long enough to be what the thread waited for; else empty.
std::string othersOfLife(const LaunchEvidence& evidence);

}  // namespace kelvane

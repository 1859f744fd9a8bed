#pragma once

#include "kelvane/verdict/launch_verdict.h"

namespace kelvane {

/// Of a launch of which too little or nothing is recorded: what its process has had in its life, most of which the launch was, says
/// at least what did not make it slow. Leaves the cause as it is where that says nothing.
void judgeByLife(const LaunchEvidence& evidence, bool isRecorded, Verdict& verdict);

}  // namespace kelvane

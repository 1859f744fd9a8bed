#pragma once

#include <functional>
#include <string>
#include <vector>

#include "kelvane/capture/process_capture.h"
#include "kelvane/sampling/sampled_thread.h"

namespace kelvane {

/// Takes the samples, which are to be unwound, and names the functions in which the kernel's call chains
/// were. `leaveOut` hears what can't be told.
std::vector<CopiedSample> copiedSamples(
    KeptSamples& kept, const std::function<void(const char* what, std::string why)>& leaveOut);

/// The look at a launched process, whose launch is over: what the sampler has kept of its first thread, and
/// nothing else. No thread is stopped, and no byte of its memory read; its map is, and its files are, to name
/// what it was in, if it is the process that was sampled and still executes the same program.
///
/// May block like lookAtProcess, and so runs where that does.
void lookAtLaunchSamples(const CaptureTarget& target, const PublishCapture& publish,
                         const ParseStacks& parse);

}  // namespace kelvane

#pragma once

#include <string>
#include <vector>

#include "kelvane/capture/captured_process.h"
#include "kelvane/verdict/verdict.h"

namespace kelvane {

/// "waited FOR because …": what the chain says of the hung thread, its end first. `forAmount` is how long it
/// waited, with a blank behind it, or empty.
std::string chainText(const ProcessCapture& process, const ChainVerdict& verdict,
                      const std::string& forAmount);

/// For each link what it waits for, or what the last one does: "waits for a lock that 'db' (16) holds".
std::vector<std::string> chainSteps(const ProcessCapture& process, const ChainVerdict& verdict);

}  // namespace kelvane

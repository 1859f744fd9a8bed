#pragma once

#include <string>

#include "kelvane/report/report.h"

namespace kelvane {

/// What hangs of one kind have in common from run to run and from device to device, as long as the programs
/// are the same builds: a hash of the cause and of the functions along the chain, 16 hexadecimal digits.
/// Empty without a verdict.
///
/// An application can have any signature it likes: it sorts reports, and proves nothing.
std::string signatureOf(const Report& report);

}  // namespace kelvane

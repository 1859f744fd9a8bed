#pragma once

#include <string>
#include <string_view>

#include "kelvane/capture/captured_process.h"

namespace kelvane {

/// A part of a capture as bytes, for addFindings.
std::string encodeFindings(const ProcessCapture& part);

/// Adds the parts in `bytes`, one after the other. What a part doesn't know it leaves out; lists are added to
/// those that are there, threads to those of the same id. False if the bytes are broken: what came before the
/// break has been added, and every index leads somewhere all the same.
bool addFindings(std::string_view bytes, ProcessCapture& whole);

/// Gives `thread`, of another process, the stack that is in `parsed` for it, whose frames and modules go to
/// those of `whole`.
void addOther(ProcessCapture& parsed, ThreadCapture& thread, ProcessCapture& whole);

}  // namespace kelvane

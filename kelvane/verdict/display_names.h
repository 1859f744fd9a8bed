#pragma once

#include <cstdint>
#include <string>

#include "kelvane/capture/captured_process.h"

/// What reports and sentences call states, files and places in code.
namespace kelvane {

/// "running", "sleeping", … for a state letter of proc(5).
const char* stateName(char state);

/// The part of a path behind its last '/'.
std::string fileName(const std::string& path);

/// "0x7f01".
std::string hexText(uint64_t number);

/// Null if no file is mapped there.
const Module* moduleOf(const ProcessCapture& process, const Frame& frame);

/// A user frame's function, or "MODULE+0xOFFSET", or just its address.
std::string frameName(const ProcessCapture& process, const Frame& frame);

/// " 'name'"; empty of no name.
std::string quoted(const std::string& name);

/// ", in FUNCTION (FILE)": the function that the thread was in, the innermost one that is not of a language's
/// own libraries, where programs wait and read the clock. Empty without a stack.
std::string placeText(const ProcessCapture& process, const ThreadCapture& thread);

}  // namespace kelvane

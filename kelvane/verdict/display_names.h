#pragma once

#include <cstdint>
#include <string>
#include <vector>

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

/// The same for sentences: without what templates are made for, and of a function of the C++ library that
/// calls a lambda which the compiler has put into it, the lambda.
std::string functionName(const ProcessCapture& process, const Frame& frame);

/// " 'name'"; empty of no name.
std::string quoted(const std::string& name);

/// The thread, of the process or of those others whose stacks were asked for; null if it is none of them.
const ThreadCapture* threadOf(const ProcessCapture& process, pid_t tid);

/// The frames of the thread's stack, innermost first, without those of a language's own libraries, where
/// programs wait and read the clock. If there are no others, those that a lambda of the program has been put
/// into, or else all of them.
std::vector<const Frame*> ownFrames(const ProcessCapture& process, const ThreadCapture& thread);
/// `frames`: as in StackSample.
std::vector<const Frame*> ownFrames(const ProcessCapture& process, const std::vector<uint32_t>& frames);

/// The functionName of the frame that the thread `tid` was in (threadOf): the innermost of its own ones.
/// Empty without a stack.
std::string functionOf(const ProcessCapture& process, pid_t tid);

/// ", in FUNCTION (FILE)": where the thread was, as `functionOf` has it. Empty without a stack.
std::string placeText(const ProcessCapture& process, const ThreadCapture& thread);

}  // namespace kelvane

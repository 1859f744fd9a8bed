#include "kelvane/verdict/display_names.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <iterator>
#include <string_view>

namespace kelvane {

const char* stateName(char state) {
  switch (state) {
    case 'R':
      return "running";
    case 'S':
      return "sleeping";
    case 'D':
      return "uninterruptible";
    case 'T':
      return "stopped";
    case 't':
      return "traced";
    case 'Z':
    case 'X':
      return "ended";
    case 'I':
      return "idle";
    default:
      return "unknown";
  }
}

std::string fileName(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

std::string hexText(uint64_t number) {
  char text[24];
  snprintf(text, sizeof text, "0x%" PRIx64, number);
  return text;
}

const Module* moduleOf(const ProcessCapture& process, const Frame& frame) {
  return frame.module < 0 ? nullptr : &process.modules[static_cast<size_t>(frame.module)];
}

std::string frameName(const ProcessCapture& process, const Frame& frame) {
  if (!frame.name.empty()) return frame.name;
  const Module* module = moduleOf(process, frame);
  return module ? fileName(module->path) + "+" + hexText(frame.offset) : hexText(frame.address);
}

namespace {

bool isOfIdentifier(char letter) {
  return std::isalnum(static_cast<unsigned char>(letter)) != 0 || letter == '_';
}

/// Whether a '<' behind it begins what a template is made for: "sorted", "operator()", "made[abi:cxx11]".
bool endsAName(std::string_view name) {
  return !name.empty() && (isOfIdentifier(name.back()) || name.back() == ']' || name.ends_with("operator()"));
}

/// "sorted<…>(std::vector<…>&)". What no name stands before is no template's.
std::string withoutTemplateArguments(std::string_view function) {
  constexpr std::string_view kOperator = "operator";
  std::string name;
  size_t depth = 0;
  for (size_t i = 0; i < function.size(); i++) {
    const char letter = function[i];
    if (depth == 0 && letter == '<' && name.ends_with(kOperator)) {
      // Its own name, not the begin of a list: <, <<, <=, <=>.
      const size_t end = std::min(function.find_first_not_of("<=>", i), function.size());
      name += function.substr(i, end - i);
      i = end - 1;
    } else if (letter == '<' && (depth > 0 || endsAName(name))) {
      if (depth++ == 0) name += "<…>";
    } else if (letter == '>' && depth > 0) {
      depth -= function[i - 1] == '-' ? 0 : 1;
    } else if (depth == 0) {
      name += letter;
    }
  }
  return depth == 0 ? name : std::string(function);
}

/// Of "std::thread::_State_impl<std::thread::_Invoker<std::tuple<main::{lambda()#1}> > >::_M_run()" what it
/// calls, "main::{lambda()#1}"; empty of any other function, and of those that call no lambda.
std::string lambdaCalledBy(std::string_view function) {
  const bool isCaller = function.find("::_M_run()") != std::string_view::npos ||
                        function.find("::_M_invoke(") != std::string_view::npos;
  const size_t lambda = function.find("{lambda(");
  if (!isCaller || lambda == std::string_view::npos) return {};
  // The whole argument of the template that it is in.
  const auto isInside = [depth = 0](char letter, std::string_view opens, std::string_view closes) mutable {
    if (opens.find(letter) != std::string_view::npos) depth++;
    if (closes.find(letter) != std::string_view::npos) depth--;
    return depth > 0 || (depth == 0 && letter != ',');
  };
  size_t begin = lambda;
  auto before = isInside;
  while (begin > 0 && before(function[begin - 1], ">)}", "<({")) begin--;
  size_t end = lambda;
  auto behind = isInside;
  while (end < function.size() && behind(function[end], "<({", ">)}")) end++;
  while (begin < lambda && function[begin] == ' ') begin++;
  while (end > lambda && function[end - 1] == ' ') end--;
  return std::string(function.substr(begin, end - begin));
}

}  // namespace

std::string functionName(const ProcessCapture& process, const Frame& frame) {
  const std::string lambda = lambdaCalledBy(frame.name);
  return withoutTemplateArguments(lambda.empty() ? frameName(process, frame) : lambda);
}

std::string quoted(const std::string& name) {
  return name.empty() ? std::string() : " '" + name + "'";
}

const ThreadCapture* threadOf(const ProcessCapture& process, pid_t tid) {
  for (const ThreadCapture& thread : process.threads) {
    if (thread.facts.tid == tid) return &thread;
  }
  for (const OtherThread& other : process.others) {
    if (other.thread.facts.tid == tid) return &other.thread;
  }
  return nullptr;
}

namespace {

/// "std::mutex::lock" of "std::mutex::lock()", "std::this_thread::sleep_for" of "void std::this_thread::
/// sleep_for<long>(long)": without what it returns, takes and is made for.
std::string qualifiedName(std::string_view function) {
  std::string name;
  size_t depth = 0;
  for (const char letter : function) {
    if (letter == '(' && depth == 0) break;
    if (letter == '<') depth++;
    if (depth == 0) name += letter;
    if (letter == '>' && depth > 0) depth--;
  }
  return name.substr(name.rfind(' ') + 1);
}

/// Of the C++ library, which the compiler puts into the program.
bool isOfTemplateLibrary(const std::string& function) {
  const std::string name = qualifiedName(function);
  return name.starts_with("std::") || name.starts_with("__gnu_cxx::") || name.starts_with("__gthread_");
}

}  // namespace

std::vector<const Frame*> ownFrames(const ProcessCapture& process, const ThreadCapture& thread) {
  return thread.stack ? ownFrames(process, thread.stack->frames) : std::vector<const Frame*>();
}

std::vector<const Frame*> ownFrames(const ProcessCapture& process, const std::vector<uint32_t>& frames) {
  constexpr std::array<std::string_view, 6> kPlumbing = {"[vdso]",     "libc.so",      "ld-linux",
                                                         "libpthread", "libstdc++.so", "libc++.so"};
  auto isPlumbing = [&](const Frame* frame) {
    if (isOfTemplateLibrary(frame->name)) return true;
    if (frame->module < 0) return false;
    std::string module = fileName(process.modules[static_cast<size_t>(frame->module)].path);
    return std::any_of(kPlumbing.begin(), kPlumbing.end(),
                       [&](auto name) { return module.starts_with(name); });
  };
  std::vector<const Frame*> all;
  all.reserve(frames.size());
  for (uint32_t index : frames) all.push_back(&process.frames[index]);
  std::vector<const Frame*> own;
  std::remove_copy_if(all.begin(), all.end(), std::back_inserter(own), isPlumbing);
  if (!own.empty()) return own;
  const auto callsNoLambda = [](const Frame* frame) { return lambdaCalledBy(frame->name).empty(); };
  std::remove_copy_if(all.begin(), all.end(), std::back_inserter(own), callsNoLambda);
  return own.empty() ? all : own;
}

std::string functionOf(const ProcessCapture& process, pid_t tid) {
  const ThreadCapture* thread = threadOf(process, tid);
  if (!thread) return {};
  const auto frames = ownFrames(process, *thread);
  return frames.empty() ? std::string() : functionName(process, *frames.front());
}

std::string placeText(const ProcessCapture& process, const ThreadCapture& thread) {
  const auto frames = ownFrames(process, thread);
  if (frames.empty()) return {};
  const Frame& frame = *frames.front();
  std::string text = ", in " + functionName(process, frame);
  if (frame.name.empty() || frame.module < 0) return text;
  return text + " (" + fileName(process.modules[static_cast<size_t>(frame.module)].path) + ")";
}

}  // namespace kelvane

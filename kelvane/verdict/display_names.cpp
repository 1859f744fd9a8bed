#include "kelvane/verdict/display_names.h"

#include <cinttypes>
#include <cstdio>

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

}  // namespace kelvane

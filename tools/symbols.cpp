#include "tools/symbols.h"

#include <cxxabi.h>

#include <cstdlib>
#include <filesystem>
#include <memory>

namespace quorvelctl {
namespace {

/// The file's own symbols have to do: separate ones would be asked for over the network where that is
/// configured.
int findNoDebugInfo(Dwfl_Module*, void**, const char*, Dwarf_Addr, const char*, const char*, GElf_Word,
                    char**) {
  return -1;
}

const Dwfl_Callbacks kCallbacks{dwfl_build_id_find_elf, findNoDebugInfo, dwfl_offline_section_address,
                                nullptr};

std::string buildIdOf(Dwfl_Module* module) {
  const unsigned char* bytes = nullptr;
  GElf_Addr address = 0;
  const int length = dwfl_module_build_id(module, &bytes, &address);
  constexpr const char* kDigits = "0123456789abcdef";
  std::string text;
  for (int i = 0; i < length; ++i) {
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 15];
  }
  return text;
}

std::string demangled(const char* symbol) {
  int status = 0;
  const std::unique_ptr<char, void (*)(void*)> name(abi::__cxa_demangle(symbol, nullptr, nullptr, &status),
                                                    std::free);
  return status == 0 ? name.get() : symbol;
}

}  // namespace

Symbols::Symbols() : dwfl_(dwfl_begin(&kCallbacks)) {}

Symbols::~Symbols() {
  dwfl_end(dwfl_);
}

Dwfl_Module* Symbols::moduleOf(const ReportFrame& frame) {
  const auto [entry, isNew] = modules_.try_emplace(frame.module, nullptr);
  std::error_code error;
  if (!isNew || !dwfl_ || frame.buildId.empty() || !std::filesystem::is_regular_file(frame.module, error)) {
    return entry->second;
  }
  dwfl_report_begin_add(dwfl_);
  Dwfl_Module* module = dwfl_report_offline(dwfl_, frame.module.c_str(), frame.module.c_str(), -1);
  dwfl_report_end(dwfl_, nullptr, nullptr);
  GElf_Addr bias = 0;
  if (module && dwfl_module_getelf(module, &bias) && buildIdOf(module) == frame.buildId)
    entry->second = module;
  return entry->second;
}

std::string Symbols::nameOf(const ReportFrame& frame) {
  Dwfl_Module* module = moduleOf(frame);
  GElf_Addr bias = 0;
  if (!module || !dwfl_module_getelf(module, &bias)) return {};
  const char* symbol = dwfl_module_addrname(module, frame.offset + bias);
  return symbol ? demangled(symbol) : std::string();
}

}  // namespace quorvelctl

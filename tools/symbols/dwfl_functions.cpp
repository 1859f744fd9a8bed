#include "tools/symbols/dwfl_functions.h"

#include <dlfcn.h>

#include <optional>
#include <type_traits>

namespace quorvelctl {
namespace {

/// Nothing, and `error` why, where one of them can't be had.
std::optional<DwflFunctions> loaded(std::string& error) {
  void* const library = dlopen("libdw.so.1", RTLD_NOW | RTLD_LOCAL);
  if (!library) {
    error = dlerror();
    return std::nullopt;
  }
  const auto find = [&](const char* name, auto& function) {
    function = reinterpret_cast<std::remove_reference_t<decltype(function)>>(dlsym(library, name));
    if (!function) error = dlerror();
    return function != nullptr;
  };
  DwflFunctions all;
  const bool isWhole = find("dwfl_begin", all.begin) && find("dwfl_end", all.end) &&
                       find("dwfl_build_id_find_elf", all.findElf) &&
                       find("dwfl_offline_section_address", all.sectionAddress) &&
                       find("dwfl_report_begin_add", all.beginAdding) &&
                       find("dwfl_report_offline", all.addFile) && find("dwfl_report_end", all.endAdding) &&
                       find("dwfl_module_build_id", all.buildId) && find("dwfl_module_getelf", all.elf) &&
                       find("dwfl_module_getsymtab", all.symbolTable) &&
                       find("dwfl_module_addrname", all.nameAt);
  return isWhole ? std::optional(all) : std::nullopt;
}

}  // namespace

const DwflFunctions* DwflFunctions::load(std::string& error) {
  static std::string whyNot;
  static const std::optional<DwflFunctions> functions = loaded(whyNot);
  error = whyNot;
  return functions ? &*functions : nullptr;
}

}  // namespace quorvelctl

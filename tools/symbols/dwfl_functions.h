#pragma once

#include <elfutils/libdwfl.h>

#include <string>

namespace quorvelctl {

/// The functions of libdw that tell a file's symbols. It is loaded with them and not with the program: it and
/// the libraries that it brings take longer to load than all the rest, and most commands name nothing.
struct DwflFunctions {
  decltype(&::dwfl_begin) begin;
  decltype(&::dwfl_end) end;
  decltype(&::dwfl_build_id_find_elf) findElf;
  decltype(&::dwfl_offline_section_address) sectionAddress;
  decltype(&::dwfl_report_begin_add) beginAdding;
  decltype(&::dwfl_report_offline) addFile;
  decltype(&::dwfl_report_end) endAdding;
  decltype(&::dwfl_module_build_id) buildId;
  decltype(&::dwfl_module_getelf) elf;
  decltype(&::dwfl_module_getsymtab) symbolTable;
  decltype(&::dwfl_module_addrname) nameAt;

  /// The library stays loaded for the program's life. Null where there is none, or another: `error` says
  /// which.
  static const DwflFunctions* load(std::string& error);
};

}  // namespace quorvelctl

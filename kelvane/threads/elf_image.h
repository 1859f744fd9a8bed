#pragma once

#include <libelf.h>

#include <memory>
#include <utility>

#include "kelvane/base/proc_files.h"
#include "kelvane/threads/memory_map.h"

namespace kelvane {

/// An ELF file opened for unwinding and naming.
///
/// The file belongs to a process that may be hostile and may change it while it is read. So it is never
/// mapped (a shortened file would raise SIGBUS here), a file with an immense section is refused, and debug
/// sections are hidden: libdw would read them whole for a frame that it finds no unwind table for.
class ElfImage {
 public:
  /// Opens the file behind a module of the process with directory `processDir`; empty if that can't be done.
  static ElfImage open(int processDir, const MappedModule& module);
  /// The vDSO of this process, which is any 64-bit process's on this kernel; empty if there is none.
  static ElfImage openVdso();

  ElfImage(ElfImage&&) = default;
  ElfImage& operator=(ElfImage&&) = default;

  explicit operator bool() const { return elf_ != nullptr; }
  Elf* get() const { return elf_.get(); }
  /// Hands both over to a caller that ends and closes them; the descriptor is -1 for an image in memory.
  std::pair<Elf*, int> release() { return {elf_.release(), fd_.release()}; }

 private:
  ElfImage() = default;

  struct End {
    void operator()(Elf* elf) const { elf_end(elf); }
  };
  UniqueFd fd_;
  std::unique_ptr<Elf, End> elf_;
};

}  // namespace kelvane

#pragma once

#include <libelf.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace kelvane {

/// How many bytes of ELF files may still be held for one report.
struct ElfBudget {
  size_t left;
};

/// The parts of an ELF file that unwinding and naming need, as an ELF image in memory of ours.
///
/// The file belongs to a process that may be hostile, and may be of any size and change while it is read. So
/// its headers are looked at here, the parts are copied with reads that have limits, and libelf and libdw see
/// the image alone: every other section is empty there, and the program headers lead to no part of the file.
/// A part that is beyond a limit is left out.
class ElfParts {
 public:
  /// Copies from the open file `fd`, with `names` also the symbols. What is left out is said in `problem`;
  /// empty, if the file is no 64-bit program or library of this machine, or can't be read.
  static ElfParts copyOf(int fd, bool names, ElfBudget& budget, std::string& problem);
  /// The vDSO of this process, which is any 64-bit process's on this kernel; empty if there is none.
  static ElfParts ofVdso();

  explicit operator bool() const { return elf_ != nullptr; }
  Elf* get() const { return elf_.get(); }
  /// Hands the Elf over to a caller that ends it, while this lives on.
  Elf* release() { return elf_.release(); }

 private:
  struct End {
    void operator()(Elf* elf) const { elf_end(elf); }
  };
  std::vector<char> image_;
  std::unique_ptr<Elf, End> elf_;
};

}  // namespace kelvane

#pragma once

#include <elfutils/libdwfl.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kelvane/base/omission.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/frames/elf_parts.h"
#include "kelvane/frames/frame.h"
#include "kelvane/threads/memory_map.h"
#include "kelvane/threads/stack_copy.h"

namespace kelvane {

/// A stack as addresses, innermost first (see Frame::address).
struct UnwoundStack {
  std::vector<uint64_t> addresses;
  std::string cutOff;  // why it ends before the thread's start; empty: it doesn't
};

/// Opens the file of the module with that index; none if it can't be had.
using OpenModule = std::function<UniqueFd(size_t index)>;

/// Unwinds copied stacks of one process with the unwind tables of its files; never touches the process
/// itself. A file is asked for when it is first needed, and closed again once its parts are copied.
class Unwinder {
 public:
  /// `modules` must stay unchanged for as long as this lives. `names`: functions will be asked for.
  Unwinder(pid_t pid, const std::vector<MappedModule>& modules, OpenModule openModule, bool names);
  ~Unwinder();
  Unwinder(const Unwinder&) = delete;
  Unwinder& operator=(const Unwinder&) = delete;

  UnwoundStack unwind(const StackCopy& copy);

  /// The place at `address`: module, offset and, with `names`, the function's demangled name.
  Frame describe(uint64_t address);
  /// Where the function at `address` begins, going by the unwind tables; `address` itself if they don't tell.
  uint64_t functionAt(uint64_t address) const;
  /// The build-id of a module that `describe` named, hexadecimal; empty if it has none.
  std::string buildId(int32_t module);

  /// What files lack for want of room; each once.
  std::vector<Omission> takeOmissions() { return std::exchange(omissions_, {}); }

 private:
  struct EndSession {
    void operator()(Dwfl* dwfl) const { dwfl_end(dwfl); }
  };
  static int findElf(Dwfl_Module* module, void** userData, const char* name, Dwarf_Addr base, char** fileName,
                     Elf** elf);
  static bool readMemory(Dwfl* dwfl, Dwarf_Addr address, Dwarf_Word* result, void* self);
  static bool setRegisters(Dwfl_Thread* thread, void* self);
  /// A signed address of code as it was before; any other word as it is.
  uint64_t withoutSignature(uint64_t word) const;
  void reportModules();
  ElfParts partsOf(size_t index);
  /// The index of the module that is mapped at `address`.
  std::optional<size_t> moduleAt(uint64_t address) const;

  static const Dwfl_Callbacks kCallbacks;
  static const Dwfl_Thread_Callbacks kThreadCallbacks;

  const std::vector<MappedModule>& modules_;
  const OpenModule openModule_;
  const bool names_;
  ElfBudget budget_;
  std::vector<Omission> omissions_;
  ElfParts vdso_;  // these outlive the session; this one also tells libdwfl the machine
  std::vector<ElfParts> parts_;
  std::vector<Dwfl_Module*> reported_;
  const StackCopy* copy_ = nullptr;
  std::string problem_;
  std::unique_ptr<Dwfl, EndSession> dwfl_;
};

}  // namespace kelvane

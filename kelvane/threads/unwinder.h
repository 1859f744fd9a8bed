#pragma once

#include <elfutils/libdwfl.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kelvane/threads/elf_image.h"
#include "kelvane/threads/frame.h"
#include "kelvane/threads/memory_map.h"
#include "kelvane/threads/stack_copy.h"

namespace kelvane {

/// A stack as addresses, innermost first (see Frame::address).
struct UnwoundStack {
  std::vector<uint64_t> addresses;
  std::string cutOff;  // why it ends before the thread's start; empty: it doesn't
};

/// Unwinds copied stacks of one process with the unwind tables of its files; never touches the process
/// itself.
class Unwinder {
 public:
  /// `processDir` must stay open, and `modules` unchanged, for as long as this lives.
  Unwinder(int processDir, pid_t pid, const std::vector<MappedModule>& modules);
  ~Unwinder();
  Unwinder(const Unwinder&) = delete;
  Unwinder& operator=(const Unwinder&) = delete;

  UnwoundStack unwind(const StackCopy& copy);

  /// The place at `address`: module, offset and, with `symbolicate`, the function's demangled name.
  Frame describe(uint64_t address, bool symbolicate);
  /// The build-id of a module that `describe` named, hexadecimal; empty if it has none.
  std::string buildId(int32_t module);

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
  /// The index of the module that is mapped at `address`.
  std::optional<size_t> moduleAt(uint64_t address) const;

  static const Dwfl_Callbacks kCallbacks;
  static const Dwfl_Thread_Callbacks kThreadCallbacks;

  int processDir_;
  const std::vector<MappedModule>& modules_;
  ElfImage vdso_;  // outlives the session: it also tells libdwfl the machine
  std::vector<Dwfl_Module*> reported_;
  const StackCopy* copy_ = nullptr;
  std::string problem_;
  std::unique_ptr<Dwfl, EndSession> dwfl_;
};

}  // namespace kelvane

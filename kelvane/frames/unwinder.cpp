#include "kelvane/frames/unwinder.h"

#include <cxxabi.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kelvane/base/limits.h"

namespace kelvane {
namespace {

constexpr const char* kAsDeepAsKept = "more frames than are kept";
/// No stack begins there, so it was cut off even if the unwinder is content.
constexpr const char* kNoFile = "the code belongs to no file (made at run time, perhaps)";

std::string dwflError() {
  const char* message = dwfl_errmsg(-1);
  return message ? message : "the unwind table ends here";
}

std::string demangled(const char* symbol) {
  // Of another name the C++ library would take it that it is a type's: f would be "float".
  if (strncmp(symbol, "_Z", 2) == 0 && strnlen(symbol, kMaxMangledBytes + 1) <= kMaxMangledBytes) {
    int status = 0;
    std::unique_ptr<char, decltype(&free)> text(abi::__cxa_demangle(symbol, nullptr, nullptr, &status), free);
    if (status == 0 && text) return std::string(text.get(), strnlen(text.get(), kMaxNameBytes));
  }
  return std::string(symbol, strnlen(symbol, kMaxNameBytes));
}

struct FrameWalk {
  UnwoundStack stack;
  bool full = false;
};

int addFrame(Dwfl_Frame* frame, void* argument) {
  auto& walk = *static_cast<FrameWalk*>(argument);
  Dwarf_Addr pc = 0;
  bool isActivation = false;
  if (!dwfl_frame_pc(frame, &pc, &isActivation)) return DWARF_CB_ABORT;
  if (walk.stack.addresses.size() == kMaxFramesPerStack) {
    walk.full = true;
    return DWARF_CB_ABORT;
  }
  // A return address lies behind its call, perhaps already in the next function.
  walk.stack.addresses.push_back(isActivation || pc == 0 ? pc : pc - 1);
  return DWARF_CB_OK;
}

}  // namespace

// No search for separate debug information: it may go to the network, and unwinding needs none.
const Dwfl_Callbacks Unwinder::kCallbacks = {
    .find_elf = findElf,
    .find_debuginfo = [](Dwfl_Module*, void**, const char*, Dwarf_Addr, const char*, const char*, GElf_Word,
                         char**) { return -1; },
    .section_address = nullptr,  // relocatable files are never opened
    .debuginfo_path = nullptr,
};

const Dwfl_Thread_Callbacks Unwinder::kThreadCallbacks = {
    .next_thread = [](Dwfl*, void*, void**) -> pid_t { return 0; },
    .get_thread =
        [](Dwfl*, pid_t, void* self, void** threadArgument) {
          *threadArgument = self;
          return true;
        },
    .memory_read = readMemory,
    .set_initial_registers = setRegisters,
    .detach = nullptr,
    .thread_detach = nullptr,
};

Unwinder::Unwinder(pid_t pid, const std::vector<MappedModule>& modules, OpenModule openModule, bool names)
    : modules_(modules),
      openModule_(std::move(openModule)),
      names_(names),
      budget_{kMaxElfBytesOfReport},
      vdso_(ElfParts::ofVdso()),
      dwfl_(dwfl_begin(&kCallbacks)) {
  if (dwfl_) reportModules();
  if (!dwfl_ || !vdso_ || !dwfl_attach_state(dwfl_.get(), vdso_.get(), pid, &kThreadCallbacks, this)) {
    problem_ = "no unwinding here: " + dwflError();
  }
}

Unwinder::~Unwinder() = default;

void Unwinder::reportModules() {
  dwfl_report_begin(dwfl_.get());
  for (const MappedModule& module : modules_) {
    Dwfl_Module* reported = dwfl_report_module(dwfl_.get(), module.path.c_str(), module.start, module.end);
    void** userData = nullptr;
    if (reported &&
        dwfl_module_info(reported, &userData, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr)) {
      *userData = this;
    }
    reported_.push_back(reported);
  }
  dwfl_report_end(dwfl_.get(), nullptr, nullptr);
}

int Unwinder::findElf(Dwfl_Module* module, void** userData, const char*, Dwarf_Addr, char** fileName,
                      Elf** elf) {
  auto* self = static_cast<Unwinder*>(*userData);
  *fileName = nullptr;
  auto found =
      self ? std::find(self->reported_.begin(), self->reported_.end(), module) : self->reported_.end();
  if (!self || found == self->reported_.end()) return -1;
  ElfParts parts = self->partsOf(static_cast<size_t>(found - self->reported_.begin()));
  *elf = parts.release();
  self->parts_.push_back(std::move(parts));
  return -1;  // there is no descriptor, and nothing more to read
}

ElfParts Unwinder::partsOf(size_t index) {
  const MappedModule& module = modules_[index];
  if (module.isVdso()) return ElfParts::ofVdso();
  // A file that is not mapped from its beginning is no module that was loaded as one.
  const UniqueFd file = module.fileOffset == 0 ? openModule_(index) : UniqueFd();
  if (!file) return {};
  std::string problem;
  ElfParts parts = ElfParts::copyOf(file.get(), names_, budget_, problem);
  if (!problem.empty()) omissions_.push_back({module.path, problem});
  return parts;
}

// Unwinding asks for words of whatever kind, of which return addresses alone may be signed: a word counts as
// one when it would lie in a module.
uint64_t Unwinder::withoutSignature(uint64_t word) const {
  const uint64_t address = word & ~copy_->registers.signatureBits;
  return address != word && moduleAt(address) ? address : word;
}

bool Unwinder::readMemory(Dwfl*, Dwarf_Addr address, Dwarf_Word* result, void* argument) {
  const auto* self = static_cast<const Unwinder*>(argument);
  const StackCopy& copy = *self->copy_;
  uint64_t offset = address - copy.base;
  if (address < copy.base || copy.bytes.size() < sizeof *result ||
      offset > copy.bytes.size() - sizeof *result) {
    return false;
  }
  memcpy(result, copy.bytes.data() + offset, sizeof *result);
  *result = self->withoutSignature(*result);
  return true;
}

bool Unwinder::setRegisters(Dwfl_Thread* thread, void* argument) {
  const auto* self = static_cast<const Unwinder*>(argument);
  const UnwindRegisters& registers = self->copy_->registers;
  std::array<Dwarf_Word, 32> words{};
  std::transform(registers.dwarf.begin(), registers.dwarf.end(), words.begin(),
                 [&](uint64_t word) { return self->withoutSignature(word); });
  dwfl_thread_state_register_pc(thread, registers.pc);
  return dwfl_thread_state_registers(thread, 0, static_cast<unsigned>(registers.count), words.data());
}

UnwoundStack Unwinder::unwind(const StackCopy& copy) {
  if (!problem_.empty()) return {{copy.registers.pc}, problem_};
  copy_ = &copy;
  FrameWalk walk;
  dwfl_errno();  // forget an older error
  int result = dwfl_getthread_frames(dwfl_.get(), 1, addFrame, &walk);
  copy_ = nullptr;
  if (walk.full) {
    walk.stack.cutOff = kAsDeepAsKept;
  } else if (result != 0) {
    walk.stack.cutOff = dwflError();
  }
  if (walk.stack.addresses.empty()) walk.stack.addresses.push_back(copy.registers.pc);
  if (!walk.full && !moduleAt(walk.stack.addresses.back())) walk.stack.cutOff = kNoFile;
  return std::move(walk.stack);
}

std::optional<size_t> Unwinder::moduleAt(uint64_t address) const {
  auto after =
      std::upper_bound(modules_.begin(), modules_.end(), address,
                       [](uint64_t value, const MappedModule& module) { return value < module.start; });
  if (after == modules_.begin() || address >= (after - 1)->end) return std::nullopt;
  return static_cast<size_t>(after - 1 - modules_.begin());
}

Frame Unwinder::describe(uint64_t address) {
  Frame frame;
  frame.address = address;
  auto found = moduleAt(address);
  if (!found) return frame;
  size_t index = *found;
  frame.module = static_cast<int32_t>(index);
  // Without the file, the distance from the first mapping: the same for every library that starts at 0.
  frame.offset = address - modules_[index].start;
  Dwfl_Module* module = index < reported_.size() ? reported_[index] : nullptr;
  GElf_Addr bias = 0;
  if (!module || !dwfl_module_getelf(module, &bias)) return frame;
  frame.offset = address - bias;
  if (!names_) return frame;
  GElf_Off offset = 0;
  GElf_Sym symbol;
  const char* name = dwfl_module_addrinfo(module, address, &offset, &symbol, nullptr, nullptr, nullptr);
  if (name) frame.name = demangled(name);
  return frame;
}

uint64_t Unwinder::functionAt(uint64_t address) const {
  const auto index = moduleAt(address);
  Dwfl_Module* module = index && *index < reported_.size() ? reported_[*index] : nullptr;
  Dwarf_Addr bias = 0;
  Dwarf_CFI* table = module ? dwfl_module_eh_cfi(module, &bias) : nullptr;
  Dwarf_Frame* found = nullptr;
  if (!table || dwarf_cfi_addrframe(table, address - bias, &found) != 0) return address;
  const std::unique_ptr<Dwarf_Frame, decltype(&free)> frame(found, free);
  Dwarf_Addr start = 0;
  return dwarf_frame_info(found, &start, nullptr, nullptr) < 0 ? address : start + bias;
}

std::string Unwinder::buildId(int32_t index) {
  const unsigned char* bits = nullptr;
  GElf_Addr address = 0;
  Dwfl_Module* module = reported_.empty() ? nullptr : reported_[static_cast<size_t>(index)];
  int length = module ? dwfl_module_build_id(module, &bits, &address) : 0;
  std::string text;
  for (int i = 0; i < length; i++) {
    std::array<char, 3> hex;
    snprintf(hex.data(), hex.size(), "%02x", bits[i]);
    text += hex.data();
  }
  return text;
}

}  // namespace kelvane

// A hung process's own file and stack, through the parts that are copied of the file to the frames that libdw
// makes of both. Programs are mutated section by section: what keeps its headers gets far.
#include <elf.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <span>
#include <vector>

#include "kelvane/base/limits.h"
#include "kelvane/frames/unwinder.h"

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t maxSize);

namespace {

constexpr uint64_t kLoadedAt = 0x400000;
constexpr uint64_t kStackAt = 0x7FFF00000000;
constexpr size_t kStackBytes = 256;  // the input's last bytes

kelvane::UniqueFd fileOf(std::span<const uint8_t> bytes) {
  kelvane::UniqueFd file(memfd_create("program", MFD_CLOEXEC));
  if (write(file.get(), bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) std::abort();
  return file;
}

/// Where the sections lie in the input, by its own headers.
std::vector<std::span<uint8_t>> sectionsOf(std::span<uint8_t> file) {
  std::vector<std::span<uint8_t>> sections;
  Elf64_Ehdr header;
  if (file.size() < sizeof header) return sections;
  std::memcpy(&header, file.data(), sizeof header);
  for (size_t i = 0; i < header.e_shnum; ++i) {
    Elf64_Shdr section;
    const size_t at = header.e_shoff + i * sizeof section;
    if (at > file.size() - std::min(file.size(), sizeof section)) break;
    std::memcpy(&section, file.data() + at, sizeof section);
    sections.push_back(file.subspan(at, sizeof section));
    if (section.sh_type == SHT_NOBITS || section.sh_offset >= file.size()) continue;
    sections.push_back(
        file.subspan(section.sh_offset, std::min(section.sh_size, file.size() - section.sh_offset)));
  }
  return sections;
}

}  // namespace

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maxSize, unsigned seed) {
  std::minstd_rand random(seed);
  const auto sections = sectionsOf({data, size});
  if (sections.empty() || random() % 8 == 0) return LLVMFuzzerMutate(data, size, maxSize);
  const std::span<uint8_t> section = sections[random() % sections.size()];
  if (section.empty()) return LLVMFuzzerMutate(data, size, maxSize);
  LLVMFuzzerMutate(section.data(), section.size(), section.size());
  return size;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < kStackBytes) return 0;
  const std::span file(data, size - kStackBytes);
  const std::span stack(data + file.size(), kStackBytes);

  kelvane::MappedModule module;
  module.start = kLoadedAt;
  module.firstEnd = module.end = kLoadedAt + std::max<uint64_t>(file.size(), 0x10000);
  module.executable = true;
  module.path = "/usr/bin/program";
  const std::vector<kelvane::MappedModule> modules{module};
  kelvane::Unwinder unwinder(
      getpid(), modules, [&](size_t) { return fileOf(file); }, /*names=*/true);

  kelvane::StackCopy copy;
  copy.base = kStackAt;
  copy.bytes.resize(kStackBytes);
  std::memcpy(copy.bytes.data(), stack.data(), kStackBytes);
  // Its first words are also what the thread's registers held.
  kelvane::UnwindRegisters& registers = copy.registers;
#if defined(__aarch64__)
  constexpr size_t kRegisters = 32, kStackPointer = 31;
#else
  constexpr size_t kRegisters = 17, kStackPointer = 7;
#endif
  registers.count = kRegisters;
  std::memcpy(registers.dwarf.data(), stack.data(), kRegisters * sizeof(uint64_t));
  registers.pc = kLoadedAt + registers.dwarf[0] % 0x10000;
  registers.sp = registers.dwarf[kStackPointer] = kStackAt;

  const kelvane::UnwoundStack unwound = unwinder.unwind(copy);
  if (unwound.addresses.size() > kelvane::kMaxFramesPerStack) std::abort();
  for (const uint64_t address : unwound.addresses) {
    const kelvane::Frame frame = unwinder.describe(address);
    if (frame.module > 0) std::abort();
    if (frame.module == 0) unwinder.buildId(frame.module);
  }
  unwinder.takeOmissions();
  return 0;
}

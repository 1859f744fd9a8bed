#include "kelvane/threads/elf_image.h"

#include <fcntl.h>
#include <gelf.h>
#include <sys/auxv.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "kelvane/base/limits.h"

namespace kelvane {
namespace {

bool isRegularFile(int dirFd, const char* path) {
  struct stat status {};
  return fstatat(dirFd, path, &status, 0) == 0 && S_ISREG(status.st_mode);
}

/// The mapped file itself, even if it has been deleted or lies in another mount namespace. Needs a capability
/// that an unprivileged process lacks; then by its path below the process's root, if that is still the file.
UniqueFd openMappedFile(int processDir, const MappedModule& module) {
  constexpr int kFlags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
  std::array<char, 64> link;
  snprintf(link.data(), link.size(), "map_files/%" PRIx64 "-%" PRIx64, module.start, module.firstEnd);
  if (isRegularFile(processDir, link.data())) {
    if (UniqueFd fd(openat(processDir, link.data(), kFlags)); fd) return fd;
  }
  std::string path = "root" + module.path;
  if (!isRegularFile(processDir, path.c_str())) return {};
  UniqueFd fd(openat(processDir, path.c_str(), kFlags | O_NOFOLLOW));
  struct stat status {};
  bool same = fd && fstat(fd.get(), &status) == 0 && S_ISREG(status.st_mode) && status.st_ino == module.inode;
  return same ? std::move(fd) : UniqueFd();
}

bool isUnwindOrNameSection(std::string_view name, unsigned type) {
  return type == SHT_SYMTAB || type == SHT_DYNSYM || type == SHT_STRTAB || type == SHT_NOTE ||
         name.starts_with(".eh_frame");
}

bool isDebugSection(std::string_view name) {
  constexpr std::array<std::string_view, 4> kPrefixes = {".debug", ".zdebug", ".gnu_debug", ".gdb_index"};
  return std::any_of(kPrefixes.begin(), kPrefixes.end(),
                     [&](auto prefix) { return name.starts_with(prefix); });
}

/// Checks the sections and hides those that must not be read; false: leave the file alone.
bool prepareSections(Elf* elf) {
  size_t names = 0;
  if (elf_getshdrstrndx(elf, &names) != 0) return false;
  for (Elf_Scn* section = nullptr; (section = elf_nextscn(elf, section)) != nullptr;) {
    GElf_Shdr header;
    if (!gelf_getshdr(section, &header)) return false;
    if (header.sh_size > kMaxSectionBytes && header.sh_type == SHT_STRTAB) return false;
    const char* text = elf_strptr(elf, names, header.sh_name);
    std::string_view name = text ? text : "";
    bool hide = isDebugSection(name) || (header.sh_flags & SHF_COMPRESSED) != 0;
    if (hide) {
      // In memory only: the file is open for reading.
      header.sh_type = SHT_NOBITS;
      header.sh_flags &= ~GElf_Xword{SHF_COMPRESSED};
      if (!gelf_update_shdr(section, &header)) return false;
    } else if (header.sh_size > kMaxSectionBytes && isUnwindOrNameSection(name, header.sh_type)) {
      return false;
    }
  }
  return true;
}

bool isProgramOrLibrary(Elf* elf) {
  GElf_Ehdr header;
  return elf_kind(elf) == ELF_K_ELF && gelf_getclass(elf) == ELFCLASS64 && gelf_getehdr(elf, &header) &&
         (header.e_type == ET_EXEC || header.e_type == ET_DYN);
}

}  // namespace

ElfImage ElfImage::open(int processDir, const MappedModule& module) {
  ElfImage image;
  // A file that is not mapped from its beginning is no module that was loaded as one.
  if (module.fileOffset != 0 || elf_version(EV_CURRENT) == EV_NONE) return image;
  image.fd_ = openMappedFile(processDir, module);
  if (!image.fd_) return image;
  image.elf_.reset(elf_begin(image.fd_.get(), ELF_C_READ, nullptr));
  if (image.elf_ && !(isProgramOrLibrary(image.elf_.get()) && prepareSections(image.elf_.get())))
    image.elf_.reset();
  return image;
}

ElfImage ElfImage::openVdso() {
  ElfImage image;
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the kernel hands it over as a number
  auto* start = reinterpret_cast<char*>(getauxval(AT_SYSINFO_EHDR));
  if (!start || elf_version(EV_CURRENT) == EV_NONE) return image;
  // The section headers are the last thing in the image, which stays mapped for ever and is only read.
  Elf64_Ehdr header;
  memcpy(&header, start, sizeof header);
  image.elf_.reset(elf_memory(start, header.e_shoff + size_t{header.e_shnum} * header.e_shentsize));
  return image;
}

}  // namespace kelvane

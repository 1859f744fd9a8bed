#include "kelvane/frames/elf_parts.h"

#include <elf.h>
#include <sys/auxv.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>

#include "kelvane/base/limits.h"

namespace kelvane {
namespace {

constexpr unsigned char kOwnByteOrder =
    std::endian::native == std::endian::little ? ELFDATA2LSB : ELFDATA2MSB;
/// libelf takes parts that lie on such a boundary as they are.
constexpr size_t kPartAlignment = 16;
constexpr size_t kMaxNoteBytes = size_t{64} * 1024;

/// A stretch of a file.
struct Stretch {
  uint64_t offset = 0;
  uint64_t length = 0;
};

class PartsCopier {
 public:
  PartsCopier(int fd, bool names, ElfBudget& budget) : fd_(fd), names_(names), budget_(budget) {}

  /// False: this is no file to use, or it can't be read.
  bool run() {
    if (!readHeaders()) return false;
    image_.resize(sizeof file_ + segments_.size() * sizeof(Elf64_Phdr));
    if (!(hasSections() ? copySections() : copySegments())) return false;
    finish();
    return true;
  }

  std::vector<char> takeImage() { return std::move(image_); }
  const std::string& problem() const { return problem_; }

 private:
  bool readAt(uint64_t offset, void* bytes, size_t length) const {
    auto* to = static_cast<char*>(bytes);
    while (length > 0) {
      if (offset > INT64_MAX - length) return false;
      const ssize_t got = pread(fd_, to, length, static_cast<off_t>(offset));
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return false;
      to += got;
      offset += static_cast<uint64_t>(got);
      length -= static_cast<size_t>(got);
    }
    return true;
  }

  bool readHeaders() {
    if (!readAt(0, &file_, sizeof file_) || std::memcmp(file_.e_ident, ELFMAG, SELFMAG) != 0) return false;
    if (file_.e_ident[EI_CLASS] != ELFCLASS64 || file_.e_ident[EI_DATA] != kOwnByteOrder) return false;
    if (file_.e_type != ET_EXEC && file_.e_type != ET_DYN) return false;
    if (file_.e_phentsize != sizeof(Elf64_Phdr) || file_.e_phnum == 0 || file_.e_phnum >= PN_XNUM)
      return false;
    segments_.resize(file_.e_phnum);
    return readAt(file_.e_phoff, segments_.data(), segments_.size() * sizeof(Elf64_Phdr));
  }

  bool hasSections() const {
    return file_.e_shoff != 0 && file_.e_shentsize == sizeof(Elf64_Shdr) && file_.e_shstrndx < file_.e_shnum;
  }

  /// Copies the stretch to the end of the image and returns where it lies there; nothing, and the reason in
  /// `problem_`, if it is beyond a limit or can't be read.
  std::optional<uint64_t> copy(const Stretch& part, const char* what) {
    const size_t at = (image_.size() + kPartAlignment - 1) / kPartAlignment * kPartAlignment;
    if (part.length > kMaxElfBytes - std::min(at, kMaxElfBytes) || part.length > budget_.left) {
      leaveOut(what, std::to_string(part.length) + " bytes, which is more than is read");
      return std::nullopt;
    }
    image_.resize(at + part.length);
    if (!readAt(part.offset, image_.data() + at, part.length)) {
      image_.resize(at);
      leaveOut(what, "they can't be read");
      return std::nullopt;
    }
    budget_.left -= part.length;
    return at;
  }

  void leaveOut(const char* what, const std::string& why) {
    problem_ += (problem_.empty() ? "" : "; ") + std::string(what) + ": " + why;
  }

  std::string_view nameOf(const Elf64_Shdr& section) const {
    const size_t at = sections_[file_.e_shstrndx].sh_offset + uint64_t{section.sh_name};
    if (at >= image_.size()) return {};
    return {image_.data() + at, strnlen(image_.data() + at, image_.size() - at)};
  }

  /// The numbers of the sections stay as they are: symbols and links go by them.
  bool copySections() {
    sections_.resize(file_.e_shnum);
    if (!readAt(file_.e_shoff, sections_.data(), sections_.size() * sizeof(Elf64_Shdr))) return false;
    std::vector<bool> wanted(sections_.size());
    wanted[file_.e_shstrndx] = true;
    Elf64_Shdr& names = sections_[file_.e_shstrndx];
    const auto namesAt = copy({names.sh_offset, names.sh_size}, "names of sections");
    if (!namesAt || names.sh_type != SHT_STRTAB) return false;
    names.sh_offset = *namesAt;
    const bool hasSymtab = std::any_of(sections_.begin(), sections_.end(),
                                       [](const auto& section) { return section.sh_type == SHT_SYMTAB; });
    for (size_t i = 1; i < sections_.size(); i++) {
      const Elf64_Shdr section = sections_[i];
      const bool isSymbols = section.sh_type == (hasSymtab ? SHT_SYMTAB : SHT_DYNSYM);
      if ((section.sh_flags & SHF_COMPRESSED) != 0 || section.sh_type == SHT_NOBITS) continue;
      if (nameOf(section).starts_with(".eh_frame")) {
        wanted[i] = take(sections_[i], "unwind tables");
        sections_[i].sh_type = SHT_PROGBITS;  // some linkers give it a type that libdw doesn't look for
      } else if (section.sh_type == SHT_NOTE && section.sh_size <= kMaxNoteBytes) {
        wanted[i] = take(sections_[i], "build id");
      } else if (names_ && isSymbols && section.sh_link < sections_.size() && !wanted[section.sh_link]) {
        wanted[i] = wanted[section.sh_link] =
            take(sections_[section.sh_link], "names") && take(sections_[i], "names");
      }
    }
    for (size_t i = 0; i < sections_.size(); i++) {
      if (wanted[i] || sections_[i].sh_type == SHT_NULL) continue;
      sections_[i].sh_type = SHT_NOBITS;
      sections_[i].sh_flags &= ~Elf64_Xword{SHF_COMPRESSED};
    }
    return true;
  }

  bool take(Elf64_Shdr& section, const char* what) {
    const auto at = copy({section.sh_offset, section.sh_size}, what);
    if (at) section.sh_offset = *at;
    return at.has_value();
  }

  /// A file without section headers, as some tools that strip leave it: the program headers lead to its
  /// tables, which run on to the end of their segment at most.
  bool copySegments() {
    constexpr std::string_view kNames("\0.eh_frame_hdr\0.eh_frame\0.note\0.shstrtab\0", 41);
    constexpr uint32_t kHeaderName = 1, kTablesName = 15, kNoteName = 25, kNamesName = 31;
    sections_.assign(1, Elf64_Shdr{});
    for (const Elf64_Phdr& segment : segments_) {
      if (segment.p_type == PT_NOTE && segment.p_filesz <= kMaxNoteBytes) {
        add(kNoteName, SHT_NOTE, segment.p_vaddr, {segment.p_offset, segment.p_filesz}, "build id");
      } else if (segment.p_type == PT_GNU_EH_FRAME) {
        const auto tables = tablesBehind(segment);
        // Without its header the table is of no use, and the header comes first.
        if (tables && add(kHeaderName, SHT_PROGBITS, segment.p_vaddr, {segment.p_offset, segment.p_filesz},
                          "unwind tables")) {
          add(kTablesName, SHT_PROGBITS, tablesAddress_, *tables, "unwind tables");
        }
      }
    }
    Elf64_Shdr names{};
    names.sh_name = kNamesName;
    names.sh_type = SHT_STRTAB;
    names.sh_offset = image_.size();
    names.sh_size = kNames.size();
    image_.insert(image_.end(), kNames.begin(), kNames.end());
    file_.e_shstrndx = static_cast<Elf64_Half>(sections_.size());
    sections_.push_back(names);
    return true;
  }

  bool add(uint32_t name, uint32_t type, uint64_t address, const Stretch& part, const char* what) {
    const auto at = copy(part, what);
    if (!at) return false;
    Elf64_Shdr section{};
    section.sh_name = name;
    section.sh_type = type;
    section.sh_flags = SHF_ALLOC;
    section.sh_addr = address;
    section.sh_offset = *at;
    section.sh_size = part.length;
    section.sh_addralign = sizeof(uint32_t);
    sections_.push_back(section);
    return true;
  }

  /// Where the tables lie whose header is `segment`: from the address that it names, in the one form that
  /// linkers write, to the end of the loaded segment there.
  std::optional<Stretch> tablesBehind(const Elf64_Phdr& segment) {
    struct {
      uint8_t version, pointerForm, countForm, tableForm;
      int32_t toTables;  // from its own address
    } header;
    constexpr uint8_t kRelativeInFourBytes = 0x1b;  // DW_EH_PE_pcrel | DW_EH_PE_sdata4
    if (!readAt(segment.p_offset, &header, sizeof header)) return std::nullopt;
    if (header.version != 1 || header.pointerForm != kRelativeInFourBytes) return std::nullopt;
    tablesAddress_ = segment.p_vaddr + 4 + static_cast<uint64_t>(int64_t{header.toTables});
    for (const Elf64_Phdr& loaded : segments_) {
      const uint64_t into = tablesAddress_ - loaded.p_vaddr;
      if (loaded.p_type != PT_LOAD || tablesAddress_ < loaded.p_vaddr || into >= loaded.p_filesz) continue;
      return Stretch{loaded.p_offset + into, loaded.p_filesz - into};
    }
    return std::nullopt;
  }

  void finish() {
    for (Elf64_Phdr& segment : segments_) {
      if (segment.p_type != PT_LOAD) segment.p_type = PT_NULL;
    }
    image_.resize((image_.size() + kPartAlignment - 1) / kPartAlignment * kPartAlignment);
    file_.e_phoff = sizeof file_;
    file_.e_shoff = image_.size();
    file_.e_shentsize = sizeof(Elf64_Shdr);
    file_.e_shnum = static_cast<Elf64_Half>(sections_.size());
    std::memcpy(image_.data(), &file_, sizeof file_);
    std::memcpy(image_.data() + sizeof file_, segments_.data(), segments_.size() * sizeof(Elf64_Phdr));
    const auto* table = reinterpret_cast<const char*>(sections_.data());
    image_.insert(image_.end(), table, table + sections_.size() * sizeof(Elf64_Shdr));
  }

  const int fd_;
  const bool names_;
  ElfBudget& budget_;
  Elf64_Ehdr file_{};
  std::vector<Elf64_Phdr> segments_;
  std::vector<Elf64_Shdr> sections_;
  uint64_t tablesAddress_ = 0;
  std::vector<char> image_;
  std::string problem_;
};

}  // namespace

ElfParts ElfParts::copyOf(int fd, bool names, ElfBudget& budget, std::string& problem) {
  ElfParts parts;
  if (elf_version(EV_CURRENT) == EV_NONE) return parts;
  PartsCopier copier(fd, names, budget);
  const bool usable = copier.run();
  problem = copier.problem();
  if (!usable) return parts;
  parts.image_ = copier.takeImage();
  parts.elf_.reset(elf_memory(parts.image_.data(), parts.image_.size()));
  return parts;
}

ElfParts ElfParts::ofVdso() {
  ElfParts parts;
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the kernel hands it over as a number
  auto* start = reinterpret_cast<char*>(getauxval(AT_SYSINFO_EHDR));
  if (!start || elf_version(EV_CURRENT) == EV_NONE) return parts;
  // The section headers are the last thing in the image, which stays mapped for ever and is only read.
  Elf64_Ehdr header;
  std::memcpy(&header, start, sizeof header);
  parts.elf_.reset(elf_memory(start, header.e_shoff + size_t{header.e_shnum} * header.e_shentsize));
  return parts;
}

}  // namespace kelvane

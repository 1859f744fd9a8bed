#include "tools/symbols/symbols.h"

#include <cxxabi.h>
#include <elf.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string_view>

#include "tools/base/descriptor.h"

namespace quorvelctl {
namespace {

// A mangled name may repeat its parts by a few letters, and come to a hundred megabytes.
constexpr size_t kMaxMangledBytes = 1024;
constexpr size_t kMaxNameBytes = 4096;
constexpr uint64_t kMaxDemanglerBytes = uint64_t{4} << 20;

/// The file's own symbols have to do: separate ones would be asked for over the network where that is
/// configured.
int findNoDebugInfo(Dwfl_Module*, void**, const char*, Dwarf_Addr, const char*, const char*, GElf_Word,
                    char**) {
  return -1;
}

std::string buildIdOf(const DwflFunctions& dwfl, Dwfl_Module* module) {
  const unsigned char* bytes = nullptr;
  GElf_Addr address = 0;
  const int length = dwfl.buildId(module, &bytes, &address);
  constexpr const char* kDigits = "0123456789abcdef";
  std::string text;
  for (int i = 0; i < length; ++i) {
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 15];
  }
  return text;
}

/// The paths at which a file with the frame's build id may be.
std::vector<std::string> candidatesOf(const ReportFrame& frame, const std::vector<std::string>& debugDirs) {
  const std::string& id = frame.buildId;
  // What isn't a build id would lead out of the folder.
  if (id.size() < 4 || id.find_first_not_of("0123456789abcdef") != std::string::npos) return {};
  const std::string byBuildId = "/.build-id/" + id.substr(0, 2) + "/" + id.substr(2) + ".debug";
  const std::string fileName = "/" + frame.module.substr(frame.module.rfind('/') + 1);
  std::vector<std::string> paths;
  for (const std::string& dir : debugDirs) {
    for (const std::string& path : {byBuildId, fileName + ".debug", fileName}) paths.push_back(dir + path);
  }
  paths.push_back("/usr/lib/debug" + byBuildId);
  paths.push_back(frame.module);
  return paths;
}

bool isTrusted(int file, const struct stat& status) {
  struct statvfs mount {};
  return (status.st_uid == 0 || status.st_uid == geteuid()) && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0 &&
         fstatvfs(file, &mount) == 0 && (mount.f_flag & ST_NOSUID) == 0;
}

/// A descriptor of the ELF file at `path`, and its size; -1 when there is none. Of another file the library
/// would take it that it is compressed, and unpack it whole into memory: a small one can be made to fill
/// that.
int openElf(const std::string& path, SymbolFiles which, uint64_t& sizeBytes) {
  const Descriptor place(::open(path.c_str(), O_PATH | O_CLOEXEC));  // which opens no device
  struct stat status {};
  if (place.get() < 0 || ::fstat(place.get(), &status) != 0 || !S_ISREG(status.st_mode)) return -1;
  if (which == SymbolFiles::trusted && !isTrusted(place.get(), status)) return -1;
  const std::string opened = "/proc/self/fd/" + std::to_string(place.get());
  // Not waiting for whoever has a lease of it.
  const int file = ::open(opened.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  std::array<char, SELFMAG> magic{};
  if (file >= 0 && ::pread(file, magic.data(), magic.size(), 0) == SELFMAG &&
      std::memcmp(magic.data(), ELFMAG, SELFMAG) == 0) {
    sizeBytes = static_cast<uint64_t>(status.st_size);
    return file;
  }
  if (file >= 0) ::close(file);
  return -1;
}

/// 0 when that isn't told.
uint64_t mappedBytes() {
  uint64_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  return pages * static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
}

/// For as long as it lives this process may map so much more than it has, and no more: what a file unpacks to
/// is known only once it is unpacked, and the library does that without asking. Running out is an error
/// there; nothing of the C++ library that throws belongs below one.
class MemoryBound {
 public:
  /// A file's own mapping is free; what stays mapped beyond it is taken off `leftBytes`, of which at most
  /// `mostBytes` may be used.
  MemoryBound(uint64_t& leftBytes, uint64_t mostBytes, uint64_t fileBytes)
      : leftBytes_(leftBytes), fileBytes_(fileBytes), beforeBytes_(mappedBytes()) {
    ::getrlimit(RLIMIT_AS, &before_);
    if (beforeBytes_ == 0) return;
    const rlim_t most = beforeBytes_ + fileBytes + std::min(leftBytes, mostBytes);
    const rlimit bound{std::min(most, before_.rlim_cur), before_.rlim_max};
    ::setrlimit(RLIMIT_AS, &bound);
  }
  MemoryBound(const MemoryBound&) = delete;
  MemoryBound& operator=(const MemoryBound&) = delete;
  ~MemoryBound() {
    ::setrlimit(RLIMIT_AS, &before_);
    const uint64_t free = beforeBytes_ + fileBytes_;
    const uint64_t now = mappedBytes();
    leftBytes_ -= std::min(leftBytes_, now > free ? now - free : 0);
  }

 private:
  uint64_t& leftBytes_;
  const uint64_t fileBytes_;
  const uint64_t beforeBytes_;
  rlimit before_{};
};

/// Without the version that a symbol of a library may have: "read@@GLIBC_2.2.5".
std::string readable(std::string_view symbol, uint64_t& leftBytes) {
  symbol = symbol.substr(0, kMaxNameBytes);
  std::string name(symbol.substr(0, symbol.find('@', 1)));
  // Of another name the C++ library would take it that it is a type's: f would be "float".
  if (!name.starts_with("_Z") || name.size() > kMaxMangledBytes) return name;
  std::unique_ptr<char, void (*)(void*)> plain(nullptr, std::free);
  {
    const MemoryBound ofAName(leftBytes, kMaxDemanglerBytes, 0);
    int status = 0;
    plain.reset(abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status));
  }
  return plain ? std::string(std::string_view(plain.get()).substr(0, kMaxNameBytes)) : name;
}

}  // namespace

Symbols::Symbols(std::vector<std::string> debugDirs, SymbolFiles which)
    : debugDirs_(std::move(debugDirs)), which_(which), library_(DwflFunctions::load(problem_)) {
  if (!library_) return;
  callbacks_ = {library_->findElf, findNoDebugInfo, library_->sectionAddress, nullptr};
  dwfl_ = library_->begin(&callbacks_);
  if (!dwfl_) problem_ = "no memory";
}

Symbols::~Symbols() {
  if (dwfl_) library_->end(dwfl_);
}

Dwfl_Module* Symbols::open(const std::string& path, const std::string& buildId) {
  uint64_t sizeBytes = 0;
  const int file = dwfl_ ? openElf(path, which_, sizeBytes) : -1;
  if (file < 0) return nullptr;
  Dwfl_Module* module = nullptr;
  GElf_Addr bias = 0;
  {
    const MemoryBound mapsTheFile(leftBytes_, leftBytes_, sizeBytes);
    library_->beginAdding(dwfl_);
    module = library_->addFile(dwfl_, path.c_str(), path.c_str(), file);
    library_->endAdding(dwfl_, nullptr, nullptr);
    if (!module) ::close(file);  // else it is the library's
    if (!module || !library_->elf(module, &bias)) return nullptr;
  }
  if (buildIdOf(*library_, module) != buildId) return nullptr;
  // A stripped file may have its symbols in a compressed section. Tried once, they are there or are not.
  const MemoryBound readsTheSymbols(leftBytes_, leftBytes_, 0);
  library_->symbolTable(module);
  return module;
}

const std::vector<Dwfl_Module*>& Symbols::filesOf(const ReportFrame& frame) {
  const auto [known, isNew] = files_.try_emplace({frame.module, frame.buildId});
  if (!isNew) return known->second;
  for (const std::string& path : candidatesOf(frame, debugDirs_)) {
    if (Dwfl_Module* module = open(path, frame.buildId)) known->second.push_back(module);
  }
  return known->second;
}

std::string Symbols::nameOf(const ReportFrame& frame) {
  for (Dwfl_Module* module : filesOf(frame)) {
    GElf_Addr bias = 0;
    if (!library_->elf(module, &bias)) continue;
    if (const char* symbol = library_->nameAt(module, frame.offset + bias))
      return readable(symbol, leftBytes_);
  }
  return {};
}

}  // namespace quorvelctl

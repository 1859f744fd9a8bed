// A file of kept pages that may be broken anywhere, and the history that is made of it, which is in order.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fuzz/event_formats.h"
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>

#include "kelvane/recording/cpu_history.h"
#include "kelvane/recording/kept_pages.h"

namespace {

constexpr size_t kPageBytes = 128;  // small, so that inputs have some
constexpr uint64_t kToNs = UINT64_MAX / 2;

void require(bool condition) {
  if (!condition) std::abort();
}

/// A folder of its own, which lasts as long as the process.
int folder() {
  static const int descriptor = [] {
    static std::string path = "/tmp/quorveld-fuzz-XXXXXX";
    require(::mkdtemp(path.data()) != nullptr);
    std::atexit([] {
      ::unlink((path + "/cpu0").c_str());
      ::rmdir(path.c_str());
    });
    return ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  }();
  return descriptor;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  {
    const kelvane::UniqueFd file(::openat(folder(), "cpu0", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    require(::write(file.get(), data + 2, size - 2) == static_cast<ssize_t>(size - 2));
  }
  kelvane::PageDrain::Cpu cpu{0, kelvane::KeptPages(folder(), 0, kPageBytes)};
  require(cpu.pages.isOpen() && cpu.pages.end() == (size - 2) / kPageBytes);
  cpu.pages.prune(uint64_t{data[0]} << 8, data[1]);
  require(cpu.pages.first() <= cpu.pages.end() && cpu.pages.end() - cpu.pages.first() <= data[1]);

  kelvane::EventDecoder decoder = kelvane_fuzz::decoderOfAll();
  kelvane::CpuHistory history(cpu, kPageBytes, UINT64_MAX, kToNs);
  size_t pages = 0;
  while (history.has()) {
    require(pages++ < cpu.pages.end());
    history.take(decoder, 0, kToNs);
  }
  uint64_t lastNs = 0;
  for (const kelvane::RecordedEvent& event : history.releaseEvents()) {
    require(event.atNs >= lastNs);
    lastNs = event.atNs;
  }
  decoder.takeNames();
  const size_t end = cpu.pages.end();
  require(cpu.pages.append(std::span(data, size).first(size / kPageBytes * kPageBytes)));
  require(cpu.pages.end() == end + size / kPageBytes);
  return 0;
}

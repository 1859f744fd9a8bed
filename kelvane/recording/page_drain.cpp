#include "kelvane/recording/page_drain.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <span>
#include <string>
#include <utility>

#include "kelvane/base/limits.h"
#include "kelvane/recording/trace_format.h"

namespace kelvane {
namespace {

constexpr size_t kPagesAtATime = 64;

}  // namespace

size_t readPageBytes(int instance) {
  const FileText file = readFileAt(instance, "events/header_page", kMaxProcFileBytes);
  const auto data = parseFormatField(file.text, "data");
  if (!data || data->offset + data->size > kMaxTracePageBytes) return 0;
  return data->offset + data->size;
}

size_t readBufferKb(int instance, unsigned cpu) {
  const std::string path = "per_cpu/cpu" + std::to_string(cpu) + "/buffer_size_kb";
  const FileText file = readFileAt(instance, path.c_str(), kMaxProcFileBytes);
  size_t kilobytes = 0;
  std::from_chars(file.text.data(), file.text.data() + file.text.size(), kilobytes);
  return kilobytes;
}

PageDrain::PageDrain(int instance, int folder, size_t pageBytes)
    : instance_(instance), folder_(folder), pageBytes_(pageBytes), buffer_(kPagesAtATime * pageBytes) {}

PageDrain::Result PageDrain::run(const Deadline& deadline, uint64_t nowNs) {
  const auto keepNs = static_cast<uint64_t>(std::chrono::nanoseconds(kKeepPagesFor).count());
  const uint64_t dropBeforeNs = nowNs > keepNs ? nowNs - keepNs : 0;
  const long cpus = sysconf(_SC_NPROCESSORS_CONF);
  for (unsigned number = 0; static_cast<long>(number) < cpus; ++number) {
    const std::string path = "per_cpu/cpu" + std::to_string(number) + "/trace_pipe_raw";
    const UniqueFd pipe(openat(instance_, path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!pipe && errno == ENOENT) continue;  // this CPU has never been there
    if (!pipe) return Result::unreadable;
    KeptPages kept(folder_, number, pageBytes_);
    if (!kept.isOpen()) return Result::notKept;
    // The kernel adds a page for the reader and may round up by another.
    const size_t maxPages = readBufferKb(instance_, number) * 1024 / pageBytes_ + 2;
    const Result result = drain(pipe.get(), kept, maxPages, deadline);
    if (result != Result::whole) return result;
    kept.prune(dropBeforeNs, maxPages * kKeptBuffers);
    cpus_.push_back({number, std::move(kept)});
  }
  return Result::whole;
}

PageDrain::Result PageDrain::drain(int pipe, KeptPages& pages, size_t maxPages, const Deadline& deadline) {
  size_t held = 0;
  const auto keep = [&] {
    return pages.append(std::span(buffer_).first(std::exchange(held, 0) * pageBytes_));
  };
  // Once round and no further: what is recorded meanwhile is newer than anything that was asked for.
  for (size_t count = 0; count < maxPages && !deadline.passed(); ++count) {
    const ssize_t got = read(pipe, buffer_.data() + held * pageBytes_, pageBytes_);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0 && errno != EAGAIN) return Result::unreadable;
    if (got != static_cast<ssize_t>(pageBytes_)) break;
    if (++held == kPagesAtATime && !keep()) return Result::notKept;
  }
  if (!keep()) return Result::notKept;
  return deadline.passed() ? Result::late : Result::whole;
}

}  // namespace kelvane

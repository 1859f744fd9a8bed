#include "kelvane/capture/call_watch.h"

#include <fcntl.h>
#include <linux/perf_event.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <utility>
#include <vector>

#include "kelvane/base/deadline.h"
#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/capture/wait_time.h"

namespace kelvane {
namespace {

// What the kernel writes of either event, the same since it has them: its number (2 bytes) and more in 8
// bytes, the call's number, and then its arguments or what it returned, 8 bytes each.
constexpr size_t kCallAt = 8;
constexpr size_t kRestAt = 16;

template <typename Value>
std::optional<Value> valueAt(std::span<const std::byte> bytes, size_t offset) {
  Value value;
  if (offset > bytes.size() || bytes.size() - offset < sizeof value) return std::nullopt;
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

uint16_t eventId(const char* name) {
  for (const char* root : {"/sys/kernel/tracing", "/sys/kernel/debug/tracing"}) {
    const std::string path = std::string(root) + "/events/raw_syscalls/" + name + "/id";
    const std::string text = readFileAt(AT_FDCWD, path.c_str(), kMaxProcFileBytes).text;
    uint16_t id = 0;
    std::from_chars(text.data(), text.data() + text.size(), id);
    if (id != 0) return id;
  }
  return 0;
}

UniqueFd openEvent(uint16_t id, pid_t tid) {
  perf_event_attr event{};
  event.type = PERF_TYPE_TRACEPOINT;
  event.size = sizeof event;
  event.config = id;
  event.sample_type = PERF_SAMPLE_RAW;
  event.sample_period = 1;
  event.wakeup_events = 1;
  return UniqueFd(static_cast<int>(syscall(SYS_perf_event_open, &event, tid, -1, -1, PERF_FLAG_FD_CLOEXEC)));
}

/// The memory into which the kernel writes both events, in their order, until it is full.
class Ring {
 public:
  explicit Ring(int event) : page_(static_cast<size_t>(sysconf(_SC_PAGESIZE))) {
    void* memory = mmap(nullptr, page_ + kCallRingBytes, PROT_READ | PROT_WRITE, MAP_SHARED, event, 0);
    if (memory != MAP_FAILED) mapped_ = static_cast<std::byte*>(memory);
  }
  Ring(const Ring&) = delete;
  Ring& operator=(const Ring&) = delete;
  ~Ring() {
    if (mapped_) munmap(mapped_, page_ + kCallRingBytes);
  }
  explicit operator bool() const { return mapped_ != nullptr; }

  /// What has come since the last time.
  std::vector<std::byte> take() {
    auto* control = reinterpret_cast<perf_event_mmap_page*>(mapped_);
    const uint64_t head = std::atomic_ref(control->data_head).load(std::memory_order_acquire);
    std::vector<std::byte> bytes;
    for (; readTo_ != head; readTo_++) bytes.push_back(mapped_[page_ + readTo_ % kCallRingBytes]);
    std::atomic_ref(control->data_tail).store(readTo_, std::memory_order_release);
    return bytes;
  }

 private:
  const size_t page_;
  std::byte* mapped_ = nullptr;
  uint64_t readTo_ = 0;
};

}  // namespace

bool isVainTry(const SystemCall& call, int64_t result) {
  const auto option = static_cast<int>(call.arguments[call.number == SYS_wait4 ? 2 : 1]);
  switch (call.number) {
    case SYS_fcntl:
      return (option == F_SETLK || option == F_OFD_SETLK) && (result == -EAGAIN || result == -EACCES);
    case SYS_flock:
      return (option & LOCK_NB) != 0 && result == -EWOULDBLOCK;
    case SYS_wait4:
      return (option & WNOHANG) != 0 && result == 0;
    default:
      return false;
  }
}

std::optional<SystemCall> CallReader::repeatedTryIn(std::span<const std::byte> records) {
  while (const auto header = valueAt<perf_event_header>(records, 0)) {
    if (header->size < sizeof *header || header->size > records.size()) break;
    const auto record = records.first(header->size);
    constexpr size_t kRawAt = sizeof *header + sizeof(uint32_t);  // behind its length
    if (header->type == PERF_RECORD_LOST) begun_ = {};            // its end may be among them
    if (header->type == PERF_RECORD_SAMPLE && record.size() > kRawAt) {
      if (const auto call = take(record.subspan(kRawAt)); call && isRepeated(*call)) return call;
    }
    records = records.subspan(header->size);
  }
  return std::nullopt;
}

bool CallReader::isRepeated(const SystemCall& vainTry) {
  // What it asks of is in the first argument.
  const bool isSame =
      tried_ && tried_->number == vainTry.number && tried_->arguments[0] == vainTry.arguments[0];
  if (isSame && hasSlept_) return true;
  // Of several things that are tried at a time, the first stands for all.
  if (!tried_ || hasSlept_) tried_ = vainTry;
  hasSlept_ = false;
  return false;
}

std::optional<SystemCall> CallReader::take(std::span<const std::byte> event) {
  const auto id = valueAt<uint16_t>(event, 0);
  const auto number = valueAt<int64_t>(event, kCallAt);
  if (!id || !number) return std::nullopt;
  if (*id == ids_.enter) {
    begun_ = {};
    begun_.number = *number;
    for (size_t i = 0; i < begun_.arguments.size(); i++)
      begun_.arguments[i] = valueAt<uint64_t>(event, kRestAt + 8 * i).value_or(0);
    if (onlySleeps(begun_)) hasSlept_ = true;
    return std::nullopt;
  }
  const auto result = valueAt<int64_t>(event, kRestAt);
  const SystemCall begun = std::exchange(begun_, {});
  const bool isEnd = *id == ids_.exit && result && *number == begun.number;
  return isEnd && isVainTry(begun, *result) ? std::optional(begun) : std::nullopt;
}

std::optional<SystemCall> awaitRepeatedTry(pid_t tid, std::chrono::milliseconds longest, int& error) {
  const CallEventIds ids{eventId("sys_enter"), eventId("sys_exit")};
  error = ids.enter == 0 || ids.exit == 0 ? ENODEV : 0;
  if (error != 0) return std::nullopt;
  const UniqueFd enter = openEvent(ids.enter, tid);
  if (!enter) return error = errno, std::nullopt;
  Ring ring(enter.get());
  const UniqueFd exit = openEvent(ids.exit, tid);
  if (!ring || !exit || ioctl(exit.get(), PERF_EVENT_IOC_SET_OUTPUT, enter.get()) != 0)
    return error = errno, std::nullopt;
  CallReader reader(ids);
  const Deadline over(longest);
  while (!over.passed()) {
    pollfd written{enter.get(), POLLIN, 0};
    if (poll(&written, 1, over.leftMs()) < 0) break;
    if (const auto call = reader.repeatedTryIn(ring.take())) return call;
    // The thread has ended.
    if ((written.revents & (POLLHUP | POLLERR)) != 0) break;
  }
  return std::nullopt;
}

}  // namespace kelvane

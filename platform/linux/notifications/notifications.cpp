#include "platform/linux/notifications/notifications.h"

#include <sys/epoll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <utility>

#include "platform/linux/base/file_bytes.h"
#include "platform/linux/base/linux_log.h"
#include "platform/linux/base/root_path.h"
#include "platform/linux/base/unique_fd.h"
#include "platform/linux/queues/event_loop.h"

namespace quorveld::linux_platform {

namespace {

constexpr size_t kMaxStateBytes = 64;

std::string directory() {
  return rooted("/run/quorveld/notify");
}

/// What the events of one read of an inotify descriptor mean for the file `name`.
struct News {
  bool posted = false;     // or perhaps: events were lost
  bool unwatched = false;  // the directory is gone
};

News newsOf(std::string_view events, std::string_view name) {
  News news;
  while (events.size() >= sizeof(inotify_event)) {
    inotify_event event{};
    std::memcpy(&event, events.data(), sizeof event);
    events.remove_prefix(sizeof event);
    // The file's name is filled up with NULs.
    const std::string_view padded = events.substr(0, event.len);
    events.remove_prefix(padded.size());
    const bool lost = (event.mask & IN_Q_OVERFLOW) != 0;
    news.posted |= lost || padded.substr(0, padded.find('\0')) == name;
    news.unwatched |= (event.mask & IN_IGNORED) != 0;
  }
  return news;
}

/// What a subscription and the handler that it is running share: a handler may destroy its own subscription.
class Watch : public std::enable_shared_from_this<Watch> {
 public:
  Watch(std::string name, platform::Task handler) : name_(std::move(name)), handler_(std::move(handler)) {}

  /// Starts to collect events in the kernel.
  std::error_code open() {
    inotify_.reset(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    return inotify_ ? watchDirectory() : lastError();
  }

  /// Starts to deliver them. On the loop's thread.
  void attach(EventLoop& loop) {
    if (cancelled_) return;
    sd_event_source* source = nullptr;
    const int result = sd_event_add_io(loop.event(), &source, inotify_.get(), EPOLLIN, readable, this);
    if (result < 0) logDefault("Notification %s is not delivered: %s", name_.c_str(), std::strerror(-result));
    source_.reset(source);
  }

  /// On the loop's thread.
  void cancel() {
    cancelled_ = true;
    source_.reset();
  }

  std::optional<uint64_t> state() const {
    std::error_code error;
    const std::optional<std::string> text = readFile(directory() + "/" + name_, kMaxStateBytes, error);
    return text ? parseNotificationState(*text) : std::nullopt;
  }

 private:
  std::error_code watchDirectory() {
    const std::string path = directory();
    const std::error_code error = makeDirectories(path, 0755);
    if (error && error != std::errc::file_exists) return error;
    constexpr uint32_t kPosted = IN_MOVED_TO | IN_CLOSE_WRITE;
    const int watch = ::inotify_add_watch(inotify_.get(), path.c_str(), kPosted | IN_ONLYDIR);
    return watch < 0 ? lastError() : std::error_code();
  }

  static int readable(sd_event_source*, int, uint32_t, void* self) noexcept {
    const std::shared_ptr<Watch> held = static_cast<Watch*>(self)->shared_from_this();
    held->takeEvents();
    return 0;
  }

  void takeEvents() {
    std::array<char, 4096> events;  // room for several, whatever their names
    News news;
    for (;;) {
      const ssize_t length = ::read(inotify_.get(), events.data(), events.size());
      if (length <= 0) break;
      const News more = newsOf({events.data(), static_cast<size_t>(length)}, name_);
      news = {news.posted || more.posted, news.unwatched || more.unwatched};
    }
    if (news.unwatched) {
      if (const std::error_code error = watchDirectory()) {
        logDefault("Notification %s is delivered no more: %s", name_.c_str(), error.message().c_str());
      }
    }
    if (news.posted) handler_();
  }

  const std::string name_;
  const platform::Task handler_;
  UniqueFd inotify_;
  EventSource source_;
  bool cancelled_ = false;
};

class LinuxSubscription final : public platform::Subscription {
 public:
  explicit LinuxSubscription(std::shared_ptr<Watch> watch) : watch_(std::move(watch)) {}
  LinuxSubscription(const LinuxSubscription&) = delete;
  LinuxSubscription& operator=(const LinuxSubscription&) = delete;
  ~LinuxSubscription() override { watch_->cancel(); }

  std::optional<uint64_t> state() const override { return watch_->state(); }

 private:
  std::shared_ptr<Watch> watch_;
};

/// Of a name that the system refuses.
class SilentSubscription final : public platform::Subscription {
 public:
  std::optional<uint64_t> state() const override { return std::nullopt; }
};

}  // namespace

bool isNotificationName(std::string_view name) {
  return !name.empty() && name.size() <= kMaxNotificationNameBytes && name.front() != '.' &&
         name.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

std::optional<uint64_t> parseNotificationState(std::string_view text) {
  if (text.ends_with('\n')) text.remove_suffix(1);
  uint64_t state = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), state);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return state;
}

std::unique_ptr<platform::Subscription> LinuxNotifications::subscribe(std::string_view name,
                                                                      platform::WorkQueue& queue,
                                                                      platform::Task handler) {
  if (!isNotificationName(name)) {
    logDefault("No name for a notification: %.*s", static_cast<int>(name.size()), name.data());
    return std::make_unique<SilentSubscription>();
  }
  auto watch = std::make_shared<Watch>(std::string(name), std::move(handler));
  if (const std::error_code error = watch->open()) {
    logDefault("Notification %.*s is not delivered: %s", static_cast<int>(name.size()), name.data(),
               error.message().c_str());
    return std::make_unique<SilentSubscription>();
  }
  EventLoop& loop = loopOf(queue);
  if (queue.isCurrent()) {
    watch->attach(loop);
  } else {
    queue.async([watch, &loop] { watch->attach(loop); });
  }
  return std::make_unique<LinuxSubscription>(std::move(watch));
}

void LinuxNotifications::take(std::string_view name) {
  if (!isNotificationName(name)) return;
  const std::string path = directory() + '/' + std::string(name);
  if (::unlink(path.c_str()) == 0 || errno == ENOENT) return;
  logDefault("Notification %s stays posted: %s", path.c_str(), lastError().message().c_str());
}

}  // namespace quorveld::linux_platform

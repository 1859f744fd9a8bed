#include "platform/linux/notifications/notifications.h"

#include <sys/epoll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <functional>
#include <mutex>
#include <set>
#include <utility>
#include <vector>

#include "platform/linux/base/file_bytes.h"
#include "platform/linux/base/linux_log.h"
#include "platform/linux/base/root_path.h"
#include "platform/linux/base/unique_fd.h"
#include "platform/linux/queues/event_loop.h"
#include "platform/linux/queues/event_queues.h"

namespace quorveld::linux_platform {

namespace {

constexpr size_t kMaxStateBytes = 64;

std::string directory() {
  return rooted("/run/quorveld/notify");
}

}  // namespace

/// What the events of one read of the inotify descriptor mean.
struct NotificationNews {
  std::set<std::string, std::less<>> posted;  // names
  bool lost = false;                          // any of them, perhaps
  bool unwatched = false;                     // the directory is gone
};

static void addNews(std::string_view events, NotificationNews& news) {
  while (events.size() >= sizeof(inotify_event)) {
    inotify_event event{};
    std::memcpy(&event, events.data(), sizeof event);
    events.remove_prefix(sizeof event);
    // The file's name is filled up with NULs.
    const std::string_view padded = events.substr(0, event.len);
    events.remove_prefix(padded.size());
    if (!padded.empty()) news.posted.emplace(padded.substr(0, padded.find('\0')));
    news.lost |= (event.mask & IN_Q_OVERFLOW) != 0;
    news.unwatched |= (event.mask & IN_IGNORED) != 0;
  }
}

/// What a subscription, the watcher and the handler that is running share: a handler may destroy its own
/// subscription.
class NotificationWatch : public std::enable_shared_from_this<NotificationWatch> {
 public:
  NotificationWatch(std::string name, platform::WorkQueue& queue, platform::Task handler)
      : name_(std::move(name)), queue_(queue), handler_(std::move(handler)) {}

  const std::string& name() const { return name_; }

  /// Has the handler called on its queue, once for however many posts until then. From any thread.
  void deliver() {
    // The queue is there for as long as the subscription is.
    const std::lock_guard lock(mutex_);
    if (cancelled_ || std::exchange(pending_, true)) return;
    queue_.async([held = shared_from_this()] { held->run(); });
  }

  /// On the queue.
  void cancel() {
    const std::lock_guard lock(mutex_);
    cancelled_ = true;
  }

  std::optional<uint64_t> state() const {
    std::error_code error;
    const std::optional<std::string> text = readFile(directory() + "/" + name_, kMaxStateBytes, error);
    return text ? parseNotificationState(*text) : std::nullopt;
  }

 private:
  void run() {
    {
      const std::lock_guard lock(mutex_);
      pending_ = false;
      if (cancelled_) return;
    }
    handler_();
  }

  const std::string name_;
  platform::WorkQueue& queue_;
  const platform::Task handler_;
  std::mutex mutex_;
  bool pending_ = false;
  bool cancelled_ = false;
};

namespace {

class LinuxSubscription final : public platform::Subscription {
 public:
  explicit LinuxSubscription(std::shared_ptr<NotificationWatch> watch) : watch_(std::move(watch)) {}
  LinuxSubscription(const LinuxSubscription&) = delete;
  LinuxSubscription& operator=(const LinuxSubscription&) = delete;
  ~LinuxSubscription() override { watch_->cancel(); }

  std::optional<uint64_t> state() const override { return watch_->state(); }

 private:
  std::shared_ptr<NotificationWatch> watch_;
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

/// Watches the directory for all subscriptions, on a queue of its own. Its first subscription starts it.
class LinuxNotifications::Watcher {
 public:
  explicit Watcher(std::chrono::milliseconds retryDelay) : retryDelay_(retryDelay) {}

  void add(const std::shared_ptr<NotificationWatch>& watch) {
    const std::lock_guard lock(mutex_);
    std::erase_if(watches_, [](const auto& old) { return old.expired(); });
    watches_.push_back(watch);
    if (queue_) return;
    // The queue has no task yet: until it has, what is its own is touched here.
    queue_ = LinuxQueues().create("com.corvix.quorvel.notifications", platform::QoSClass::utility);
    const std::error_code error = open();
    queue_->async([this, error] { error ? tryLater(error) : attach(); });
  }

 private:
  std::error_code open() {
    if (!inotify_) inotify_.reset(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!inotify_) return lastError();
    const std::string path = directory();
    const std::error_code error = makeDirectories(path, 0755);
    if (error && error != std::errc::file_exists) return error;
    constexpr uint32_t kPosted = IN_MOVED_TO | IN_CLOSE_WRITE;
    const int watch = ::inotify_add_watch(inotify_.get(), path.c_str(), kPosted | IN_ONLYDIR);
    return watch < 0 ? lastError() : std::error_code();
  }

  void attach() {
    if (source_) return;
    sd_event_source* source = nullptr;
    const int result =
        sd_event_add_io(loopOf(*queue_).event(), &source, inotify_.get(), EPOLLIN, readable, this);
    source_.reset(source);
    if (result < 0) tryLater({-result, std::generic_category()});
  }

  void tryLater(std::error_code error) {
    if (!std::exchange(complained_, true)) {
      logDefault("Can't watch for notifications, trying again: %s", error.message().c_str());
    }
    queue_->after(retryDelay_, [this] { tryAgain(); });
  }

  void tryAgain() {
    if (const std::error_code error = open()) return tryLater(error);
    complained_ = false;
    attach();
    // What was posted meanwhile nobody has told.
    deliverWhere([](const NotificationWatch& watch) {
      return ::access((directory() + "/" + watch.name()).c_str(), F_OK) == 0;
    });
  }

  static int readable(sd_event_source*, int, uint32_t, void* self) noexcept {
    static_cast<Watcher*>(self)->takeEvents();
    return 0;
  }

  void takeEvents() {
    std::array<char, 4096> events;  // room for several, whatever their names
    NotificationNews news;
    for (;;) {
      const ssize_t length = ::read(inotify_.get(), events.data(), events.size());
      if (length <= 0) break;
      addNews({events.data(), static_cast<size_t>(length)}, news);
    }
    if (news.unwatched) {
      if (const std::error_code error = open()) tryLater(error);
    }
    deliverWhere(
        [&](const NotificationWatch& watch) { return news.lost || news.posted.contains(watch.name()); });
  }

  void deliverWhere(const std::function<bool(const NotificationWatch&)>& wanted) {
    std::vector<std::shared_ptr<NotificationWatch>> found;
    {
      const std::lock_guard lock(mutex_);
      for (const auto& entry : watches_) {
        const std::shared_ptr<NotificationWatch> watch = entry.lock();
        if (watch && wanted(*watch)) found.push_back(watch);
      }
    }
    for (const auto& watch : found) watch->deliver();
  }

  const std::chrono::milliseconds retryDelay_;
  std::mutex mutex_;
  std::vector<std::weak_ptr<NotificationWatch>> watches_;
  UniqueFd inotify_;
  EventSource source_;
  bool complained_ = false;
  std::unique_ptr<platform::WorkQueue> queue_;  // last, so that it ends first: its tasks use the above
};

LinuxNotifications::LinuxNotifications(std::chrono::milliseconds retryDelay)
    : watcher_(std::make_unique<Watcher>(retryDelay)) {}

LinuxNotifications::~LinuxNotifications() = default;

std::unique_ptr<platform::Subscription> LinuxNotifications::subscribe(std::string_view name,
                                                                      platform::WorkQueue& queue,
                                                                      platform::Task handler) {
  if (!isNotificationName(name)) {
    logDefault("No name for a notification: %.*s", static_cast<int>(name.size()), name.data());
    return std::make_unique<SilentSubscription>();
  }
  auto watch = std::make_shared<NotificationWatch>(std::string(name), queue, std::move(handler));
  watcher_->add(watch);
  return std::make_unique<LinuxSubscription>(std::move(watch));
}

void LinuxNotifications::take(std::string_view name) {
  if (!isNotificationName(name)) return;
  const std::string path = directory() + '/' + std::string(name);
  if (::unlink(path.c_str()) == 0 || errno == ENOENT) return;
  logDefault("Notification %s stays posted: %s", path.c_str(), lastError().message().c_str());
}

}  // namespace quorveld::linux_platform

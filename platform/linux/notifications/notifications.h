#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "platform/notifications.h"

namespace quorveld::linux_platform {

/// The longest name of a notification, in bytes: file names end there (NAME_MAX).
inline constexpr size_t kMaxNotificationNameBytes = 255;

/// Whether `name` may name a notification: not empty, not too long, no '/' and no NUL in it and no '.' before
/// it.
bool isNotificationName(std::string_view name);

/// The state in a notification's file: a decimal number of 64 bits, a line break after it allowed.
std::optional<uint64_t> parseNotificationState(std::string_view text);

/// Notifications as files, one a name, in /run/quorveld/notify below the instance's root. Posting is
/// replacing (or writing) the file, and taking the post is removing it; inotify(7) delivers. Only who may
/// write into the directory can post.
///
/// `subscribe` may be called on any thread; what is posted from then on is delivered. A subscription belongs
/// to its queue: it is destroyed there. One thread watches for all of them, and tries again where the kernel
/// refuses.
class LinuxNotifications final : public platform::Notifications {
 public:
  explicit LinuxNotifications(std::chrono::milliseconds retryDelay = std::chrono::seconds(5));
  ~LinuxNotifications() override;

  std::unique_ptr<platform::Subscription> subscribe(std::string_view name, platform::WorkQueue& queue,
                                                    platform::Task handler) override;
  void take(std::string_view name) override;

 private:
  class Watcher;
  const std::unique_ptr<Watcher> watcher_;
};

}  // namespace quorveld::linux_platform

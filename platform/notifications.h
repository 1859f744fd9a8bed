#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "platform/work_queue.h"

namespace quorveld::platform {

/// Keeps a subscription alive; its handler never runs once it is destroyed, on the subscription's queue.
class Subscription {
 public:
  virtual ~Subscription() = default;

  /// The state last posted under the subscription's name; nothing if it can't be read.
  virtual std::optional<uint64_t> state() const = 0;
};

/// System notifications: a name, delivered when posted, with the poster's latest 64-bit state.
class Notifications {
 public:
  virtual ~Notifications() = default;

  /// Calls `handler` on `queue` after each post of `name`. Posts in quick succession may arrive as one. A
  /// subscription that the system refuses is logged and never fires.
  [[nodiscard]] virtual std::unique_ptr<Subscription> subscribe(std::string_view name, WorkQueue& queue,
                                                                Task handler) = 0;

  /// What has been posted under `name` so far counts as taken, and its state goes. A post that nobody takes
  /// outlives the daemon: on Linux its file starts the next one.
  virtual void take(std::string_view name) = 0;
};

}  // namespace quorveld::platform

#pragma once

#include <sys/timerfd.h>

#include <chrono>

#include "platform/linux/wire/receiver_packets.h"

namespace quorveld::linux_platform {

/// The steps in which a client can hold this process up: reading from its socket, closing what it sent.
class HeldUpTimer {
 public:
  HeldUpTimer(ReceiverPage& page, int timer) : page_(page), timer_(timer) {}

  /// While one lives, the process is at a connection, and the daemon learns when that takes too long.
  class Step {
   public:
    Step(HeldUpTimer& timer, uint32_t connection) : timer_(timer) {
      timer_.page_.at = connection;
      timer_.arm(kPatience);
    }
    Step(const Step&) = delete;
    Step& operator=(const Step&) = delete;
    ~Step() {
      timer_.arm(std::chrono::milliseconds(0));
      timer_.page_.at = 0;
    }

   private:
    HeldUpTimer& timer_;
  };

 private:
  static constexpr std::chrono::milliseconds kPatience{100};

  void arm(std::chrono::milliseconds time) const {
    const itimerspec when{{}, {0, std::chrono::nanoseconds(time).count()}};
    timerfd_settime(timer_, 0, &when, nullptr);
  }

  ReceiverPage& page_;
  int timer_;
};

}  // namespace quorveld::linux_platform

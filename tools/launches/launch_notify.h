#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/base/descriptor.h"

namespace quorvelctl {

/// One message of sd_notify(3). A sender that waits until its message was handled waits until this is
/// destroyed: it has sent a descriptor, and waits for the last copy to be closed.
struct NotifyMessage {
  std::string text;
  pid_t sender = 0;  ///< as the kernel says; 0: not said
  uid_t user = 0;
  std::vector<Descriptor> descriptors;
};

/// Whether `assignment`, as READY=1, is one of the lines of `text`.
bool hasLine(std::string_view text, std::string_view assignment);

/// Whether `message` comes from this process (systemd-notify(1) speaks in its parent's name) or from a
/// descendant of it. A sender that has ended by now can't be traced back, and is believed when it was of this
/// process's user.
bool comesFromUs(const NotifyMessage& message);

/// Sends `text` to whoever started this process and waits for it to be up, if that is anybody: as
/// sd_notify(3) does, whose library would have to load six others.
void notifyManager(const std::string& text);

/// A socket of its own for a command's sd_notify(3) messages, in the abstract namespace: nothing to clean up,
/// and a command that gives its user up still reaches it.
class NotifySocket {
 public:
  /// When there can be no socket, `descriptor()` is negative and errno says why.
  NotifySocket();

  int descriptor() const { return socket_.get(); }
  /// What goes into NOTIFY_SOCKET.
  const std::string& address() const { return address_; }

  /// The next message that waits; one that is longer than 4096 bytes is cut off there. Never blocks.
  std::optional<NotifyMessage> receive() const;

 private:
  Descriptor socket_;
  std::string address_;
};

}  // namespace quorvelctl

#pragma once

#include <sys/un.h>

#include <string_view>

#include "platform/linux/base/unique_fd.h"

namespace quorveld::linux_platform {

/// Where lines go out: journald's socket when stderr is connected to the journal, else stderr. From any
/// thread.
///
/// Nothing here waits for who reads: what can't be taken at once is refused. Only a stderr that is a regular
/// file may take as long as its disk does.
class LogOutput {
 public:
  explicit LogOutput(std::string_view journalSocket);

  bool isJournal() const { return static_cast<bool>(journal_); }

  /// One record of the journal's fields; false when it was not taken.
  bool sendToJournal(std::string_view fields);

  /// One line in one step, so that lines of several threads stay apart; false when it was not taken.
  bool writeToStderr(std::string_view line);

 private:
  UniqueFd journal_;
  sockaddr_un address_{};
  /// A pipe or terminal opened anew: others who share stderr wait on it as they are used to.
  UniqueFd own_;
  bool isSocket_ = false;
  bool isFile_ = false;
};

}  // namespace quorveld::linux_platform

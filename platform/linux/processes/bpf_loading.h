#pragma once

#include <optional>
#include <string>

#include "platform/linux/base/unique_fd.h"
#include "platform/linux/processes/process_table_source.h"

namespace quorveld::linux_platform {

/// A program in the kernel and what it shares with this process. It stays there while these are open.
struct LoadedBpf {
  UniqueFd program;
  UniqueFd sampleArrays;  ///< an array of one array of process_sample
  UniqueFd pass;          ///< an array of one sample_pass
  UniqueFd link;          ///< of an iterator alone
};

/// Loads a program in a copy of this process, which ends with that: libbpf takes more than 10 MB for the
/// kernel's type information, and a daemon that once took them keeps some. Takes tens of milliseconds;
/// nothing, and the reason in `why`, when it can't be loaded. Where it takes seconds it is given up, and none
/// is tried again as long as this process lives, whatever the reason was.
[[nodiscard]] std::optional<LoadedBpf> loadBpf(BpfPass pass, std::string& why);

/// "WHAT: the error's text", or which capabilities it takes.
std::string bpfReason(const char* what, int error);

/// libbpf's option structs tell their own size, so that an older library knows which fields there are.
template <typename Options>
Options noOptions() {
  Options options{};
  options.sz = sizeof(options);
  return options;
}

}  // namespace quorveld::linux_platform

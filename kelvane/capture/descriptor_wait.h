#pragma once

#include <optional>
#include <vector>

#include "kelvane/base/omission.h"
#include "kelvane/capture/descriptor_index.h"
#include "kelvane/capture/likely_thread.h"
#include "kelvane/waits/wait_graph.h"

namespace kelvane {

/// What the party waits for in a call that reads, writes or watches descriptors, and who has the other ends
/// of these: pipes, Unix and TCP sockets, eventfds, terminals, and processes by their pidfds. The party's own
/// process only if no other has an end. Who watches several ends waits for just one of them: none is named
/// then, unless all but one lead to `waiting`, the processes that already wait for the party.
///
/// Nothing if it is in no such call. Sockets of another network namespace are not seen, and where the kernel
/// can't be asked about sockets at all, `omissions` says so.
std::optional<PartyWait> descriptorWait(int processDir, const WaitParty& party,
                                        const std::vector<pid_t>& waiting, DescriptorIndex& index,
                                        ThreadLists& threads, std::vector<Omission>& omissions);

}  // namespace kelvane

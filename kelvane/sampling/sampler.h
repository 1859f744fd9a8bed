#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "kelvane/base/limits.h"
#include "kelvane/sampling/sampled_thread.h"

namespace kelvane {

// The socket of packets between the library and the sampler. The library sends orders and never waits for the
// sampler, whose only word in return is an errno value (an int32_t): why the kernel lets it sample nothing.

/// An operation that has been pending for a while.
struct PendingThread {
  int64_t pid = 0;
  int64_t threadId = 0;  // as the process calls it

  bool operator==(const PendingThread&) const = default;
};

struct SamplingOrder {
  enum Kind : uint32_t {
    kSample,    // these threads and no others
    kHandOver,  // what is kept of the first of them, over the socket that comes with the order
  };
  Kind kind = kSample;
  uint32_t count = 0;
  std::array<PendingThread, kMaxSampledThreads> threads;
};

/// The sampler: follows orders until there is nothing left to sample, or nobody has given one for
/// kOrdersWait. Returns the process's exit status.
int runSampler(int socket);

/// What the sampler hands over through the other end of `socket`, for which it is given kSamplesWait; nothing
/// if nobody does.
std::optional<KeptSamples> receiveSamples(int socket);

}  // namespace kelvane

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "abi/kelvane.h"
#include "kelvane/base/proc_files.h"

namespace kelvane {

/// The sampler as the library sees it: a run of kelvane-capture that is there while there is something to
/// sample, and to which this process gives orders without waiting for what it does.
///
/// One that ends too early is started anew with the next orders; none is any more once the kernel has
/// refused.
class SamplerProgram {
 public:
  /// Has the threads of these operations sampled, the first of them first, and no others. Returns why
  /// nothing is sampled on this machine when that has turned out, once; else empty.
  std::string sample(std::span<const kelvane_pending> pending);

  /// The end of a socket over which the samples of that thread come (0: the main one); none if there is no
  /// sampler.
  UniqueFd requestSamples(int64_t pid, int64_t threadId) const;

 private:
  void start();
  /// Why the kernel refuses, if the sampler has said so.
  std::string refusal() const;

  UniqueFd orders_;
  UniqueFd process_;  // until it has been collected
  bool isRefused_ = false;
};

}  // namespace kelvane

#pragma once

#include <optional>
#include <string>

#include "client/sample/blocking.h"

namespace quorvel_sample {

struct Options {
  double hangSeconds = 0;  ///< 0: nothing hangs
  BlockingWay how = BlockingWay::sleep;
  int times = 1;
  bool report = false;
  bool fence = false;
  int threads = 1;
  std::string bundleId = "com.corvix.quorvel.sample";
};

/// The command line's options. Nothing when there is nothing to run: help was asked for and printed (`status`
/// 0), or the usage is wrong and the reason stands on stderr (`status` 2).
std::optional<Options> parseOptions(int argc, char** argv, int& status);

}  // namespace quorvel_sample

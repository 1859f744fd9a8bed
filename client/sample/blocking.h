#pragma once

#include <chrono>
#include <optional>
#include <string_view>

namespace quorvel_sample {

enum class BlockingWay { sleep, spin, lock, pipe, disk, starve };

std::optional<BlockingWay> blockingWay(std::string_view name);
const char* describe(BlockingWay way);

/// Blocks the calling thread, as its name says, for `duration`. Each way is a function of its own, so that a
/// stack tells which it was.
void block(BlockingWay way, std::chrono::nanoseconds duration);

}  // namespace quorvel_sample

// A client's region may hold anything and be of any length. The daemon reads within it, writes nothing but
// start times, and files its reports under harmless names.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "abi/hang_region.h"
#include "tests/sim/world.h"

namespace {

constexpr size_t kSlotsAt = offsetof(QVSharedHangRegion, slots);

bool isStartTime(size_t offset) {
  return offset >= kSlotsAt && (offset - kSlotsAt) % sizeof(hangEvent) < sizeof(uint64_t);
}

void require(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace std::chrono_literals;
  quorveld::sim::World world;
  // Short inputs still make a region that is accepted: most of what there is to find lies behind that check.
  const size_t length = std::max(size, sizeof(QVSharedHangRegion) - (size % 5 == 0 ? 1 : 0));
  const quorveld::sim::App app = world.connectApp("viewer", length);
  std::memcpy(app.memory().bytes(), data, size);
  app.registerRegion();
  const std::vector<std::byte> before(app.memory().bytes(), app.memory().bytes() + length);

  world.advance(16s);

  for (size_t at = 0; at < length; ++at) {
    require(before[at] == app.memory().bytes()[at] || isStartTime(at));
  }
  require(world.temporaryFiles().empty());
  for (const std::string& name : world.spool()) {
    require(!name.empty() && name.front() != '.' && name.find('/') == std::string::npos &&
            name.size() <= 255);
  }
  return 0;
}

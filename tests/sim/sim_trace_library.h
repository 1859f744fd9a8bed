#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "abi/kelvane.h"
#include "platform/trace_library.h"
#include "tests/sim/fault_plan.h"

namespace quorveld::sim {

/// What the entry point was asked for.
struct TraceRequest {
  size_t optionCount = 0;
  std::string reason;
  bool noSymbolicate = false;
  uint64_t minTimestamp = 0;
  uint64_t maxTimestamp = 0;
  kelvane_launch launch{};  // that it is about
};

/// The trace-capture library: it answers with `report`, as a scenario scripts it.
///
/// Its option keys have texts of their own, so that only a caller who reads the exported constants is
/// understood. One instance at a time: the entry point is a plain function.
class SimTraceLibraries final : public platform::TraceLibraryLoader {
 public:
  explicit SimTraceLibraries(FaultPlan& faults);
  ~SimTraceLibraries() override;

  std::string_view suffix() const override { return ".so"; }
  std::unique_ptr<platform::TraceLibrary> open(const std::string& path, std::string& reason) override;

  std::string report = "TRACE";           ///< what the entry point writes
  bool repeatsReason = false;             ///< it writes the header that it was given, too
  bool succeeds = true;                   ///< what it then answers
  bool entryPointMissing = false;         ///< the library lacks it
  bool samples = true;                    ///< it can be asked to sample
  const char* samplingRefusal = nullptr;  ///< what it then answers
  kelvane_launch nextLaunch{};            ///< that it was told of
  std::string culprit;                    ///< of the finding that it then tells
  std::function<void()> atDump;           ///< while it dumps
  std::vector<TraceRequest> requests;
  std::vector<std::vector<kelvane_pending>> sampled;  ///< what it was asked to sample
  std::vector<std::string> opened;                    ///< paths asked for

 private:
  FaultPlan& faults_;
};

}  // namespace quorveld::sim

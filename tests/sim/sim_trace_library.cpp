#include "tests/sim/sim_trace_library.h"

#include <unistd.h>

#include <cstring>
#include <string_view>
#include <utility>

namespace quorveld::sim {

namespace {

SimTraceLibraries* active = nullptr;

const char* const reasonKey = "sim.reason";
const char* const noSymbolicateKey = "sim.no-symbolicate";
const char* const minTimestampKey = "sim.min";
const char* const maxTimestampKey = "sim.max";

bool dump(int descriptor, const kelvane_options* options) {
  if (active->atDump) active->atDump();
  TraceRequest request;
  request.optionCount = options->count;
  request.launch = std::exchange(active->nextLaunch, {});
  for (size_t i = 0; i < options->count; ++i) {
    const kelvane_option& option = options->options[i];
    const std::string_view key = option.key;
    if (key == reasonKey && option.type == KELVANE_STRING) request.reason = option.value.string;
    if (key == noSymbolicateKey && option.type == KELVANE_BOOL) request.noSymbolicate = option.value.boolean;
    if (key == minTimestampKey && option.type == KELVANE_UINT64) request.minTimestamp = option.value.uint64;
    if (key == maxTimestampKey && option.type == KELVANE_UINT64) request.maxTimestamp = option.value.uint64;
  }
  const std::string report = active->report + (active->repeatsReason ? request.reason : "");
  active->requests.push_back(std::move(request));
  return write(descriptor, report.data(), report.size()) == static_cast<ssize_t>(report.size()) &&
         active->succeeds;
}

const char* samplePending(const kelvane_pending* pending, size_t count) {
  active->sampled.emplace_back(pending, pending + count);
  return active->samplingRefusal;
}

void lastFinding(kelvane_finding* finding) {
  *finding = {"lock", "", "0123456789abcdef"};
  // Its whole room, and no NUL behind it, of a library that keeps no promise.
  active->culprit.copy(finding->culprit, sizeof finding->culprit);
}

void nameLaunch(const kelvane_launch* launch) {
  active->nextLaunch = *launch;
}

class Library final : public platform::TraceLibrary {
 public:
  explicit Library(const SimTraceLibraries& libraries) : libraries_(libraries) {}

  void* symbol(const char* name) override {
    const std::string_view wanted = name;
    if (wanted == KELVANE_ENTRY_POINT && !libraries_.entryPointMissing) return reinterpret_cast<void*>(&dump);
    if (wanted == KELVANE_SAMPLE_ENTRY_POINT && libraries_.samples)
      return reinterpret_cast<void*>(&samplePending);
    if (wanted == KELVANE_FINDING_ENTRY_POINT) return reinterpret_cast<void*>(&lastFinding);
    if (wanted == KELVANE_LAUNCH_ENTRY_POINT) return reinterpret_cast<void*>(&nameLaunch);
    for (const auto& [exported, address] : {std::pair{KELVANE_KEY_REASON_STRING, &reasonKey},
                                            std::pair{KELVANE_KEY_NO_SYMBOLICATE, &noSymbolicateKey},
                                            std::pair{KELVANE_KEY_MIN_TIMESTAMP, &minTimestampKey},
                                            std::pair{KELVANE_KEY_MAX_TIMESTAMP, &maxTimestampKey}}) {
      if (wanted == exported) return const_cast<const char**>(address);
    }
    return nullptr;
  }

 private:
  const SimTraceLibraries& libraries_;
};

}  // namespace

SimTraceLibraries::SimTraceLibraries(FaultPlan& faults) : faults_(faults) {
  active = this;
}

SimTraceLibraries::~SimTraceLibraries() {
  active = nullptr;
}

std::unique_ptr<platform::TraceLibrary> SimTraceLibraries::open(const std::string& path,
                                                                std::string& reason) {
  opened.push_back(path);
  reason = path + ": invalid ELF header";
  if (faults_.fails(Op::openLibrary) || path != KELVANE_LIBRARY_PATH ".so") return nullptr;
  return std::make_unique<Library>(*this);
}

}  // namespace quorveld::sim

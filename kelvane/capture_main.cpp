#include <unistd.h>

#include <cstdio>
#include <exception>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/capture/exit_status.h"
#include "kelvane/launch/arguments.h"
#include "kelvane/report/finding.h"
#include "kelvane/report/json_writer.h"
#include "kelvane/report/make_report.h"
#include "kelvane/report/report.h"
#include "kelvane/report/report_file.h"
#include "kelvane/sampling/sampler.h"
#include "kelvane/sandbox/rights.h"

// kelvane-capture: makes one report, or is the sampler (kelvane/sampling/sampler.h), in a process that
// libkelvane.so starts for it and may leave behind. It reads the reason text from its standard input and
// writes the report over the file that is its standard output; the sampler gets its orders over its standard
// input.

namespace kelvane {
namespace {

int run(const std::vector<std::string>& arguments) {
  keepRightsToLook();
  const bool isSampler = arguments == std::vector<std::string>{kSamplerOption};
  limitResources(isSampler ? kMaxSamplerCpuTime : kMaxCpuTime);
  if (isSampler) return runSampler(STDIN_FILENO);
  const FileText reason = readOn(STDIN_FILENO, kMaxHeaderBytes + 1);
  const std::optional<Order> order = readOrder(reason.text, arguments);
  if (!order) return kOtherVersion;
  const Report report = makeReport(order->request, order->notLooking);
  limitReport();
  writeFinding(kFindingDescriptor, findingOf(report));
  ReportFile file(STDOUT_FILENO);
  JsonWriter json(file);
  writeReport(report, json);
  file.write('\n');
  return file.finish() ? 0 : kFailed;
}

}  // namespace
}  // namespace kelvane

int main(int argc, char** argv) {
  int status = kelvane::kFailed;
  try {
    status = kelvane::run(std::vector<std::string>(argv + 1, argv + argc));
  } catch (const std::bad_alloc&) {
    status = kelvane::kOutOfMemory;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kelvane-capture: %s\n", error.what());
  }
  // At once: nothing is left to be tidied up, and whoever waits for the report waits for this end.
  _exit(status);
}

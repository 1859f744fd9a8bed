#include <fcntl.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>

#include "abi/kelvane.h"
#include "kelvane/base/deadline.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/recorder/recorder.h"
#include "kelvane/recorder/recorder_status.h"
#include "kelvane/report/make_report.h"
#include "kelvane/report/report_file.h"

namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;
constexpr int kNotRunning = 3;
constexpr std::chrono::seconds kStatusWait{10};
constexpr double kDefaultPastSeconds = 10;

int fail(const std::string& what, const std::string& why) {
  std::fprintf(stderr, "kelvanectl: %s: %s\n", what.c_str(), why.c_str());
  return kFailed;
}

int start(size_t bufferKb) {
  const kelvane::ControlResult result = kelvane::startRecorder(bufferKb);
  if (!result.error.empty()) return fail("the recorder can't be started", result.error);
  for (const kelvane::Omission& omission : result.leftOut) {
    std::printf("left out: %s: %s\n", omission.what.c_str(), omission.why.c_str());
  }
  if (result.wasSo) {
    std::printf("recording already, with %zu KB for each CPU\n", result.bufferKb);
  } else {
    std::puts("recording");
  }
  return kDone;
}

int stop() {
  const kelvane::ControlResult result = kelvane::stopRecorder();
  if (!result.error.empty()) return fail("the recorder can't be stopped", result.error);
  std::puts(result.wasSo ? "not recording" : "stopped");
  return kDone;
}

int status(bool json) {
  const kelvane::RecorderStatus status = kelvane::readRecorderStatus(kelvane::Deadline(kStatusWait));
  std::fputs((json ? statusJson(status) : statusText(status)).c_str(), stdout);
  if (!status.known) return kFailed;
  return status.running ? kDone : kNotRunning;
}

/// Seconds of CLOCK_MONOTONIC, or ago if negative, as ticks of 24 MHz: the clock's first if that is earlier,
/// since 0 stands for no time.
uint64_t ticksOf(double seconds, uint64_t nowNs) {
  if (std::signbit(seconds)) seconds += static_cast<double>(nowNs) / 1e9;
  return std::max<uint64_t>(seconds > 0 ? static_cast<uint64_t>(seconds * 24e6) : 0, 1);
}

int dump(double from, std::optional<double> to, const std::string& path) {
  const uint64_t nowNs = kelvane::monotonicNs();
  const uint64_t min = ticksOf(from, nowNs);
  const uint64_t max = to ? ticksOf(*to, nowNs) : nowNs * 3 / 125;
  if (min > max) return fail("nothing to dump", "--from is later than --to");
  const kelvane::RecorderStatus status = kelvane::readRecorderStatus(kelvane::Deadline(kStatusWait));
  if (!status.running) {
    return fail("nothing to dump", status.leftOut.empty() ? "not recording" : status.leftOut.back().why);
  }
  const kelvane::UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (!file) return fail(path, kelvane::errorText(errno));
  kelvane_option options[] = {{KELVANE_KEY_MIN_TIMESTAMP, KELVANE_UINT64, {}},
                              {KELVANE_KEY_MAX_TIMESTAMP, KELVANE_UINT64, {}}};
  options[0].value.uint64 = min;
  options[1].value.uint64 = max;
  const kelvane_options all = {std::size(options), options};
  kelvane::ReportFile report(file.get());
  kelvane::JsonWriter json(report);
  // In this process, which is one for this report alone: no process is looked at.
  writeReport(kelvane::makeReport(kelvane::parseRequest(&all), ""), json);
  report.write('\n');
  return report.finish() ? kDone : fail(path, "the report could not be written");
}

int run(int argc, char** argv) {
  CLI::App app{"Looks after the flight recorder, out of which reports of hangs take their past.",
               "kelvanectl"};
  app.require_subcommand(1);
  app.set_version_flag("--version", "kelvanectl " QUORVELD_VERSION);
  app.failure_message(CLI::FailureMessage::simple);
  app.footer("Exit status: 0 done, 1 failed, 2 wrong usage; status: 3 not running.");
  int result = kDone;

  size_t bufferKb = kelvane::kDefaultBufferKb;
  CLI::App* starting = app.add_subcommand("start", "Record from now on");
  starting->add_option("--buffer-kb", bufferKb, "Size of each CPU's buffer, KB")
      ->check(CLI::Range(kelvane::kMinBufferKb, kelvane::kMaxBufferKb))
      ->capture_default_str();
  starting->callback([&] { result = start(bufferKb); });

  app.add_subcommand("stop", "Record no longer, and drop what was recorded")->callback([&] {
    result = stop();
  });

  bool json = false;
  CLI::App* telling = app.add_subcommand("status", "How far back the recorder reaches, and what it costs");
  telling->add_flag("--json", json, "Answer in JSON");
  telling->callback([&] { result = status(json); });

  double from = -kDefaultPastSeconds;
  std::optional<double> to;
  std::string path;
  CLI::App* dumping = app.add_subcommand("dump", "Write what was recorded as a report");
  dumping->add_option("--from", from, "Seconds of CLOCK_MONOTONIC; negative: ago")->capture_default_str();
  dumping->add_option("--to", to, "The same; now if not given");
  dumping->add_option("FILE", path, "The report")->required();
  dumping->callback([&] { result = dump(from, to, path); });

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kDone : kWrongUsage;
  }
  return std::fflush(stdout) == 0 ? result : fail("standard output", kelvane::errorText(errno));
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& error) {
    return fail("gave up", error.what());
  }
}

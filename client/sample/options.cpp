#include "client/sample/options.h"

#include <getopt.h>  // NOLINT(misc-include-cleaner): getopt_long(3) says so, whatever it includes

#include <array>
#include <charconv>
#include <cstdio>
#include <cstring>

#include "client/include/quorvel.h"

namespace quorvel_sample {
namespace {

constexpr double kMaxHangSeconds = 3600;
constexpr int kMaxTimes = 1000;
constexpr int kMaxThreads = 64;

constexpr const char* kHelp =
    R"(Usage: quorvel-sample [OPTION]...
An application with a main loop that quorveld watches. Runs until interrupted, or until its last hang is over.

  --hang SECONDS   block the main loop for so long, one second after the start
  --how WAY        by what: sleep (default), spin, lock (a mutex that another thread holds),
                   pipe (a read from a pipe that nobody writes), disk (reads of a file in
                   $TMPDIR or /var/tmp), starve (work on a CPU that 9 processes named "hog" take)
  --times N        hang N times, a second apart (default 1)
  --report         notice long turns itself and report them, wanting a trace
  --fence          put each hang between the begin and the end of a fence
  --threads N      worker threads, each of which marks its jobs (default 1, at most 64)
  --bundle-id ID   the application's name in reports (default com.corvix.quorvel.sample)
  --help           this text
  --version        its version
)";

enum Code { kHang = 1, kHow, kTimes, kReport, kFence, kThreads, kBundleId, kHelpWanted, kVersionWanted };

constexpr std::array<option, 10> kLongOptions{{{"hang", required_argument, nullptr, kHang},
                                               {"how", required_argument, nullptr, kHow},
                                               {"times", required_argument, nullptr, kTimes},
                                               {"report", no_argument, nullptr, kReport},
                                               {"fence", no_argument, nullptr, kFence},
                                               {"threads", required_argument, nullptr, kThreads},
                                               {"bundle-id", required_argument, nullptr, kBundleId},
                                               {"help", no_argument, nullptr, kHelpWanted},
                                               {"version", no_argument, nullptr, kVersionWanted},
                                               {nullptr, 0, nullptr, 0}}};

template <typename T>
bool parseNumber(const char* text, T least, T most, T& out) {
  const char* end = text + std::strlen(text);
  T value{};
  const auto [stop, error] = std::from_chars(text, end, value);
  if (error != std::errc() || stop != end || !(value >= least && value <= most)) return false;
  out = value;
  return true;
}

/// Takes one option; false when its value is no good.
bool take(int code, const char* value, Options& options) {
  switch (code) {
    case kHang:
      return parseNumber(value, 0.001, kMaxHangSeconds, options.hangSeconds);
    case kHow: {
      const std::optional<BlockingWay> way = blockingWay(value);
      if (way) options.how = *way;
      return way.has_value();
    }
    case kTimes:
      return parseNumber(value, 1, kMaxTimes, options.times);
    case kReport:
      return options.report = true;
    case kFence:
      return options.fence = true;
    case kThreads:
      return parseNumber(value, 1, kMaxThreads, options.threads);
    case kBundleId:
      options.bundleId = value;
      return true;
    default:
      return false;
  }
}

}  // namespace

std::optional<Options> parseOptions(int argc, char** argv, int& status) {
  Options options;
  status = 2;
  int code;
  int index = 0;
  while ((code = getopt_long(argc, argv, "", kLongOptions.data(), &index)) != -1) {
    if (code == kHelpWanted || code == kVersionWanted) {
      std::fputs(code == kHelpWanted ? kHelp : "quorvel-sample " QV_VERSION "\n", stdout);
      status = 0;
      return std::nullopt;
    }
    if (code == '?') return std::nullopt;  // getopt_long has said why
    if (!take(code, optarg, options)) {
      std::fprintf(stderr, "quorvel-sample: \"%s\" won't do for --%s\n", optarg, kLongOptions[index].name);
      return std::nullopt;
    }
  }
  if (optind < argc) {
    std::fprintf(stderr, "quorvel-sample: \"%s\" is no option\n", argv[optind]);
    return std::nullopt;
  }
  return options;
}

}  // namespace quorvel_sample

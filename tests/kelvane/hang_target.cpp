#include "tests/kelvane/hang_target.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "kelvane/base/deadline.h"
#include "kelvane/base/proc_text.h"
#include "tests/patience.h"

namespace kelvane_test {

HangTarget::HangTarget(const std::string& mode, int count)
    : HangTarget(std::vector<std::string>{KELVANE_VICTIM, mode, std::to_string(count)}) {}

HangTarget HangTarget::byScript(const std::string& script) {
  return HangTarget(std::vector<std::string>{"/bin/sh", "-c", script, "sh", KELVANE_VICTIM});
}

HangTarget::HangTarget(const std::vector<std::string>& command) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return;
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  pid_ = fork();
  if (pid_ == 0) {
    dup2(ends[1], STDOUT_FILENO);
    execv(arguments[0], arguments.data());
    _exit(127);
  }
  close(ends[1]);
  char line[32] = "";
  if (read(ends[0], line, sizeof line - 1) > 0) thread_ = atoi(line);
  close(ends[0]);
  EXPECT_GT(thread_, 0) << "the victim did not start";
}

HangTarget::~HangTarget() {
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

std::string HangTarget::threadStates() const {
  std::string states;
  std::error_code gone;
  for (auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(pid_) + "/task", gone)) {
    std::ostringstream
        text;  // empty if the thread has ended meanwhile; an iterator over the file would throw
    text << std::ifstream(entry.path() / "stat").rdbuf();
    if (auto stat = kelvane::parseStat(text.str())) states += stat->state;
  }
  return states;
}

bool HangTarget::reaches(char state) const {
  return quorveld::tests::eventually([&] {
    std::string states = threadStates();
    return !states.empty() && states.find_first_not_of(state) == std::string::npos;
  });
}

void HangTarget::signal(int number) const {
  kill(pid_, number);
}

Library::Library(const char* path) : handle_(dlopen(path, RTLD_LAZY)) {
  EXPECT_NE(handle_, nullptr) << dlerror();
  dump = reinterpret_cast<kelvane_dump_function>(dlsym(handle_, KELVANE_ENTRY_POINT));
  finding = reinterpret_cast<kelvane_finding_function>(dlsym(handle_, KELVANE_FINDING_ENTRY_POINT));
  launch = reinterpret_cast<kelvane_launch_function>(dlsym(handle_, KELVANE_LAUNCH_ENTRY_POINT));
  EXPECT_TRUE(dump && finding && launch);
}

const char* Library::key(const char* symbol) const {
  auto* address = static_cast<const char* const*>(dlsym(handle_, symbol));
  return address ? *address : nullptr;
}

Json headerOf(pid_t pid, int64_t threadId) {
  uint64_t now = kelvane::monotonicNs() * 3 / 125;
  return {{"Reason", "MainThread-victim: timeout 1500ms"},
          {"ServiceName", "MainThread"},
          {"ProcessPath", "/opt/victim"},
          {"PID", pid},
          {"ThreadID", threadId},
          {"StartTime", now - 36'000'000},
          {"EndTime", now},
          {"DisplayData", Json::array({{{"state", 1}}})}};
}

std::string Dump::whyLeftOut(const std::string& what) const {
  std::string why;
  for (const Json& entry : report["metadata"]["leftOut"]) {
    if (entry["what"] == what) why += entry["why"].get<std::string>() + "\n";
  }
  return why;
}

std::vector<std::string> Dump::stackOf(pid_t tid) const {
  std::vector<std::string> names;
  for (const Json& event : report["traceEvents"]) {
    if (event["ph"] != "P" || event["tid"] != tid) continue;
    for (std::string id = event["sf"]; !id.empty();) {
      const Json& frame = report["stackFrames"].at(id);
      names.push_back(frame["name"]);
      id = frame.value("parent", "");
    }
  }
  return names;
}

Json Dump::thread(pid_t tid) const {
  for (const Json& thread : report["threads"]) {
    if (thread["tid"] == tid) return thread;
  }
  return {};
}

Dump dumpWith(const char* reason, bool symbolicate) {
  static const Library library;
  return dumpBy(library, reason, symbolicate);
}

Dump dumpBy(const Library& library, const char* reason, bool symbolicate) {
  std::vector<kelvane_option> options(1);
  options[0].key = library.key("KSPDumpOptions_NoSymbolicate");
  options[0].type = KELVANE_BOOL;
  options[0].value.boolean = !symbolicate;
  if (reason) {
    kelvane_option text{library.key("KSPDumpOptions_ReasonString"), KELVANE_STRING, {}};
    text.value.string = reason;
    options.push_back(text);
  }
  kelvane_options all{options.size(), options.data()};
  Dump dump;
  int fd = memfd_create("report", MFD_CLOEXEC);
  const quorveld::tests::OwnTime time;
  dump.whole = library.dump(fd, &all);
  dump.took = time.elapsed();
  library.finding(&dump.finding);
  dump.text.resize(static_cast<size_t>(lseek(fd, 0, SEEK_END)));
  EXPECT_EQ(pread(fd, dump.text.data(), dump.text.size(), 0), static_cast<ssize_t>(dump.text.size()));
  close(fd);
  dump.report = Json::parse(dump.text, nullptr, false);
  EXPECT_FALSE(dump.report.is_discarded()) << dump.text.substr(0, 2000);
  return dump;
}

Dump dumpOnceOf(pid_t pid, int64_t threadId, bool symbolicate) {
  return dumpWith(headerOf(pid, threadId).dump().c_str(), symbolicate);
}
Dump dumpOf(pid_t pid, int64_t threadId, bool symbolicate) {
  Dump dump = dumpOnceOf(pid, threadId, symbolicate);
  const auto wasCutShort = [&] {
    return dump.text.find("the kernel held up the capture") != std::string::npos;
  };
  for (int more = 0; more < 4 && wasCutShort(); more++) dump = dumpOnceOf(pid, threadId, symbolicate);
  return dump;
}

bool isShortOfCpu() {
  std::ifstream pressure("/proc/pressure/cpu");
  std::string text{std::istreambuf_iterator<char>(pressure), {}};
  double some10 = 0;
  constexpr double kBusyPercent = 30;
  return sscanf(text.c_str(), "some avg10=%lf", &some10) == 1 && some10 >= kBusyPercent;
}

size_t openDescriptors() {
  auto entries = std::filesystem::directory_iterator("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

size_t settledDescriptors(const HangTarget& victim) {
  size_t fewest = SIZE_MAX;
  for (int i = 0; i < 3; i++) {
    dumpOf(victim.pid(), victim.thread());
    fewest = std::min(fewest, openDescriptors());
  }
  return fewest;
}

bool contains(const std::vector<std::string>& names, const std::string& part) {
  return std::any_of(names.begin(), names.end(),
                     [&](const std::string& name) { return name.find(part) != std::string::npos; });
}

void expectOpensInViewers(const Json& report) {
  EXPECT_EQ(report["displayTimeUnit"], "ms");
  const Json& frames = report["stackFrames"];
  for (auto& [id, frame] : frames.items()) {
    EXPECT_TRUE(frame["name"].is_string());
    if (frame.contains("parent")) {
      EXPECT_TRUE(frames.contains(frame["parent"]));
      EXPECT_LT(std::stoi(frame["parent"].get<std::string>()), std::stoi(id));
    }
  }
  std::map<std::pair<int64_t, int64_t>, std::vector<std::pair<double, double>>> open;
  std::map<uint64_t, std::string> arrows;
  for (const Json& event : report["traceEvents"]) {
    std::string phase = event["ph"];
    EXPECT_TRUE(phase.size() == 1 && std::string("MXPisf").find(phase) != std::string::npos) << phase;
    if (phase == "s" || phase == "f") arrows[event["id"]] += phase;
    EXPECT_TRUE(event["pid"].is_number_integer() && event["tid"].is_number_integer());
    EXPECT_TRUE(event["name"].is_string());
    if (phase == "M") {
      EXPECT_TRUE(event["args"]["name"].is_string());
    }
    if (phase == "P") {
      EXPECT_TRUE(frames.contains(event["sf"]));
    }
    if (phase != "X") continue;
    double start = event["ts"], end = start + event["dur"].get<double>();
    auto& intervals = open[{event["pid"], event["tid"]}];
    // Those that are over by now, but for rounding, hold nothing any more.
    while (!intervals.empty() && intervals.back().second <= start + 1e-3 && intervals.back().first < start) {
      intervals.pop_back();
    }
    if (!intervals.empty()) {
      EXPECT_GE(start, intervals.back().first) << event;
      EXPECT_LE(end, intervals.back().second + 1e-3)
          << event << " ends after what holds it, at " << intervals.back().second;
    }
    intervals.emplace_back(start, end);
  }
  for (const auto& [id, ends] : arrows) EXPECT_EQ(ends, "sf") << id;
}

}  // namespace kelvane_test

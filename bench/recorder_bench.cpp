// What bench/recorder runs, one command a process:
//
//   recorder_bench switches ROUNDS [pinned]
//     two processes pass a byte to and fro; prints ns a round
//   recorder_bench report LIBRARY FILE PID SECONDS
//     a report of PID's hang over the last SECONDS; prints ms, and the peak of the resident set above that
//     before, in KB
#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "abi/kelvane.h"
#include "kelvane/base/deadline.h"

namespace {

[[noreturn]] void die(const char* what) {
  std::perror(what);
  std::exit(1);
}

void pass(int from, int to, long rounds, bool begins) {
  char byte = 0;
  if (begins && write(to, &byte, 1) != 1) die("write");
  for (long i = 0; i < rounds; ++i) {
    if (read(from, &byte, 1) != 1) return;  // the other one has ended
    if (write(to, &byte, 1) != 1) return;
  }
}

int switches(long rounds, bool pinned) {
  if (pinned) {
    cpu_set_t first;
    CPU_ZERO(&first);
    CPU_SET(0, &first);
    if (sched_setaffinity(0, sizeof first, &first) < 0) die("sched_setaffinity");
  }
  std::array<int, 2> there;
  std::array<int, 2> back;
  if (pipe(there.data()) < 0 || pipe(back.data()) < 0) die("pipe");
  signal(SIGPIPE, SIG_IGN);
  const uint64_t startNs = kelvane::monotonicNs();
  const pid_t child = fork();
  if (child < 0) die("fork");
  if (child == 0) {
    pass(there[0], back[1], rounds, false);
    _exit(0);
  }
  pass(back[0], there[1], rounds, true);
  close(there[1]);
  waitpid(child, nullptr, 0);
  std::printf("%.1f\n", static_cast<double>(kelvane::monotonicNs() - startNs) / static_cast<double>(rounds));
  return 0;
}

/// VmHWM of proc(5): that of getrusage would begin with what the process was before it executed this.
long peakKb() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmHWM:")) return std::atol(line.c_str() + std::strlen("VmHWM:"));
  }
  return 0;
}

int report(const char* library, const char* path, const char* pid, double seconds) {
  void* handle = dlopen(library, RTLD_NOW | RTLD_LOCAL);
  if (!handle) {
    std::fprintf(stderr, "%s\n", dlerror());
    return 1;
  }
  const auto dump = reinterpret_cast<kelvane_dump_function>(dlsym(handle, KELVANE_ENTRY_POINT));
  const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (!dump || fd < 0) die(path);
  const uint64_t end = kelvane::monotonicNs() * 3 / 125;
  const uint64_t start = end - static_cast<uint64_t>(seconds * 24e6);
  const std::string reason =
      std::string(R"({"Reason":"Hang","ServiceName":"bench","ProcessPath":"bench","PID":)") + pid +
      R"(,"ThreadID":)" + pid + R"(,"StartTime":)" + std::to_string(start) + R"(,"EndTime":)" +
      std::to_string(end) + R"(,"DisplayData":0})";
  std::array<kelvane_option, 3> options{{{KELVANE_KEY_REASON_STRING, KELVANE_STRING, {}},
                                         {KELVANE_KEY_MIN_TIMESTAMP, KELVANE_UINT64, {}},
                                         {KELVANE_KEY_MAX_TIMESTAMP, KELVANE_UINT64, {}}}};
  options[0].value.string = reason.c_str();
  options[1].value.uint64 = start;
  options[2].value.uint64 = end;
  const kelvane_options all{options.size(), options.data()};
  const long beforeKb = peakKb();
  const uint64_t beforeNs = kelvane::monotonicNs();
  const bool whole = dump(fd, &all);
  const uint64_t tookNs = kelvane::monotonicNs() - beforeNs;
  std::printf("%.2f %ld\n", static_cast<double>(tookNs) / 1e6, peakKb() - beforeKb);
  return whole ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string command = argc > 1 ? argv[1] : "";
  if (command == "switches" && (argc == 3 || argc == 4)) return switches(std::atol(argv[2]), argc == 4);
  if (command == "report" && argc == 6) return report(argv[2], argv[3], argv[4], std::atof(argv[5]));
  std::fputs("usage: recorder_bench switches ROUNDS [pinned] | report LIBRARY FILE PID SECONDS\n", stderr);
  return 2;
}

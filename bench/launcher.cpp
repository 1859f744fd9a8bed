// What tracking costs a launcher that lives long and links the client library: launcher COUNT PROGRAM.
//
// The program is started from a process that waits at a gate until its begin is announced, with and without
// announcements in turn. Prints, as medians in µs without and with them: from before the announcement until
// the program's own exec, and until its end.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "client/include/quorvel.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Times {
  std::vector<double> toExec, toEnd;  // µs
};

double microsecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

void check(bool holds, const char* what) {
  if (holds) return;
  std::perror(what);
  std::exit(1);
}

/// How long the record takes is nobody's wait here, only how long the daemon has to look at the process.
void launch(const char* program, bool tracked, Times& times) {
  int gate[2], running[2];
  check(pipe2(gate, O_CLOEXEC) == 0 && pipe2(running, O_CLOEXEC) == 0, "pipe2");
  const pid_t pid = fork();
  check(pid >= 0, "fork");
  char byte = 0;
  if (pid == 0) {
    close(running[0]);
    if (read(gate[0], &byte, 1) == 1) execl(program, program, nullptr);
    _exit(127);
  }
  close(running[1]);
  close(gate[0]);
  usleep(1000);  // it waits by now

  constexpr const char* kBundle = "com.example.launcher";
  const auto start = Clock::now();
  if (tracked) {
    check(qv_activation_begin(pid, kBundle, QV_STATE_FOREGROUND, QV_TYPE_LAUNCH, qv_wall_ms(), 0) == 0,
          "begin");
  }
  check(write(gate[1], "", 1) == 1, "write");
  (void)!read(running[0], &byte, 1);  // closed by its exec
  times.toExec.push_back(microsecondsSince(start));
  siginfo_t info{};
  waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
  if (tracked) check(qv_activation_end(pid, kBundle, QV_STATE_FOREGROUND, 0, 0) == 0, "end");
  times.toEnd.push_back(microsecondsSince(start));
  close(gate[1]);
  close(running[0]);
  usleep(20'000);  // the daemon's look and record, on both sides
  waitpid(pid, nullptr, 0);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const auto start = Clock::now();
  check(qv_connect() == 0, "qv_connect");
  std::printf("connecting once %16.0f µs\n", microsecondsSince(start));
  Times untracked, tracked;
  for (int i = std::atoi(argv[1]); i > 0; --i) {
    launch(argv[2], false, untracked);
    launch(argv[2], true, tracked);
  }
  const auto print = [](const char* what, double without, double with) {
    std::printf("%-20s %6.0f µs, tracked %6.0f µs, which adds %.0f µs\n", what, without, with,
                with - without);
  };
  print("until its exec", median(untracked.toExec), median(tracked.toExec));
  print("until its end", median(untracked.toEnd), median(tracked.toEnd));
  qv_disconnect();
}

// Children, and who stops others.

#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "tests/zoo/zoo.h"

namespace zoo {
namespace {

const Case kChild("child", {"child", "converter", "sleeping"},
                  [] { waitpid(process("converter", {}), nullptr, 0); });

const LoneCase kChildComputing("child-computing", {"child", "converter", "sleeping"},
                               [] { waitpid(process("converter", {}, burn), nullptr, 0); });

const Case kChildStopped("child-stopped", {"stopped", "converter", "child|sleeping"},
                         [] { waitpid(process("converter", {}, [] { raise(SIGSTOP); }), nullptr, 0); });

// Of several children one is late. It waits for all, a crowd's too.
const Case kChildren("children", {"child", "late|crowd-child", "sleeping"}, [] {
  for (const char* name : {"quick-1", "quick-2"}) process(name, {}, [] {});
  process("late", {});
  while (wait(nullptr) > 0) {
  }
});

const Case kChildPolled("child-polled", {"child", "converter", "sleeping"}, [] {
  const pid_t converter = process("converter", {});
  while (waitpid(converter, nullptr, WNOHANG) == 0) nap(50);
});

const Case kChildPeer("child-peer", {"peer", "feeder", "child|sleeping", "converter"}, [] {
  const int pipe = fedBy("feeder");
  waitpid(process("converter", {}, [pipe] { readByte(pipe); }), nullptr, 0);
});

const Case kSystem("system", {"child", "sleep", "sleeping", "sh"}, [] {
  if (std::system("sleep 300; true") != 0) std::puts("sh failed");
});

const Case kPopen("popen", {"child|peer", "sleep", "sleeping", "sh"}, [] {
  FILE* output = popen("sleep 300; true", "r");
  std::fgetc(output);
});

const Case kVfork("vfork", {"child", "starter", "unknown|sleeping"}, [] {
  if (vfork() == 0) {  // NOLINT(bugprone-unsafe-functions): its caller is what shall hang
    named("starter");
    rest();
  }
});

/// `after`: what becomes of who stopped it.
void stopBy(const char* name, void (*after)()) {
  process(name, {}, [after, self = getpid()] { nap(50), kill(self, SIGSTOP), after(); });
  rest();
}

const Case kStopped("stopped", {"stopped", "stopper"}, [] { stopBy("stopper", rest); });

const Case kStoppedBefore("stopped-by-one-gone", {"stopped", "stopper"}, [] { stopBy("stopper", [] {}); });

const Case kTraced("traced", {"stopped", "tracer"}, [] {
  const pid_t self = getpid();
  process("tracer", {}, [self] {
    ptrace(PTRACE_SEIZE, self, nullptr, nullptr);
    ptrace(PTRACE_INTERRUPT, self, nullptr, nullptr);
    rest();
  });
  rest();
});

const Case kSleeping("sleeping", {"sleeping"}, rest);

}  // namespace
}  // namespace zoo

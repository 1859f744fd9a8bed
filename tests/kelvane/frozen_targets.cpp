#include "tests/kelvane/frozen_targets.h"

#include <fcntl.h>
#include <linux/fuse.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <set>

namespace kelvane_test {
namespace {

constexpr const char* kFolder = "/mnt";
constexpr uint32_t kFileBytes = 4096;
constexpr size_t kCodeAt = 64;  // what comes first is zero

/// Code that waits for ever: pause(2), or ppoll(2) for nothing where there is none.
#if defined(__x86_64__)
constexpr unsigned char kCode[] = {0xb8, SYS_pause, 0, 0, 0, 0x0f, 0x05, 0xeb, 0xf7};
#elif defined(__aarch64__)
constexpr uint32_t kCode[] = {0xd2800000, 0xd2800001, 0xd2800002, 0xd2800003, 0xd2800008 | SYS_ppoll << 5,
                              0xd4000001, 0x17fffffa};
#endif

/// A file system of files that are called 0, 1, ... and hold code, and zeros: the first opening and the first
/// read of each is answered, and no later one.
class Server {
 public:
  explicit Server(int fuse) : fuse_(fuse) {}

  /// Until SIGTERM.
  void run() {
    struct sigaction onTerm {};
    onTerm.sa_handler = [](int) { over = 1; };
    sigaction(SIGTERM, &onTerm, nullptr);
    alignas(fuse_in_header) static char request[FUSE_MIN_READ_BUFFER * 4];
    while (over == 0) {
      const ssize_t got = read(fuse_, request, sizeof request);
      if (got >= static_cast<ssize_t>(sizeof(fuse_in_header))) answer(request);
    }
  }

 private:
  void answer(const char* request) {
    fuse_in_header header;
    memcpy(&header, request, sizeof header);
    request += sizeof header;
    switch (header.opcode) {
      case FUSE_INIT: {
        // Without reading ahead whoever touches the memory waits for the answer itself.
        fuse_init_out out{};
        out.major = FUSE_KERNEL_VERSION;
        out.minor = FUSE_KERNEL_MINOR_VERSION;
        out.max_write = kFileBytes;
        return reply(header, &out, sizeof out);
      }
      case FUSE_LOOKUP: {
        fuse_entry_out out{};
        out.nodeid = FUSE_ROOT_ID + 1 + strtoul(request, nullptr, 10);
        out.attr = attributes(out.nodeid);
        return reply(header, &out, sizeof out);
      }
      case FUSE_GETATTR: {
        fuse_attr_out out{};
        out.attr = attributes(header.nodeid);
        return reply(header, &out, sizeof out);
      }
      case FUSE_OPEN: {
        const fuse_open_out out{};
        if (opened_.insert(header.nodeid).second) reply(header, &out, sizeof out);
        return;
      }
      case FUSE_READ: {
        char bytes[kFileBytes] = {};
        memcpy(bytes + kCodeAt, kCode, sizeof kCode);
        if (read_.insert(header.nodeid).second) reply(header, bytes, sizeof bytes);
        return;
      }
      case FUSE_FORGET:
      case FUSE_BATCH_FORGET:
      case FUSE_INTERRUPT:
        return;
      case FUSE_FLUSH:
      case FUSE_RELEASE:
        return reply(header, nullptr, 0);
      default:
        return reply(header, nullptr, 0, -ENOSYS);
    }
  }

  static fuse_attr attributes(uint64_t node) {
    fuse_attr attr{};
    attr.ino = node;
    attr.size = kFileBytes;
    attr.mode = node == FUSE_ROOT_ID ? S_IFDIR | 0755 : S_IFREG | 0666;
    attr.nlink = 1;
    return attr;
  }

  void reply(const fuse_in_header& to, const void* body, size_t length, int error = 0) {
    fuse_out_header header{static_cast<uint32_t>(sizeof header + length), error, to.unique};
    char message[sizeof header + kFileBytes];
    memcpy(message, &header, sizeof header);
    if (length > 0) memcpy(message + sizeof header, body, length);
    if (write(fuse_, message, header.len) < 0) return;  // whoever asked has gone
  }

  static inline volatile sig_atomic_t over = 0;
  const int fuse_;
  std::set<uint64_t> opened_;
  std::set<uint64_t> read_;
};

/// In the server's process; writes why it can't be to `output` first.
[[noreturn]] void serve(const std::string& mode, const std::vector<uid_t>& users, int output) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const int fuse = open("/dev/fuse", O_RDWR | O_CLOEXEC);
  char options[100];
  snprintf(options, sizeof options, "fd=%d,rootmode=40000,user_id=0,group_id=0,allow_other", fuse);
  if (fuse < 0 || unshare(CLONE_NEWNS) != 0 || mount("", "/", "", MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("frozen", kFolder, "fuse", MS_NOSUID | MS_NODEV, options) != 0) {
    dprintf(output, "no file system of files that freeze: %s\n", strerror(errno));
    _exit(1);
  }
  std::vector<pid_t> victims;
  for (size_t i = 0; i < users.size(); i++) {
    victims.push_back(fork());
    if (victims.back() != 0) continue;
    dup2(output, STDOUT_FILENO);
    const std::string path = std::string(kFolder) + "/" + std::to_string(i);
    // The build may lie where that user may not look.
    const int program = open(KELVANE_VICTIM, O_PATH | O_CLOEXEC);
    if (users[i] == 0 || (setgid(users[i]) == 0 && setuid(users[i]) == 0)) {
      const std::array<char*, 4> arguments{const_cast<char*>(KELVANE_VICTIM), const_cast<char*>(mode.c_str()),
                                           const_cast<char*>(path.c_str()), nullptr};
      fexecve(program, arguments.data(), environ);
    }
    dprintf(STDOUT_FILENO, "no victim of user %u: %s\n", users[i], strerrordesc_np(errno));
    _exit(127);
  }
  close(output);
  Server(fuse).run();
  close(fuse);  // the kernel answers all who wait now, with an error
  for (const pid_t victim : victims) {
    kill(victim, SIGKILL);
    waitpid(victim, nullptr, 0);
  }
  _exit(0);
}

pid_t processOf(pid_t thread) {
  std::ifstream status("/proc/" + std::to_string(thread) + "/status");
  for (std::string word; status >> word;) {
    pid_t id = 0;
    if (word == "Tgid:" && status >> id) return id;
  }
  return 0;
}

}  // namespace

FrozenTargets::FrozenTargets(const std::string& mode, const std::vector<uid_t>& users) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return;
  server_ = fork();
  if (server_ == 0) serve(mode, users, ends[1]);
  close(ends[1]);
  FILE* lines = fdopen(ends[0], "r");
  char line[200];
  while (threads_.size() < users.size() && fgets(line, sizeof line, lines)) {
    if (atoi(line) == 0) problem_ = line;
    if (!problem_.empty()) break;
    threads_.push_back(atoi(line));
    pids_.push_back(processOf(threads_.back()));
  }
  fclose(lines);
  if (threads_.size() < users.size() && problem_.empty()) problem_ = "a victim did not start";
}

void FrozenTargets::thaw() {
  if (server_ <= 0) return;
  kill(server_, SIGTERM);
  waitpid(server_, nullptr, 0);
  server_ = -1;
}

}  // namespace kelvane_test

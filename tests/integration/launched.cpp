// A slow launch: `launched CPU-MS LOCK-FILE [last]` computes for so long, waits for the lock on the file, and
// says that it is up. Then it goes on for ever; with `last` it ends instead.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

namespace {

long cpuMs() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return now.tv_sec * 1000 + now.tv_nsec / 1'000'000;
}

void saysItIsUp() {
  const char* path = getenv("NOTIFY_SOCKET");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (!path || strlen(path) >= sizeof address.sun_path) return;
  memcpy(address.sun_path, path, strlen(path));
  if (*path == '@') address.sun_path[0] = '\0';
  const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(path));
  if (sendto(socket, "READY=1", 7, 0, reinterpret_cast<sockaddr*>(&address), length) < 0) perror("sendto");
}

}  // namespace

// Found by their names, which tests read.
[[gnu::noinline]] void parse_index(long forMs) {
  volatile unsigned sum = 0;
  while (cpuMs() < forMs) {
    for (unsigned i = 0; i < 200'000; i++) sum = sum * 31 + i;
  }
}

[[gnu::noinline]] void open_store(const char* path) {
  const int file = open(path, O_RDWR | O_CLOEXEC);
  if (file < 0 || flock(file, LOCK_EX) != 0) exit(1);
  if (lseek(file, 0, SEEK_SET) != 0) abort();  // so that the wait is this function's
}

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  parse_index(strtol(argv[1], nullptr, 10));
  open_store(argv[2]);
  if (argc > 3 && std::string_view(argv[3]) == "last") return 0;
  saysItIsUp();
  for (;;) pause();
}

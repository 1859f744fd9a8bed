// Whatever has another end: pipes, sockets, events, terminals.

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>

#include "tests/zoo/zoo.h"

namespace zoo {
namespace {

struct Address {
  sockaddr_storage bytes{};
  socklen_t length = sizeof(sockaddr_storage);
};

Address boundAddress(int listener, int family) {
  Address address;
  sockaddr_in loopback{};
  loopback.sin_family = static_cast<sa_family_t>(family);
  loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  // A family alone has the kernel find a name for a Unix socket.
  const socklen_t length = family == AF_UNIX ? sizeof(sa_family_t) : sizeof loopback;
  must(bind(listener, reinterpret_cast<const sockaddr*>(&loopback), length), "bind");
  must(listen(listener, 1), "listen");
  must(getsockname(listener, reinterpret_cast<sockaddr*>(&address.bytes), &address.length), "getsockname");
  return address;
}

/// A process that accepts one connection and does `body` with it, when it has read a byte from it.
Address serve(const char* name, const std::function<void(int)>& body, int family = AF_UNIX) {
  const int listener = must(socket(family, SOCK_STREAM, 0), "socket");
  const Address address = boundAddress(listener, family);
  process(name, {}, [&] {
    const int connection = accept(listener, nullptr, nullptr);
    readByte(connection);
    body(connection);
  });
  close(listener);
  return address;
}

int connectTo(const Address& address) {
  const int connection = must(socket(address.bytes.ss_family, SOCK_STREAM, 0), "socket");
  must(connect(connection, reinterpret_cast<const sockaddr*>(&address.bytes), address.length), "connect");
  return connection;
}

/// A connection on which a request was made.
int ask(const Address& address) {
  const int connection = connectTo(address);
  writeByte(connection);
  return connection;
}

void sleepOnIt(int) {
  rest();
}

const Case kPipe("pipe", {"peer", "feeder", "sleeping"}, [] { readByte(fedBy("feeder")); });

const Case kPipeFull("pipe-full", {"peer", "drain", "sleeping"}, [] {
  const Pipe pipe;
  process("drain", [&] { close(pipe.writer); });
  close(pipe.reader);
  while (true) writeByte(pipe.writer);
});

// Who only holds the end comes first by any number; who wrote is another.
const Case kPipeInherited("pipe-inherited", {"peer", "feeder", "sleeping", "launcher"}, [] {
  const Pipe pipe;
  const Action launch = [&] { close(pipe.reader), process("feeder", [&] { writeByte(pipe.writer); }); };
  process("launcher", launch, [] { wait(nullptr); });
  close(pipe.writer);
  while (true) readByte(pipe.reader);
});

const Case kPipeThread("pipe-thread", {"peer|lock", "feeder", "sleeping"}, [] {
  static const Pipe pipe;
  thread("feeder", [] { writeByte(pipe.writer); });
  while (true) readByte(pipe.reader);
});

const Case kEventFd("eventfd", {"peer|lock", "signaller", "sleeping"}, [] {
  static const int event = eventfd(0, 0);
  thread("signaller", {}, [] {
    for (int i = 0; i < 5; ++i) nap(20), eventfd_write(event, 1);
    rest();
  });
  eventfd_t value = 0;
  while (true) eventfd_read(event, &value);
});

const Case kEventFdProcess("eventfd-process", {"peer", "signaller", "sleeping"}, [] {
  const int event = eventfd(0, 0);
  process("signaller", {});
  eventfd_t value = 0;
  eventfd_read(event, &value);
});

const Case kUnix("unix", {"peer", "server", "sleeping"}, [] { readByte(ask(serve("server", sleepOnIt))); });

const LoneCase kUnixComputing("unix-computing", {"peer", "server", "sleeping"},
                              [] { readByte(ask(serve("server", [](int) { burn(); }))); });

const Case kUnixPoll("unix-poll", {"peer", "server", "sleeping"}, [] {
  pollfd one{.fd = ask(serve("server", sleepOnIt)), .events = POLLIN, .revents = 0};
  while (poll(&one, 1, 120) <= 0) {
  }
});

const Case kUnixEpoll("unix-epoll", {"peer", "server", "sleeping"}, [] {
  const int events = epoll_create1(EPOLL_CLOEXEC);
  for (const int fd : {ask(serve("server", sleepOnIt)), eventfd(0, EFD_CLOEXEC)}) {
    epoll_event event{.events = EPOLLIN, .data = {.fd = fd}};
    epoll_ctl(events, EPOLL_CTL_ADD, fd, &event);
  }
  epoll_event event;
  while (epoll_wait(events, &event, 1, 80) <= 0) {
  }
});

const Case kUnixStopped("unix-stopped", {"stopped", "server", "peer|sleeping"},
                        [] { readByte(ask(serve("server", [](int) { raise(SIGSTOP); }))); });

const Case kProxy("proxy", {"peer", "backend", "peer|sleeping", "proxy"}, [] {
  const Address backend = serve("backend", sleepOnIt, AF_INET);
  readByte(ask(serve("proxy", [&](int) { readByte(ask(backend)); })));
});

const Case kFive("five-processes", {"peer", "fifth", "peer|sleeping", "first|second|third|fourth"}, [] {
  Address next = serve("fifth", sleepOnIt);
  for (const char* name : {"fourth", "third", "second", "first"})
    next = serve(name, [next](int) { readByte(ask(next)); });
  readByte(ask(next));
});

// Each has asked the other and waits for the answer.
const Case kEachOther("deadlock-sockets", {"deadlock", "server", "peer|sleeping"},
                      [] { readByte(ask(serve("server", readByte))); });

const Case kTcp("tcp", {"peer|network", "server", "sleeping"},
                [] { readByte(ask(serve("server", sleepOnIt, AF_INET))); });

const Case kTcpFull("tcp-full", {"peer|network", "server", "sleeping"}, [] {
  static const std::array<char, 65536> data{};
  const int connection = ask(serve("server", sleepOnIt, AF_INET));
  while (write(connection, data.data(), data.size()) > 0) {
  }
});

// The kernel has made the connection for a listener that doesn't accept it: no process has its other end.
const Case kTcpBacklog("tcp-backlog", {"peer|network", "server", "sleeping"}, [] {
  const int listener = must(socket(AF_INET, SOCK_STREAM, 0), "socket");
  const Address address = boundAddress(listener, AF_INET);
  process("server", {});
  close(listener);
  readByte(ask(address));
});

const Case kTerminal("terminal", {"peer", "terminal", "sleeping"}, [] {
  const int master = must(posix_openpt(O_RDWR | O_NOCTTY), "a terminal");
  must(grantpt(master), "grantpt");
  must(unlockpt(master), "unlockpt");
  const int slave = must(open(ptsname(master), O_RDWR | O_NOCTTY), "a terminal");
  process("terminal", [&] { close(slave); });
  close(master);
  readByte(slave);
});

}  // namespace
}  // namespace zoo

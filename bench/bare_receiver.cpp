// What a D-Bus service costs that does nothing: takes one client on the socket at argv[1], parses each
// message that it sends and drops it, until the client goes. bench/messages measures the daemon against it.

#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

void require(int result, const char* what) {
  if (result >= 0) return;
  std::fprintf(stderr, "%s: %s\n", what, std::strerror(result == -1 ? errno : -result));
  std::exit(1);
}

int acceptClient(const char* path) {
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path, sizeof(address.sun_path) - 1);
  require(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), "bind");
  require(listen(listener, 1), "listen");
  const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  require(client, "accept");
  close(listener);
  return client;
}

void parse(sd_bus_message* message) {
  if (sd_bus_message_enter_container(message, 'a', "{sv}") < 0) return;
  while (sd_bus_message_enter_container(message, 'e', "sv") > 0) {
    const char* key = nullptr;
    const char* contents = nullptr;
    char type = 0;
    require(sd_bus_message_read(message, "s", &key), "key");
    require(sd_bus_message_peek_type(message, &type, &contents), "type");
    require(sd_bus_message_enter_container(message, 'v', contents), "variant");
    union {
      int64_t number;
      const char* text;
      int boolean;
    } value;
    require(sd_bus_message_read_basic(message, contents[0], &value), "value");
    require(sd_bus_message_exit_container(message), "variant's end");
    require(sd_bus_message_exit_container(message), "entry's end");
  }
}

}  // namespace

int main(int, char** argv) {
  const int client = acceptClient(argv[1]);
  sd_bus* bus = nullptr;
  sd_id128_t id;
  require(sd_id128_randomize(&id), "id");
  require(sd_bus_new(&bus), "bus");
  require(sd_bus_set_fd(bus, client, client), "descriptor");
  require(sd_bus_set_server(bus, 1, id), "server");
  require(sd_bus_set_anonymous(bus, 1), "anonymous");
  require(sd_bus_negotiate_fds(bus, 1), "descriptor passing");
  require(sd_bus_start(bus), "start");
  for (;;) {
    sd_bus_message* message = nullptr;
    const int result = sd_bus_process(bus, &message);
    if (result < 0) break;  // the client has gone
    if (message) parse(message);
    sd_bus_message_unref(message);
    if (result == 0 && sd_bus_wait(bus, UINT64_MAX) < 0) break;
  }
  sd_bus_close_unref(bus);
}

#include "platform/linux/desktop/screen_helper.h"

#include <grp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>
#include <string_view>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QUORVELD_SANITIZED 1
#elif defined(__has_feature)
#define QUORVELD_SANITIZED (__has_feature(address_sanitizer) || __has_feature(thread_sanitizer))
#else
#define QUORVELD_SANITIZED 0
#endif

namespace quorveld::linux_platform {

namespace {

constexpr size_t kMaxRequestBytes = 8192;
constexpr size_t kMaxAnswerBytes = 256;
constexpr uint64_t kReplyTimeoutUs = 2'000'000;

/// Several times what a conversation with a bus takes.
constexpr rlim_t kMaxAddressSpaceBytes = rlim_t{64} << 20;
constexpr gid_t kNoGroup = 65534;

constexpr const char* kService = "org.freedesktop.Notifications";
constexpr const char* kPath = "/org/freedesktop/Notifications";

struct UnrefBus {
  void operator()(sd_bus* bus) const { sd_bus_unref(bus); }
};
struct UnrefMessage {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Bus = std::unique_ptr<sd_bus, UnrefBus>;
using Message = std::unique_ptr<sd_bus_message, UnrefMessage>;

/// The text up to the next line break, which is taken away with it.
std::string_view takeLine(std::string_view& text) {
  const std::string_view line = text.substr(0, text.find('\n'));
  text.remove_prefix(std::min(line.size() + 1, text.size()));
  return line;
}

template <typename Number>
std::optional<Number> parsed(std::string_view text) {
  Number number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

std::optional<ScreenRequest> receiveRequest(int socket) {
  std::array<char, kMaxRequestBytes> bytes;
  const ssize_t length = ::recv(socket, bytes.data(), bytes.size(), 0);
  if (length <= 0) return std::nullopt;
  std::string_view text(bytes.data(), static_cast<size_t>(length));
  ScreenRequest request;
  request.bus.owner = parsed<uid_t>(takeLine(text));
  request.bus.address = takeLine(text);
  request.replacedId = parsed<uint32_t>(takeLine(text)).value_or(0);
  if (!text.empty()) request.text = text.substr(1);
  return request;
}

bool limitResources() {
#if !QUORVELD_SANITIZED  // sanitizers map terabytes
  const rlimit memory{kMaxAddressSpaceBytes, kMaxAddressSpaceBytes};
  if (::setrlimit(RLIMIT_AS, &memory) != 0) return false;
#endif
  const rlimit none{0, 0};
  const rlimit seconds{2, 2};
  return ::setrlimit(RLIMIT_CORE, &none) == 0 && ::setrlimit(RLIMIT_FSIZE, &none) == 0 &&
         ::setrlimit(RLIMIT_CPU, &seconds) == 0;
}

/// A session bus lets nobody but its owner in, root included.
bool becomeOwner(const SessionBus& bus) {
  if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return false;
  if (!bus.owner || ::geteuid() == *bus.owner) return true;
  return ::setgroups(0, nullptr) == 0 && ::setresgid(kNoGroup, kNoGroup, kNoGroup) == 0 &&
         ::setresuid(*bus.owner, *bus.owner, *bus.owner) == 0;
}

int connect(const std::string& address, Bus& bus) {
  sd_bus* raw = nullptr;
  int result = sd_bus_new(&raw);
  if (result < 0) return result;
  bus.reset(raw);
  result = sd_bus_set_address(raw, address.c_str());
  if (result >= 0) result = sd_bus_set_bus_client(raw, true);
  if (result >= 0) result = sd_bus_set_method_call_timeout(raw, kReplyTimeoutUs);
  return result < 0 ? result : sd_bus_start(raw);
}

int makeCall(sd_bus* bus, const ScreenRequest& request, Message& call) {
  sd_bus_message* raw = nullptr;
  const char* method = request.text ? "Notify" : "CloseNotification";
  const int result = sd_bus_message_new_method_call(bus, &raw, kService, kPath, kService, method);
  call.reset(raw);
  if (result < 0) return result;
  if (!request.text) return sd_bus_message_append(raw, "u", request.replacedId);
  // Summary alone: a body would be read as markup. Transient: no history is kept of it.
  return sd_bus_message_append(raw, "susssasa{sv}i", "quorveld", request.replacedId, "",
                               request.text->c_str(), "", 0, 1, "transient", "b", 1, -1);
}

ScreenAnswer perform(const ScreenRequest& request) {
  Bus bus;
  Message call;
  int result = connect(request.bus.address, bus);
  if (result >= 0) result = makeCall(bus.get(), request, call);
  if (result < 0) return {0, std::strerror(-result)};
  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_message* raw = nullptr;
  result = sd_bus_call(bus.get(), call.get(), kReplyTimeoutUs, &error, &raw);
  const Message reply(raw);
  const std::string failure = result >= 0 ? "" : error.message ? error.message : std::strerror(-result);
  sd_bus_error_free(&error);
  // A refusal to close one means that the user has closed it already.
  if (!request.text) return {};
  if (!failure.empty()) return {0, failure};
  ScreenAnswer answer;
  if (sd_bus_message_read(raw, "u", &answer.shownId) < 0) answer.failure = "the answer holds no identifier";
  return answer;
}

}  // namespace

bool sendScreenRequest(int socket, const ScreenRequest& request) {
  std::string bytes = request.bus.owner ? std::to_string(*request.bus.owner) : "";
  bytes += "\n" + request.bus.address + "\n" + std::to_string(request.replacedId) + "\n";
  if (request.text) bytes += "=" + *request.text;
  return bytes.size() <= kMaxRequestBytes &&
         ::send(socket, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0;
}

ScreenAnswer receiveScreenAnswer(int socket) {
  std::array<char, kMaxAnswerBytes> bytes;
  const ssize_t length = ::recv(socket, bytes.data(), bytes.size(), MSG_DONTWAIT);
  if (length <= 0) return {0, "no answer"};
  const std::string_view text(bytes.data(), static_cast<size_t>(length));
  if (const auto id = parsed<uint32_t>(text)) return {*id, ""};
  return {0, std::string(text)};
}

int runScreenHelper() {
  const auto request = receiveRequest(STDIN_FILENO);
  if (!request || !limitResources() || !becomeOwner(request->bus)) return 1;
  const ScreenAnswer answer = perform(*request);
  const std::string text = answer.failure.empty() ? std::to_string(answer.shownId) : answer.failure;
  const std::string_view cut = std::string_view(text).substr(0, kMaxAnswerBytes);
  return ::send(STDIN_FILENO, cut.data(), cut.size(), MSG_NOSIGNAL) < 0 ? 1 : 0;
}

}  // namespace quorveld::linux_platform

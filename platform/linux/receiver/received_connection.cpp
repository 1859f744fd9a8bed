#include "platform/linux/receiver/received_connection.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>
#include <memory>
#include <span>
#include <string>
#include <utility>

#include "platform/ipc.h"
#include "platform/linux/base/passed_descriptors.h"

namespace quorveld::linux_platform {

namespace {

/// Where all connections read to, one after another.
std::array<char, kMaxMessageBytes + kReadBytesPerTurn> buffer;

/// Stands for a descriptor while a message is checked.
class CheckedMemory final : public platform::SharedMemory {
  std::unique_ptr<platform::SharedMapping> map() override { return nullptr; }
};

/// What is to be shared must neither shrink under its reader nor be so large that giving it back takes time.
/// Only memory has seals: asking for them never reaches the file's own code, and what follows is memory's.
MemoryState checkMemory(int fd) {
  constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW;
  constexpr int64_t kBlockBytes = 512;  // of st_blocks
  if (fcntl(fd, F_GET_SEALS) < 0) return MemoryState::notMemory;
  if (fcntl(fd, F_ADD_SEALS, kSeals) != 0 && (fcntl(fd, F_GET_SEALS) & kSeals) != kSeals)
    return MemoryState::unsealable;
  struct stat status {};
  const auto most = static_cast<int64_t>(kMaxSharedMemoryBytes);
  const bool fits =
      fstat(fd, &status) == 0 && status.st_size <= most && status.st_blocks * kBlockBytes <= 2 * most;
  return fits ? MemoryState::attached : MemoryState::tooLarge;
}

}  // namespace

ReceivedConnection::ReceivedConnection(uint32_t number, UniqueFd socket, std::string_view guid,
                                       HandshakeState state)
    : number_(number), socket_(std::move(socket)), handshake_(guid, state) {}

ReceivedConnection::Next ReceivedConnection::takeTurn(HeldUpTimer& timer, ReceivedMessages& messages) {
  std::string_view whole;
  bool more = false;
  bool restIsUnread = false;
  {
    const HeldUpTimer::Step step(timer, number_);
    std::copy(held_.begin(), held_.end(), buffer.begin());
    char* const fresh = buffer.data() + held_.size();
    iovec room{fresh, kReadBytesPerTurn};
    msghdr header{};
    header.msg_iov = &room;
    header.msg_iovlen = 1;
    const ssize_t seen = recvmsg(socket(), &header, MSG_DONTWAIT | MSG_PEEK);
    if (seen < 0 && (errno == EAGAIN || errno == EINTR)) return errno == EINTR ? Next::again : Next::wait;
    if (seen <= 0) {
      end(seen == 0 ? EndReason::closedByClient : EndReason::readFailed);
      return Next::wait;
    }
    const std::string_view bytes(buffer.data(), held_.size() + static_cast<size_t>(seen));
    // Without room for them the kernel only tells of descriptors, and shows nothing that lies behind.
    const bool upToDescriptors = (header.msg_flags & MSG_CTRUNC) != 0;
    const Measured measured = measure(bytes);
    if (ended_) return Next::wait;
    const size_t length = measured.bytes;
    const size_t heldBefore = held_.size();
    const bool takesAll = upToDescriptors || heldBefore > 0 || std::exchange(keepsBeginning_, false);
    const size_t taken = takesAll ? static_cast<size_t>(seen) : length;
    restIsUnread = taken < static_cast<size_t>(seen);
    if (taken > 0) {
      if (!consume(fresh, taken)) return Next::wait;
      const auto rest = bytes.substr(length, heldBefore + taken - length);
      held_.assign(rest.begin(), rest.end());
    }
    whole = bytes.substr(measured.handshakeBytes, length - measured.handshakeBytes);
    more = upToDescriptors || measured.badBehind || static_cast<size_t>(seen) == kReadBytesPerTurn ||
           (hungUp_ && length > 0);
  }
  pass(whole, messages);
  if (held_.empty() && !descriptors_.empty()) end(EndReason::descriptorsUnclaimed);
  if (hungUp_ && !more) end(EndReason::closedByClient);
  if (!unwanted_.empty()) {
    const HeldUpTimer::Step step(timer, number_);
    unwanted_.clear();
  }
  if (ended_) return Next::wait;
  if (more) return Next::again;
  return restIsUnread ? Next::waitBut : Next::wait;
}

ReceivedConnection::Measured ReceivedConnection::measure(std::string_view bytes) {
  Measured measured;
  measured.bytes = measured.handshakeBytes = measureHandshake(bytes);
  if (!greeted()) return measured;
  Frame frame = frameOf(bytes.substr(measured.bytes));
  for (; frame.status == FrameStatus::whole; frame = frameOf(bytes.substr(measured.bytes)))
    measured.bytes += frame.sizeBytes;
  if (frame.status == FrameStatus::incomplete) return measured;
  // What is whole before it still counts; so it comes first the next time.
  if (measured.bytes > 0) {
    measured.badBehind = true;
  } else {
    end(frame.status == FrameStatus::tooLong ? EndReason::messageTooLong : EndReason::messageMalformed);
  }
  return measured;
}

size_t ReceivedConnection::measureHandshake(std::string_view bytes) {
  size_t taken = 0;
  std::string replies;  // at once: each would wake the client
  while (!greeted()) {
    const DBusHandshake::Step step = handshake_.take(bytes.substr(taken));
    if (step.status == DBusHandshake::Status::refused) end(EndReason::badHandshake);
    if (step.status == DBusHandshake::Status::refused || step.consumedBytes == 0) break;
    replies += step.reply;
    taken += step.consumedBytes;
  }
  if (!replies.empty() && !send(replies)) end(EndReason::repliesUnread);
  return taken;
}

bool ReceivedConnection::consume(char* target, size_t count) {
  while (count > 0) {
    iovec room{target, count};
    // Room for no more than a connection may hold: the kernel closes the rest and sets MSG_CTRUNC.
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int) * kMaxDescriptors)> control;
    msghdr header{};
    header.msg_iov = &room;
    header.msg_iovlen = 1;
    header.msg_control = control.data();
    header.msg_controllen = control.size();
    const ssize_t received = recvmsg(socket(), &header, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (received < 0 && errno == EINTR) continue;
    if (received <= 0) {
      end(EndReason::readFailed);
      return false;
    }
    takeDescriptors(header, descriptors_);
    if ((header.msg_flags & MSG_CTRUNC) != 0 || descriptors_.size() > kMaxDescriptors) {
      end(EndReason::descriptorsTooMany);
      return false;
    }
    target += received;
    count -= static_cast<size_t>(received);
  }
  return true;
}

void ReceivedConnection::pass(std::string_view bytes, ReceivedMessages& messages) {
  while (!bytes.empty() && !ended_) {
    const size_t size = frameOf(bytes).sizeBytes;
    passOne(bytes.substr(0, size), messages);
    bytes.remove_prefix(size);
  }
}

void ReceivedConnection::passOne(std::string_view frame, ReceivedMessages& messages) {
  const std::optional<DBusEnvelope> envelope = parseEnvelope(frame);
  if (!envelope) return end(EndReason::headerMalformed);
  if (envelope->descriptors > descriptors_.size()) return end(EndReason::descriptorsMissing);
  if (isDictionary(*envelope)) {
    passDictionary(*envelope, frame, messages);
  } else if (isHello(*envelope)) {
    answerHello(*envelope);
  } else {
    messages.add(number_, frame, MemoryState::none, -1);
  }
  const auto claimed = descriptors_.begin() + envelope->descriptors;
  std::move(descriptors_.begin(), claimed, std::back_inserter(unwanted_));
  descriptors_.erase(descriptors_.begin(), claimed);
}

void ReceivedConnection::passDictionary(const DBusEnvelope& envelope, std::string_view frame,
                                        ReceivedMessages& messages) {
  static CheckedMemory memory;
  static const std::array<platform::SharedMemory*, kMaxDescriptors> memories{&memory, &memory, &memory,
                                                                             &memory};
  static platform::IpcMessage message;
  message.clear();
  if (!decodeDictionary(envelope, std::span(memories).first(envelope.descriptors), message))
    return end(EndReason::bodyMalformed);
  if (envelope.descriptors == 0) return messages.add(number_, frame, MemoryState::none, -1);
  // One descriptor is all that any message needs.
  const int fd = descriptors_.front().get();
  messages.add(number_, frame, checkMemory(fd), fd);
}

void ReceivedConnection::answerHello(const DBusEnvelope& envelope) {
  if (!envelope.wantsReply) return;
  ++lastSerial_;
  if (!send(helloReply(lastSerial_, envelope.serial, number_))) end(EndReason::repliesUnread);
}

bool ReceivedConnection::send(std::string_view bytes) const {
  const ssize_t sent = ::send(socket(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  return sent == static_cast<ssize_t>(bytes.size());
}

void ReceivedConnection::close(HeldUpTimer& timer) {
  const HeldUpTimer::Step step(timer, number_);
  unwanted_.clear();
  descriptors_.clear();
  socket_.reset();
}

}  // namespace quorveld::linux_platform

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/ipc.h"

namespace quorveld::linux_platform {

// The receiving half of D-Bus's message format, and the one reply that a server of peers owes. Pure functions
// of hostile bytes: no input makes them read outside of it, allocate by its measure or recurse beyond
// kMaxNesting.

enum class DBusType : uint8_t { methodCall = 1, methodReturn = 2, error = 3, signal = 4 };

/// A message's envelope. The texts lie in the bytes that it was read from; what the header lacks is empty.
struct DBusEnvelope {
  DBusType type;
  bool wantsReply;
  bool bigEndian;
  uint32_t serial;
  uint32_t descriptors;
  std::string_view path;
  std::string_view interface;
  std::string_view member;
  std::string_view signature;
  std::string_view body;
};

enum class FrameStatus { incomplete, whole, tooLong, malformed };
struct Frame {
  FrameStatus status;
  size_t sizeBytes;  ///< of the message at the start of the bytes; 0 where that isn't known
};

/// Looks for one whole message of at most kMaxMessageBytes at the start of `bytes`.
Frame frameOf(std::string_view bytes);

/// Reads the header of a whole frame; nothing when it is malformed.
std::optional<DBusEnvelope> parseEnvelope(std::string_view frame);

/// A message for the daemon, of which decodeDictionary makes an IpcMessage.
bool isDictionary(const DBusEnvelope& envelope);
/// A bus client's first call, to which helloReply is the answer.
bool isHello(const DBusEnvelope& envelope);

/// Adds the body's entries, of the types that IpcMessage knows, to `message`; `memories` are those of the
/// message's descriptors. Entries of other types are skipped. False when the body is not a well-formed a{sv}:
/// then `message` may hold some of it.
[[nodiscard]] bool decodeDictionary(const DBusEnvelope& envelope,
                                    std::span<platform::SharedMemory* const> memories,
                                    platform::IpcMessage& message);

/// The bytes of the answer to a Hello call: the unique name ":1.<number>".
std::string helloReply(uint32_t serial, uint32_t replySerial, uint32_t number);

/// What arrived, in one line for people: its kind, interface, member and signature, each cut to
/// kMaxQuotedBytes.
std::string describe(const DBusEnvelope& envelope);

}  // namespace quorveld::linux_platform

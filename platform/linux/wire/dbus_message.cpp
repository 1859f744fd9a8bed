#include "platform/linux/wire/dbus_message.h"

#include <cstring>

#include "abi/messages.h"
#include "platform/linux/wire/message_limits.h"

namespace quorveld::linux_platform {

namespace {

constexpr size_t kFixedHeaderBytes = 16;
constexpr uint8_t kNoReplyExpected = 0x1;
constexpr uint8_t kProtocolVersion = 1;

enum HeaderField : uint8_t {
  kPath = 1,
  kInterface = 2,
  kMember = 3,
  kReplySerial = 5,
  kSignature = 8,
  kUnixFds = 9
};

constexpr size_t aligned(size_t offset, size_t alignment) {
  return (offset + alignment - 1) & ~(alignment - 1);
}

/// Walks marshalled values. After a failure it stays failed and reads zeros and empty texts, so that a caller
/// may check once at the end; no read goes beyond the bytes.
///
/// Alignment counts from the start of `bytes`, which must be a multiple of 8 within the message.
class Reader {
 public:
  Reader(std::string_view bytes, bool bigEndian) : bytes_(bytes), bigEndian_(bigEndian) {}

  bool failed() const { return failed_; }
  bool atEnd() const { return offset_ == bytes_.size(); }
  size_t offset() const { return offset_; }

  void align(size_t alignment) {
    const size_t target = aligned(offset_, alignment);
    if (target > bytes_.size()) return fail();
    offset_ = target;
  }

  void skip(size_t count) {
    if (count > bytes_.size() - offset_) return fail();
    offset_ += count;
  }

  uint8_t byte() {
    if (offset_ == bytes_.size()) fail();
    return failed_ ? 0 : static_cast<uint8_t>(bytes_[offset_++]);
  }

  template <typename Integer>
  Integer integer() {
    align(sizeof(Integer));
    const size_t start = offset_;
    skip(sizeof(Integer));
    if (failed_) return 0;
    Integer value = 0;
    std::memcpy(&value, bytes_.data() + start, sizeof value);
    if (!bigEndian_) return value;
    if constexpr (sizeof(Integer) == 8)
      return static_cast<Integer>(__builtin_bswap64(static_cast<uint64_t>(value)));
    return static_cast<Integer>(__builtin_bswap32(static_cast<uint32_t>(value)));
  }

  bool boolean() {
    const auto value = integer<uint32_t>();
    if (value > 1) fail();
    return value == 1;
  }

  /// NUL-terminated in the bytes, and without a NUL inside.
  std::string_view string() { return text(integer<uint32_t>()); }
  std::string_view signature() { return text(byte()); }

  void fail() {
    failed_ = true;
    offset_ = bytes_.size();
  }

 private:
  std::string_view text(size_t length) {
    const size_t start = offset_;
    skip(length);
    if (byte() != 0 || failed_) fail();
    if (failed_) return {};
    const std::string_view result = bytes_.substr(start, length);
    if (result.find('\0') != std::string_view::npos) fail();
    return failed_ ? std::string_view() : result;
  }

  std::string_view bytes_;
  bool bigEndian_;
  bool failed_ = false;
  size_t offset_ = 0;
};

/// Size, which is the alignment too, of a type of fixed length; 0 for any other.
size_t fixedSize(char type) {
  switch (type) {
    case 'y':
      return 1;
    case 'n':
    case 'q':
      return 2;
    case 'b':
    case 'i':
    case 'u':
    case 'h':
      return 4;
    case 'x':
    case 't':
    case 'd':
      return 8;
    default:
      return 0;
  }
}

size_t alignmentOf(char type) {
  if (const size_t size = fixedSize(type)) return size;
  if (type == '(' || type == '{') return 8;
  return type == 'g' || type == 'v' ? 1 : 4;
}

/// Length of the single complete type at the start of `signature`; 0 when there is none.
size_t completeType(std::string_view signature) {
  size_t depth = 0;
  for (size_t i = 0; i < signature.size(); ++i) {
    const char type = signature[i];
    if (type == '(' || type == '{') {
      ++depth;
    } else if (type == ')' || type == '}') {
      if (depth == 0) return 0;
      --depth;
    } else if (type == 'a') {
      continue;  // and its element
    } else if (fixedSize(type) == 0 && std::string_view("sogv").find(type) == std::string_view::npos) {
      return 0;
    }
    if (depth == 0) return i + 1;
  }
  return 0;
}

void skipValue(Reader& reader, std::string_view& signature, int depth);

void skipArray(Reader& reader, std::string_view& signature) {
  const size_t element = completeType(signature);
  if (element == 0) return reader.fail();
  // Its elements are not looked at: nobody will.
  const auto length = reader.integer<uint32_t>();
  reader.align(alignmentOf(signature[0]));
  reader.skip(length);
  signature.remove_prefix(element);
}

void skipStruct(Reader& reader, std::string_view& signature, int depth) {
  reader.align(8);
  while (!reader.failed()) {
    if (signature.empty()) return reader.fail();
    if (signature[0] == ')') {
      signature.remove_prefix(1);
      return;
    }
    skipValue(reader, signature, depth + 1);
  }
}

/// Passes over one value and takes its type off `signature`.
void skipValue(Reader& reader, std::string_view& signature, int depth) {
  if (signature.empty() || depth > kMaxNesting) return reader.fail();
  const char type = signature[0];
  signature.remove_prefix(1);
  if (const size_t size = fixedSize(type)) {
    reader.align(size);
    return reader.skip(size);
  }
  switch (type) {
    case 's':
    case 'o':
      (void)reader.string();
      return;
    case 'g':
      (void)reader.signature();
      return;
    case 'a':
      return skipArray(reader, signature);
    case '(':
      return skipStruct(reader, signature, depth);
    case 'v': {
      std::string_view inner = reader.signature();
      skipValue(reader, inner, depth + 1);
      if (!inner.empty()) reader.fail();
      return;
    }
    default:
      reader.fail();
  }
}

/// One field of the header: its code and a variant.
void readField(Reader& reader, DBusEnvelope& envelope) {
  reader.align(8);
  const uint8_t code = reader.byte();
  std::string_view type = reader.signature();
  if (code == kPath && type == "o") {
    envelope.path = reader.string();
  } else if (code == kInterface && type == "s") {
    envelope.interface = reader.string();
  } else if (code == kMember && type == "s") {
    envelope.member = reader.string();
  } else if (code == kSignature && type == "g") {
    envelope.signature = reader.signature();
  } else if (code == kUnixFds && type == "u") {
    envelope.descriptors = reader.integer<uint32_t>();
  } else {
    skipValue(reader, type, 0);
    if (!type.empty()) reader.fail();
  }
}

void readEntry(Reader& reader, std::span<platform::SharedMemory* const> memories,
               platform::IpcMessage& message) {
  reader.align(8);
  const std::string_view key = reader.string();
  std::string_view type = reader.signature();
  const char single = type.size() == 1 ? type[0] : '\0';
  switch (single) {
    case 'x':
      return message.add(key, reader.integer<int64_t>());
    case 't':
      return message.add(key, reader.integer<uint64_t>());
    case 'b':
      return message.add(key, reader.boolean());
    case 's': {
      const std::string_view text = reader.string();
      if (!reader.failed()) message.add(key, text.data());
      return;
    }
    case 'h': {
      const auto index = reader.integer<uint32_t>();
      if (index >= memories.size()) return reader.fail();
      return message.add(key, memories[index]);
    }
    default:
      skipValue(reader, type, 0);
      if (!type.empty()) reader.fail();
  }
}

/// Marshals in little-endian order, whatever the machine's is.
class Writer {
 public:
  void byte(uint8_t value) { bytes.push_back(static_cast<char>(value)); }
  void uint32(uint32_t value) {
    align(4);
    for (int shift = 0; shift < 32; shift += 8) byte(static_cast<uint8_t>(value >> shift));
  }
  void string(std::string_view text) {
    uint32(static_cast<uint32_t>(text.size()));
    bytes.append(text).push_back('\0');
  }
  void signature(std::string_view text) {
    byte(static_cast<uint8_t>(text.size()));
    bytes.append(text).push_back('\0');
  }
  void align(size_t alignment) { bytes.resize(aligned(bytes.size(), alignment)); }
  std::string bytes;
};

std::string_view quoted(std::string_view name) {
  return name.substr(0, kMaxQuotedBytes);
}

}  // namespace

Frame frameOf(std::string_view bytes) {
  if (bytes.size() < kFixedHeaderBytes) return {FrameStatus::incomplete, 0};
  const bool bigEndian = bytes[0] == 'B';
  if ((!bigEndian && bytes[0] != 'l') || bytes[3] != kProtocolVersion) return {FrameStatus::malformed, 0};
  Reader reader(bytes.substr(4, 12), bigEndian);
  const auto bodyBytes = reader.integer<uint32_t>();
  (void)reader.integer<uint32_t>();  // the serial
  const auto fieldsBytes = reader.integer<uint32_t>();
  if (bodyBytes > kMaxMessageBytes || fieldsBytes > kMaxMessageBytes) return {FrameStatus::tooLong, 0};
  const size_t size = aligned(kFixedHeaderBytes + fieldsBytes, 8) + bodyBytes;
  if (size > kMaxMessageBytes) return {FrameStatus::tooLong, 0};
  return {bytes.size() < size ? FrameStatus::incomplete : FrameStatus::whole, size};
}

std::optional<DBusEnvelope> parseEnvelope(std::string_view frame) {
  const auto type = static_cast<uint8_t>(frame[1]);
  if (type < 1 || type > 4) return std::nullopt;
  DBusEnvelope envelope{};
  envelope.type = static_cast<DBusType>(type);
  envelope.wantsReply = (static_cast<uint8_t>(frame[2]) & kNoReplyExpected) == 0;
  envelope.bigEndian = frame[0] == 'B';
  Reader fixed(frame.substr(8, 8), envelope.bigEndian);
  envelope.serial = fixed.integer<uint32_t>();
  const size_t fieldsEnd = kFixedHeaderBytes + fixed.integer<uint32_t>();
  Reader fields(frame.substr(0, fieldsEnd), envelope.bigEndian);
  fields.skip(kFixedHeaderBytes);
  while (!fields.failed() && !fields.atEnd()) readField(fields, envelope);
  if (fields.failed() || envelope.serial == 0) return std::nullopt;
  envelope.body = frame.substr(aligned(fieldsEnd, 8));
  return envelope;
}

bool isDictionary(const DBusEnvelope& envelope) {
  return (envelope.type == DBusType::methodCall || envelope.type == DBusType::signal) &&
         envelope.interface == QV_MESSAGE_INTERFACE && envelope.member == QV_MESSAGE_MEMBER &&
         envelope.signature == QV_MESSAGE_SIGNATURE;
}

bool isHello(const DBusEnvelope& envelope) {
  return envelope.type == DBusType::methodCall && envelope.interface == "org.freedesktop.DBus" &&
         envelope.member == "Hello";
}

bool decodeDictionary(const DBusEnvelope& envelope, std::span<platform::SharedMemory* const> memories,
                      platform::IpcMessage& message) {
  Reader reader(envelope.body, envelope.bigEndian);
  const auto length = reader.integer<uint32_t>();
  reader.align(8);
  if (reader.failed() || length != envelope.body.size() - reader.offset()) return false;
  while (!reader.failed() && !reader.atEnd()) readEntry(reader, memories, message);
  return !reader.failed();
}

std::string helloReply(uint32_t serial, uint32_t replySerial, uint32_t number) {
  Writer body;
  body.string(":1." + std::to_string(number));
  Writer fields;  // starts at an offset of 16 in the message, so its own alignment is the message's
  fields.byte(kReplySerial);
  fields.signature("u");
  fields.uint32(replySerial);
  fields.align(8);
  fields.byte(kSignature);
  fields.signature("g");
  fields.signature("s");

  Writer message;
  message.byte('l');
  message.byte(static_cast<uint8_t>(DBusType::methodReturn));
  message.byte(kNoReplyExpected);
  message.byte(kProtocolVersion);
  message.uint32(static_cast<uint32_t>(body.bytes.size()));
  message.uint32(serial);
  message.uint32(static_cast<uint32_t>(fields.bytes.size()));
  message.bytes += fields.bytes;
  message.align(8);
  return message.bytes + body.bytes;
}

std::string describe(const DBusEnvelope& envelope) {
  constexpr std::string_view kKinds[] = {"method call", "method return", "error", "signal"};
  std::string text(kKinds[static_cast<size_t>(envelope.type) - 1]);
  text.append(" ").append(quoted(envelope.interface)).append(".").append(quoted(envelope.member));
  return text.append("(").append(quoted(envelope.signature)).append(")");
}

}  // namespace quorveld::linux_platform

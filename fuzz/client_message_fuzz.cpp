// The client library's messages, of whatever fields, as the daemon reads them: what is marshalled comes out
// as it went in, and what is refused was no text that a message may carry.
#include <fuzzer/FuzzedDataProvider.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "base/text.h"
#include "client/include/quorvel.h"
#include "platform/linux/wire/dbus_message.h"
extern "C" {
#include "client/marshal.h"
}

namespace {

using namespace quorveld;

constexpr std::array kKeys = {"pid", "bundle-id", "startTime", "app-activation-state", "n", "o"};

class NoMemory final : public platform::SharedMemory {
 public:
  std::unique_ptr<platform::SharedMapping> map() override { return nullptr; }
};

void require(bool condition) {
  if (!condition) std::abort();
}

struct Fields {
  explicit Fields(FuzzedDataProvider& input) {
    count = input.ConsumeIntegralInRange<size_t>(0, kKeys.size());
    for (size_t i = 0; i < count; ++i) {
      fields[i] = {kKeys[i], input.PickValueInArray({'x', 't', 's', 'b', 'h'}), {}};
      if (fields[i].type == 's') {
        texts[i] = input.ConsumeRandomLengthString(QV_TEXT_MAX + 1);
        texts[i].resize(texts[i].find('\0') == std::string::npos ? texts[i].size() : texts[i].find('\0'));
        if (input.ConsumeBool())
          texts[i].resize(input.ConsumeIntegralInRange<size_t>(0, QV_TEXT_MAX + 1), 'x');
        fields[i].value.text = texts[i].c_str();
        isTooLong = isTooLong || texts[i].size() > QV_TEXT_MAX;
        isNoText = isNoText || !isUtf8(texts[i]);
      } else if (fields[i].type == 'b') {
        fields[i].value.boolean = input.ConsumeBool();
      } else if (fields[i].type == 'h') {
        fields[i].value.descriptor = input.ConsumeIntegralInRange(0, 1000);
      } else {
        fields[i].value.uint64 = input.ConsumeIntegral<uint64_t>();
      }
    }
  }

  std::array<qv_field, kKeys.size()> fields{};
  std::array<std::string, kKeys.size()> texts;
  size_t count = 0;
  bool isTooLong = false;
  bool isNoText = false;
};

void expectSame(const qv_field& field, const platform::IpcMessage& message, platform::SharedMemory& memory) {
  switch (field.type) {
    case 'x':
      return require(message.int64(field.key) == field.value.int64);
    case 't':
      return require(message.uint64(field.key) == field.value.uint64);
    case 's':
      return require(std::string_view(message.string(field.key)) == field.value.text);
    case 'b':
      return require(message.boolean(field.key) == (field.value.boolean != 0));
    default:
      return require(message.sharedMemory(field.key) == &memory);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace quorveld::linux_platform;
  FuzzedDataProvider input(data, size);
  const auto command = static_cast<QVCommand>(input.ConsumeIntegralInRange(1, 8));
  const uint32_t serial = input.ConsumeIntegralInRange<uint32_t>(1, UINT32_MAX);
  const Fields fields(input);
  static qv_message message;
  const int result = qv_marshal(&message, serial, command, fields.fields.data(), fields.count);
  if (result < 0) {
    require((result == -EINVAL && fields.isNoText) || (result == -ENAMETOOLONG && fields.isTooLong) ||
            result == -EMSGSIZE);
    return 0;
  }
  require(!fields.isNoText && !fields.isTooLong);
  const std::string_view bytes(reinterpret_cast<const char*>(message.bytes), message.length);
  require(frameOf(bytes).status == FrameStatus::whole && frameOf(bytes).sizeBytes == message.length);
  const std::optional<DBusEnvelope> envelope = parseEnvelope(bytes);
  require(envelope && isDictionary(*envelope) && !envelope->wantsReply && envelope->serial == serial);
  require(envelope->descriptors == (message.descriptor >= 0 ? 1 : 0));
  NoMemory memory;
  platform::SharedMemory* const memories[] = {&memory};
  platform::IpcMessage read;
  require(decodeDictionary(*envelope, {memories, envelope->descriptors}, read));
  require(read.int64(QV_KEY_COMMAND) == command);
  for (size_t i = 0; i < fields.count; ++i) expectSame(fields.fields[i], read, memory);
  return 0;
}

#include "client/marshal.h"

#include <errno.h>
#include <stdbool.h>
#include <string.h>

#include "client/include/quorvel.h"

#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
static const char kByteOrder = 'l';
#else
static const char kByteOrder = 'B';
#endif
enum { kMethodCall = 1, kNoReplyExpected = 1, kProtocolVersion = 1 };
enum { kBodyLengthAt = 4, kHeaderLengthAt = 12, kHeaderAt = 16 };
enum header_field { kPath = 1, kInterface = 2, kMember = 3, kSignature = 8, kUnixFds = 9 };

/* Appends to a message. What doesn't fit sets `error`, and nothing is appended from then on. */
struct writer {
  struct qv_message* message;
  int error;
};

static void put_bytes(struct writer* out, const void* bytes, size_t length) {
  struct qv_message* message = out->message;
  if (length > sizeof message->bytes - message->length) out->error = -EMSGSIZE;
  if (out->error) return;
  memcpy(message->bytes + message->length, bytes, length);
  message->length += length;
}

/* Values stand at multiples of their size, counted from the message's start. */
static void align(struct writer* out, size_t alignment) {
  static const unsigned char kZeros[8];
  put_bytes(out, kZeros, (alignment - out->message->length % alignment) % alignment);
}

static void put_byte(struct writer* out, unsigned char value) {
  put_bytes(out, &value, 1);
}

static void put_uint32(struct writer* out, uint32_t value) {
  align(out, sizeof value);
  put_bytes(out, &value, sizeof value);
}

static void put_uint64(struct writer* out, uint64_t value) {
  align(out, sizeof value);
  put_bytes(out, &value, sizeof value);
}

static void put_string(struct writer* out, const char* text) {
  const size_t length = strlen(text);
  put_uint32(out, (uint32_t)length);
  put_bytes(out, text, length + 1);
}

static void put_signature(struct writer* out, const char* text) {
  const size_t length = strlen(text);
  put_byte(out, (unsigned char)length);
  put_bytes(out, text, length + 1);
}

/* The length of what stands from `start` on, in its place before that. */
static void put_length(struct writer* out, size_t at, size_t start) {
  const uint32_t length = (uint32_t)(out->message->length - start);
  memcpy(out->message->bytes + at, &length, sizeof length);
}

/* Well-formed as RFC 3629 has it: no overlong form, no surrogate, nothing above U+10FFFF. */
bool qv_is_utf8(const char* text) {
  for (const unsigned char* c = (const unsigned char*)text; *c;) {
    const unsigned char lead = *c++;
    if (lead < 0x80) continue;
    const int rest = lead >= 0xf0 ? 3 : lead >= 0xe0 ? 2 : 1;
    if (lead < 0xc2 || lead > 0xf4) return false;
    const unsigned char least = lead == 0xe0 ? 0xa0 : lead == 0xf0 ? 0x90 : 0x80;
    const unsigned char most = lead == 0xed ? 0x9f : lead == 0xf4 ? 0x8f : 0xbf;
    if (*c < least || *c > most) return false;
    for (int i = 0; i < rest; ++i, ++c) {
      if ((*c & 0xc0) != 0x80) return false;
    }
  }
  return true;
}

static void put_header_text(struct writer* out, enum header_field field, const char* type, const char* text) {
  align(out, 8);
  put_byte(out, field);
  put_signature(out, type);
  if (*type == 'g') {
    put_signature(out, text);
  } else {
    put_string(out, text);
  }
}

static void put_header(struct writer* out, uint32_t serial, bool has_descriptor) {
  put_byte(out, (unsigned char)kByteOrder);
  put_byte(out, kMethodCall);
  put_byte(out, kNoReplyExpected);
  put_byte(out, kProtocolVersion);
  put_uint32(out, 0); /* the body's length and the header's are known later */
  put_uint32(out, serial);
  put_uint32(out, 0);
  put_header_text(out, kPath, "o", QV_MESSAGE_PATH);
  put_header_text(out, kInterface, "s", QV_MESSAGE_INTERFACE);
  put_header_text(out, kMember, "s", QV_MESSAGE_MEMBER);
  put_header_text(out, kSignature, "g", QV_MESSAGE_SIGNATURE);
  if (has_descriptor) {
    align(out, 8);
    put_byte(out, kUnixFds);
    put_signature(out, "u");
    put_uint32(out, 1);
  }
  put_length(out, kHeaderLengthAt, kHeaderAt);
  align(out, 8);
}

static void put_text(struct writer* out, const char* text) {
  if (strnlen(text, QV_TEXT_MAX + 1) > QV_TEXT_MAX) {
    out->error = -ENAMETOOLONG;
  } else if (!qv_is_utf8(text)) {
    out->error = -EINVAL;
  } else {
    put_string(out, text);
  }
}

static void put_field(struct writer* out, const struct qv_field* field) {
  if (field->type == 's' && !field->value.text) return;
  align(out, 8);
  put_string(out, field->key);
  put_signature(out, (char[]){field->type, '\0'});
  switch (field->type) {
    case 'x':
    case 't':
      put_uint64(out, field->value.uint64);
      break;
    case 's':
      put_text(out, field->value.text);
      break;
    case 'b':
      put_uint32(out, field->value.boolean != 0);
      break;
    case 'h':
      put_uint32(out, 0); /* the first descriptor that goes along */
      break;
    default:
      out->error = -EINVAL;
  }
}

int qv_marshal(struct qv_message* message, uint32_t serial, enum QVCommand command,
               const struct qv_field* fields, size_t count) {
  message->length = 0;
  message->descriptor = -1;
  for (size_t i = 0; i < count; ++i) {
    if (fields[i].type == 'h') message->descriptor = fields[i].value.descriptor;
  }
  struct writer out = {message, 0};
  put_header(&out, serial, message->descriptor >= 0);
  const size_t body = message->length;
  put_uint32(&out, 0);
  align(&out, 8);
  const size_t entries = message->length;
  put_field(&out, &(struct qv_field){QV_KEY_COMMAND, 'x', {.int64 = command}});
  for (size_t i = 0; i < count && out.error == 0; ++i) put_field(&out, &fields[i]);
  put_length(&out, body, entries);
  put_length(&out, kBodyLengthAt, body);
  return out.error;
}

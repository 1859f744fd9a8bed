#include "kelvane/base/wire.h"

#include <cstring>

namespace kelvane {

void WireWriter::number(uint64_t value) {
  char bytes[sizeof value];
  std::memcpy(bytes, &value, sizeof value);
  bytes_.append(bytes, sizeof value);
}

void WireWriter::text(std::string_view value) {
  number(value.size());
  bytes_.append(value);
}

uint64_t WireReader::number() {
  uint64_t value = 0;
  failed_ = failed_ || rest_.size() < sizeof value;
  if (failed_) return 0;
  std::memcpy(&value, rest_.data(), sizeof value);
  rest_.remove_prefix(sizeof value);
  return value;
}

std::string WireReader::text() {
  const uint64_t length = number();
  failed_ = failed_ || rest_.size() < length;
  if (failed_) return {};
  std::string value(rest_.substr(0, length));
  rest_.remove_prefix(length);
  return value;
}

}  // namespace kelvane

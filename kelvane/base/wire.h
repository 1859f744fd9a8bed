#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kelvane {

/// Numbers and texts as bytes, for another process of the same program on the same machine.
class WireWriter {
 public:
  void number(uint64_t value);
  void text(std::string_view value);
  const std::string& bytes() const { return bytes_; }

 private:
  std::string bytes_;
};

/// Reads what a WireWriter wrote. The bytes may be broken or cut: then `failed`, and what is read is 0 and
/// empty from there on.
class WireReader {
 public:
  explicit WireReader(std::string_view bytes) : rest_(bytes) {}

  uint64_t number();
  std::string text();
  bool failed() const { return failed_; }
  bool atEnd() const { return rest_.empty(); }

 private:
  std::string_view rest_;
  bool failed_ = false;
};

}  // namespace kelvane

#pragma once

#include <concepts>
#include <cstdint>
#include <string_view>
#include <vector>

#include "kelvane/report/report_file.h"

namespace kelvane {

/// Writes JSON as it comes, commas and escapes included. The caller keeps begin and end in pairs and gives a
/// key before each value of an object.
class JsonWriter {
 public:
  explicit JsonWriter(ReportFile& file) : file_(file) {}

  void beginObject();
  void endObject();
  void beginArray();
  void endArray();
  void key(std::string_view name);

  /// Bytes that are no UTF-8 become U+FFFD, so any text of the kernel's or a peer's may be given.
  void value(std::string_view text);
  void value(const char* text) { value(std::string_view(text)); }
  template <std::integral Number>
  void value(Number number) {
    if constexpr (std::same_as<Number, bool>) {
      raw(number ? "true" : "false");
    } else if constexpr (std::signed_integral<Number>) {
      writeSigned(number);
    } else {
      writeUnsigned(number);
    }
  }
  /// Text that is JSON already.
  void raw(std::string_view json);

  template <typename Value>
  void member(std::string_view name, const Value& content) {
    key(name);
    value(content);
  }

  /// Nanoseconds as the microseconds with three decimals that trace events count in.
  void memberMicroseconds(std::string_view name, uint64_t nanoseconds);
  /// The same as milliseconds, rounded down to three decimals.
  void memberMilliseconds(std::string_view name, uint64_t nanoseconds);
  void memberPercent(std::string_view name, double percent);

 private:
  void separate();
  void writeString(std::string_view text);
  void writeSigned(int64_t number);
  void writeUnsigned(uint64_t number);
  void writeThousandths(uint64_t thousandths);

  ReportFile& file_;
  /// For each open object or array: whether it has a member already.
  std::vector<bool> hasMember_{false};
  bool afterKey_ = false;
};

}  // namespace kelvane

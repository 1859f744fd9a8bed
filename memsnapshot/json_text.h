#pragma once

#include <string>
#include <string_view>

namespace quorveld {

/// printf at the end of `text`. Not for strings from outside the daemon: those go through `appendEscaped`.
[[gnu::format(printf, 2, 3)]] void appendFormatted(std::string& text, const char* format, ...);

/// Appends `bytes` as they stand inside a JSON string; what is no UTF-8 becomes U+FFFD.
void appendEscaped(std::string& text, std::string_view bytes);

/// Writes the separators of a list: nothing before its first entry, `separator` before each of the others.
class Separator {
 public:
  explicit Separator(std::string_view separator) : separator_(separator) {}
  void next(std::string& text) {
    if (!first_) text += separator_;
    first_ = false;
  }

 private:
  std::string_view separator_;
  bool first_ = true;
};

}  // namespace quorveld

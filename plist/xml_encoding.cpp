#include "plist/xml_encoding.h"

#include <errno.h>
#include <iconv.h>
#include <strings.h>

#include <algorithm>
#include <array>
#include <cstdint>

#include "plist/limits.h"

namespace plist {

namespace {

using namespace std::string_view_literals;

struct Encoding {
  std::string name;
  size_t markBytes = 0;  // of the byte order mark
};

/// What the first bytes of a text in `encoding` are: its byte order mark, or '<' without one.
struct Beginning {
  std::string_view bytes;
  const char* encoding;
  size_t markBytes;
};

// Longer ones first: the mark of UTF-16LE begins that of UTF-32LE.
constexpr std::array kBeginnings{
    Beginning{"\xFF\xFE\0\0"sv, "UTF-32LE", 4}, Beginning{"\0\0\xFE\xFF"sv, "UTF-32BE", 4},
    Beginning{"<\0\0\0"sv, "UTF-32LE", 0},      Beginning{"\0\0\0<"sv, "UTF-32BE", 0},
    Beginning{"\xEF\xBB\xBF"sv, "UTF-8", 3},    Beginning{"\xFF\xFE"sv, "UTF-16LE", 2},
    Beginning{"\xFE\xFF"sv, "UTF-16BE", 2},     Beginning{"<\0"sv, "UTF-16LE", 0},
    Beginning{"\0<"sv, "UTF-16BE", 0},
};

constexpr std::string_view kDeclaration = "<?xml";
constexpr std::string_view kBlanks = " \t\r\n";

/// The value of the declaration's `encoding`, a part of `text`; empty without one.
std::string_view declaredEncoding(std::string_view text) {
  constexpr std::string_view kAttribute = "encoding";
  if (!text.starts_with(kDeclaration)) return {};
  std::string_view rest = text.substr(0, text.find("?>"));
  const size_t attribute = rest.find(kAttribute, kDeclaration.size());
  if (attribute == std::string_view::npos) return {};
  rest.remove_prefix(attribute + kAttribute.size());
  const size_t quote = rest.find_first_not_of("= \t\r\n");
  if (quote == std::string_view::npos || (rest[quote] != '"' && rest[quote] != '\'')) return {};
  const size_t end = rest.find(rest[quote], quote + 1);
  return end == std::string_view::npos ? std::string_view() : rest.substr(quote + 1, end - quote - 1);
}

/// A name as XML allows them. In others the C library would find a conversion's options, or a path.
bool isEncodingName(std::string_view name) {
  return !name.empty() && name.size() <= kMaxEncodingNameBytes &&
         std::all_of(name.begin(), name.end(), [](char c) {
           return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
                  c == '_' || c == '.';
         });
}

Encoding encodingOf(std::string_view bytes) {
  for (const Beginning& beginning : kBeginnings) {
    if (bytes.starts_with(beginning.bytes)) return {beginning.encoding, beginning.markBytes};
  }
  return {std::string(declaredEncoding(bytes)), 0};
}

/// One conversion of the C library to UTF-8.
class Conversion {
 public:
  explicit Conversion(const std::string& from) : handle_(::iconv_open("UTF-8", from.c_str())) {}
  Conversion(const Conversion&) = delete;
  Conversion& operator=(const Conversion&) = delete;
  ~Conversion() {
    if (known()) ::iconv_close(handle_);
  }

  bool known() const { return reinterpret_cast<intptr_t>(handle_) != -1; }

  enum class End { whole, tooLong, malformed };

  /// Appends `bytes` in UTF-8 to `text`, as far as they go.
  End run(std::string_view bytes, std::string& text) {
    char* in = const_cast<char*>(bytes.data());  // iconv's signature; it doesn't write there
    size_t inLeft = bytes.size();
    for (bool flushed = false; !flushed;) {
      flushed = inLeft == 0;  // the last call gives what a state of the encoding still holds back
      std::array<char, 4096> buffer;
      char* out = buffer.data();
      size_t outLeft = buffer.size();
      const size_t before = inLeft;
      const size_t result = ::iconv(handle_, flushed ? nullptr : &in, &inLeft, &out, &outLeft);
      const bool stuck = result == static_cast<size_t>(-1) &&
                         (errno != E2BIG || (inLeft == before && outLeft == buffer.size()));
      text.append(buffer.data(), buffer.size() - outLeft);
      if (text.size() > kMaxBytes) return End::tooLong;
      if (stuck) return End::malformed;
    }
    return End::whole;
  }

 private:
  iconv_t handle_;
};

}  // namespace

std::optional<std::string> textInUtf8(std::string_view bytes, std::string& error) {
  const Encoding encoding = encodingOf(bytes);
  if (encoding.name.empty() || ::strcasecmp(encoding.name.c_str(), "UTF-8") == 0) return std::string(bytes);
  if (!isEncodingName(encoding.name)) {
    error = "line 1: the declaration's encoding is no name";
    return std::nullopt;
  }
  Conversion conversion(encoding.name);
  if (!conversion.known()) {
    error = "line 1: unknown encoding " + encoding.name;
    return std::nullopt;
  }
  std::string text;
  const Conversion::End end = conversion.run(bytes.substr(encoding.markBytes), text);
  if (end != Conversion::End::whole) {
    error = "line " + std::to_string(1 + std::count(text.begin(), text.end(), '\n')) + ": " +
            (end == Conversion::End::tooLong ? "longer than " + std::to_string(kMaxBytes) + " bytes in UTF-8"
                                             : "not in " + encoding.name);
    return std::nullopt;
  }
  if (text.find('<') !=
      text.find_first_not_of(kBlanks)) {  // a declaration that could be read names what it isn't in
    error = "line 1: not in " + encoding.name;
    return std::nullopt;
  }
  if (const std::string_view declared = declaredEncoding(text); !declared.empty()) {
    text.replace(static_cast<size_t>(declared.data() - text.data()), declared.size(), "UTF-8");
  }
  return text;
}

}  // namespace plist

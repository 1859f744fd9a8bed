#include "kelvane/recording/trace_format.h"

#include <bit>
#include <charconv>

namespace kelvane {
namespace {

/// The number after `key`; hexadecimal with 0x.
std::optional<uint64_t> numberAfter(std::string_view text, std::string_view key) {
  const size_t at = text.find(key);
  if (at == std::string_view::npos) return std::nullopt;
  text.remove_prefix(at + key.size());
  int base = 10;
  if (text.substr(0, 2) == "0x") {
    text.remove_prefix(2);
    base = 16;
  }
  uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  if (error != std::errc()) return std::nullopt;
  return number;
}

std::string_view takeLine(std::string_view& text) {
  const std::string_view line = text.substr(0, text.find('\n'));
  text.remove_prefix(std::min(line.size() + 1, text.size()));
  return line;
}

/// "char prev_comm[16]" → "prev_comm", "__data_loc char[] cmd" → "cmd".
std::string_view nameOf(std::string_view declaration) {
  const size_t blank = declaration.find_last_of(" *");
  if (blank != std::string_view::npos) declaration.remove_prefix(blank + 1);
  return declaration.substr(0, declaration.find('['));
}

}  // namespace

std::optional<uint16_t> parseFormatId(std::string_view text) {
  const auto id = numberAfter(text, "\nID: ");
  if (!id || *id > UINT16_MAX) return std::nullopt;
  return static_cast<uint16_t>(*id);
}

std::optional<FormatField> parseFormatField(std::string_view text, std::string_view name) {
  constexpr std::string_view kField = "field:";
  constexpr uint64_t kMaxOffset = 65'536;
  while (!text.empty()) {
    std::string_view line = takeLine(text);
    const size_t at = line.find(kField);
    if (at == std::string_view::npos) continue;
    line.remove_prefix(at + kField.size());
    const std::string_view declaration = line.substr(0, line.find(';'));
    if (nameOf(declaration) != name) continue;
    const auto offset = numberAfter(line, "offset:");
    const auto size = numberAfter(line, "size:");
    if (!offset || !size || *offset > kMaxOffset || *size > kMaxOffset) return std::nullopt;
    return FormatField{static_cast<uint32_t>(*offset), static_cast<uint32_t>(*size)};
  }
  return std::nullopt;
}

StateLetters parseStateLetters(std::string_view switchFormat) {
  StateLetters letters{};
  // Each is written as { 0x00000001, "S" }.
  for (size_t at = switchFormat.find('{'); at != std::string_view::npos;
       at = switchFormat.find('{', at + 1)) {
    const std::string_view pair = switchFormat.substr(at, switchFormat.substr(at).find('}'));
    const auto bits = numberAfter(pair, "{ ");
    const size_t quote = pair.find('"');
    if (!bits || quote == std::string_view::npos || quote + 2 >= pair.size() || pair[quote + 2] != '"')
      continue;
    if (*bits > UINT32_MAX || !std::has_single_bit(*bits)) continue;
    letters[static_cast<size_t>(std::countr_zero(*bits))] = pair[quote + 1];
  }
  return letters;
}

char switchState(uint64_t prevState, const StateLetters& letters) {
  char state = 'R';
  for (uint64_t rest = prevState; rest != 0; rest &= rest - 1) {
    const auto bit = static_cast<size_t>(std::countr_zero(rest));
    if (bit >= letters.size() || letters[bit] == 0) return 'R';
    // The lowest bit is the state; older kernels add others to it ("D|K").
    if (state == 'R') state = letters[bit];
  }
  return state;
}

char blockOperation(std::string_view rwbs) {
  // A flush that goes before the operation is an F in front of it.
  const char first = rwbs.empty() ? '?' : rwbs[0];
  const char operation = first == 'F' && rwbs.size() > 1 ? rwbs[1] : first;
  switch (operation) {
    case 'R':
    case 'W':
    case 'F':
    case 'D':
      return operation;
    case 'E':
      return 'D';
    default:
      return first == 'F' ? 'F' : '?';
  }
}

}  // namespace kelvane

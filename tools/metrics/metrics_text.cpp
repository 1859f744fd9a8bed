#include "tools/metrics/metrics_text.h"

#include <charconv>
#include <limits>

namespace quorvelctl {
namespace {

constexpr double kMsPerSecond = 1000;

struct Sample {
  std::string name;
  std::map<std::string, std::string> labels;
  double value = 0;
};

bool skip(std::string_view& text, char c) {
  if (!text.starts_with(c)) return false;
  text.remove_prefix(1);
  return true;
}

std::string takeUntil(std::string_view& text, std::string_view ends) {
  const std::string_view taken = text.substr(0, text.find_first_of(ends));
  text.remove_prefix(taken.size());
  return std::string(taken);
}

/// A label's value after its opening quote, with the closing one.
bool takeQuoted(std::string_view& text, std::string& out) {
  while (!text.empty()) {
    char c = text.front();
    text.remove_prefix(1);
    if (c == '"') return true;
    if (c == '\\') {
      if (text.empty()) return false;
      c = text.front() == 'n' ? '\n' : text.front();
      text.remove_prefix(1);
    }
    out += c;
  }
  return false;
}

bool takeLabels(std::string_view& text, std::map<std::string, std::string>& labels) {
  if (!skip(text, '{')) return true;
  while (!skip(text, '}')) {
    const std::string name = takeUntil(text, "=");
    if (!skip(text, '=') || !skip(text, '"') || !takeQuoted(text, labels[name])) return false;
    skip(text, ',');
  }
  return true;
}

std::optional<double> parseNumber(std::string_view text) {
  if (text == "+Inf") return std::numeric_limits<double>::infinity();
  double number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

std::optional<Sample> parseSample(std::string_view line) {
  Sample sample;
  sample.name = takeUntil(line, "{ ");
  if (!takeLabels(line, sample.labels) || !skip(line, ' ')) return std::nullopt;
  const std::optional<double> value = parseNumber(line);
  if (!value) return std::nullopt;
  sample.value = *value;
  return sample;
}

std::string label(const Sample& sample, const char* name) {
  const auto found = sample.labels.find(name);
  return found == sample.labels.end() ? "" : found->second;
}

/// How many there were; nothing for what is no count.
std::optional<uint64_t> countOf(const Sample& sample) {
  constexpr double kBeyond = 0x1p64;
  if (!(sample.value >= 0 && sample.value < kBeyond))
    return std::nullopt;  // false for what is no number, too
  return static_cast<uint64_t>(sample.value);
}

bool add(const Sample& sample, Metrics& metrics) {
  constexpr std::string_view kDistribution = "quorveld_duration_seconds";
  const std::string key = label(sample, "key");
  if (sample.name == "quorveld_build_info") metrics.version = label(sample, "version");
  if (sample.name == "quorveld_scalar") metrics.scalars[key] = sample.value;
  if (sample.name == "quorveld_events_total") metrics.counters[key] = sample.value;
  if (!sample.name.starts_with(kDistribution)) return true;
  const std::string_view part = std::string_view(sample.name).substr(kDistribution.size());
  Distribution& distribution = metrics.distributions[key];
  if (part == "_sum") distribution.sumMs = sample.value * kMsPerSecond;
  if (part != "_count" && part != "_bucket") return true;
  const std::optional<uint64_t> count = countOf(sample);
  if (!count) return false;
  if (part == "_count") {
    distribution.count = *count;
    return true;
  }
  const std::optional<double> limit = parseNumber(label(sample, "le"));
  if (limit) distribution.upTo.emplace_back(*limit * kMsPerSecond, *count);
  return limit.has_value();
}

}  // namespace

double Distribution::boundOf(double share) const {
  for (const auto& [bound, values] : upTo) {
    if (static_cast<double>(values) >= share * static_cast<double>(count)) return bound;
  }
  return std::numeric_limits<double>::infinity();
}

std::optional<Metrics> parseMetrics(std::string_view text, size_t& brokenLine) {
  Metrics metrics;
  for (brokenLine = 1; !text.empty(); ++brokenLine) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(text.size(), line.size() + 1));
    if (line.empty() || line.front() == '#') continue;
    const std::optional<Sample> sample = parseSample(line);
    if (!sample || !add(*sample, metrics)) return std::nullopt;
  }
  return metrics;
}

}  // namespace quorvelctl

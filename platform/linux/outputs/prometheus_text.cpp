#include "platform/linux/outputs/prometheus_text.h"

#include <algorithm>
#include <charconv>
#include <string_view>
#include <utility>

#include "platform/linux/base/utf8.h"

namespace quorveld::linux_platform {

namespace {

constexpr double kMsPerSecond = 1000;

std::string number(double value) {
  std::array<char, 32> digits;
  return {digits.data(), std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr};
}

std::string labelValue(std::string_view key) {
  std::string text;
  for (const char c : wellFormedUtf8(key)) {
    if (c == '\\' || c == '"') text += '\\';
    if (c == '\n') {
      text += "\\n";
    } else {
      text += c;
    }
  }
  return text;
}

void appendFamily(std::string& text, const char* name, const char* type, const char* help) {
  text.append("# HELP ").append(name).append(" ").append(help).append("\n");
  text.append("# TYPE ").append(name).append(" ").append(type).append("\n");
}

/// "{key=…" with the names that it holds, without the closing brace.
std::string labelsOf(const LabelsOfKeys& labelsOfKeys, const std::string& key) {
  std::string text = "{key=\"" + labelValue(key) + '"';
  const auto found = labelsOfKeys.find(key);
  if (found == labelsOfKeys.end()) return text;
  const KeyLabels& labels = found->second;
  for (const auto& [name, value] : {std::pair("hang", &labels.hang), std::pair("bundle", &labels.bundle),
                                    std::pair("process", &labels.process)}) {
    if (!value->empty()) text.append(",").append(name).append("=\"" + labelValue(*value) + '"');
  }
  return text;
}

void appendHistogram(std::string& text, const std::string& label, const Distribution& distribution) {
  uint64_t upTo = 0;
  for (size_t i = 0; i < distribution.buckets.size(); ++i) {
    upTo += distribution.buckets[i];
    const std::string bound = i < kBucketBoundsMs.size() ? number(kBucketBoundsMs[i] / kMsPerSecond) : "+Inf";
    text.append("quorveld_duration_seconds_bucket").append(label).append(",le=\"").append(bound);
    text.append("\"} ").append(std::to_string(upTo)).append("\n");
  }
  text += "quorveld_duration_seconds_sum" + label + "} " + number(distribution.sum / kMsPerSecond) + "\n";
  text += "quorveld_duration_seconds_count" + label + "} " + std::to_string(distribution.count) + "\n";
}

template <typename Values>
void appendValues(std::string& text, const char* name, const LabelsOfKeys& labels, const Values& values) {
  for (const auto& [key, value] : values) {
    text.append(name).append(labelsOf(labels, key) + "} " + std::to_string(value) + "\n");
  }
}

void appendOwn(std::string& text, const OwnFigures& own) {
  const auto append = [&text](const char* name, const char* type, const char* help, double value) {
    appendFamily(text, name, type, help);
    text.append(name).append(" ").append(number(value)).append("\n");
  };
  append("quorveld_cpu_seconds_total", "counter",
         "CPU time of the daemon, and of the processes that it started and that have ended.", own.cpuSeconds);
  append("quorveld_resident_bytes", "gauge", "Resident memory of the daemon.",
         static_cast<double>(own.residentBytes));
  append("quorveld_spool_reports", "gauge", "Trace reports in the spool.",
         static_cast<double>(own.spoolReports));
  append("quorveld_spool_bytes", "gauge", "Size of the trace reports in the spool.",
         static_cast<double>(own.spoolBytes));
  append("quorveld_launch_log_bytes", "gauge", "Size of the log of launches.",
         static_cast<double>(own.launchLogBytes));
}

}  // namespace

void Distribution::add(double value) {
  const auto bucket = std::lower_bound(kBucketBoundsMs.begin(), kBucketBoundsMs.end(), value);
  ++buckets[static_cast<size_t>(bucket - kBucketBoundsMs.begin())];
  ++count;
  sum += value;
}

Distribution& Distribution::operator+=(const Distribution& other) {
  for (size_t i = 0; i < buckets.size(); ++i) buckets[i] += other.buckets[i];
  count += other.count;
  sum += other.sum;
  return *this;
}

std::string prometheusText(const Metrics& metrics, const OwnFigures& own) {
  std::string text;
  appendFamily(text, "quorveld_build_info", "gauge", "Always 1; the label is the daemon's version.");
  text += "quorveld_build_info{version=\"" QUORVELD_VERSION "\"} 1\n";
  appendOwn(text, own);
  if (!metrics.scalars.empty()) {
    appendFamily(text, "quorveld_scalar", "gauge", "The value last set under the key.");
    appendValues(text, "quorveld_scalar", {}, metrics.scalars);
  }
  if (!metrics.counters.empty()) {
    appendFamily(text, "quorveld_events_total", "counter", "What was added under the key since the start.");
    appendValues(text, "quorveld_events_total", metrics.counterLabels, metrics.counters);
  }
  if (!metrics.distributions.empty()) {
    appendFamily(text, "quorveld_duration_seconds", "histogram", "Durations reported under the key.");
    for (const auto& [key, distribution] : metrics.distributions)
      appendHistogram(text, labelsOf(metrics.distributionLabels, key), distribution);
  }
  return text;
}

}  // namespace quorveld::linux_platform

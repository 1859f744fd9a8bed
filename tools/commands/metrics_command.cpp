#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "tools/base/files.h"
#include "tools/base/table.h"
#include "tools/commands/commands.h"
#include "tools/metrics/metrics_text.h"

namespace quorvelctl {
namespace {

constexpr const char* kMetricsFile = "/var/lib/quorveld/quorveld.prom";
constexpr double kMostValues = 0.9;

std::string number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.10g", value);
  return text;
}

std::string boundText(double bound) {
  return std::isinf(bound) ? "longer" : number(bound) + " ms";
}

std::string metricsText(const Metrics& metrics) {
  std::string text;
  std::vector<std::vector<std::string>> rows{{"KEY", "VALUE"}};
  for (const auto& values : {metrics.scalars, metrics.counters}) {
    for (const auto& [key, value] : values) rows.push_back({printable(key), number(value)});
  }
  if (rows.size() > 1) text += table(rows);
  rows = {{"DURATIONS OF", "COUNT", "MEAN", "90 % WITHIN"}};
  for (const auto& [key, distribution] : metrics.distributions) {
    rows.push_back({printable(key), std::to_string(distribution.count),
                    number(std::round(distribution.meanMs())) + " ms",
                    boundText(distribution.boundOf(kMostValues))});
  }
  if (rows.size() > 1) text += (text.empty() ? "" : "\n") + table(rows);
  if (text.empty()) text = "nothing counted yet; the daemon counts while it runs\n";
  return metrics.version.empty() ? text : "quorveld " + printable(metrics.version) + "\n\n" + text;
}

nlohmann::ordered_json metricsJson(const Metrics& metrics) {
  nlohmann::ordered_json distributions = nlohmann::ordered_json::object();
  for (const auto& [key, distribution] : metrics.distributions) {
    nlohmann::ordered_json buckets = nlohmann::ordered_json::array();
    for (const auto& [bound, values] : distribution.upTo) {
      const nlohmann::ordered_json le =
          std::isinf(bound) ? nlohmann::ordered_json() : nlohmann::ordered_json(bound);
      buckets.push_back({{"atMostMs", le}, {"count", values}});
    }
    distributions[key] = {{"count", distribution.count}, {"sumMs", distribution.sumMs}, {"upTo", buckets}};
  }
  return {{"version", metrics.version},
          {"scalars", metrics.scalars},
          {"counters", metrics.counters},
          {"distributions", distributions}};
}

void showMetrics(Context& context) {
  const std::string path = context.path(kMetricsFile);
  std::error_code error;
  const std::optional<std::string> text = readFile(path, kMaxFileBytes, error);
  if (!text && error != std::errc::no_such_file_or_directory) {
    context.fail("can't read the counters in " + path + ": " + error.message());
    return;
  }
  size_t brokenLine = 0;
  const std::optional<Metrics> metrics = parseMetrics(text.value_or(""), brokenLine);
  if (!metrics) {
    context.fail(path + " is broken at line " + std::to_string(brokenLine));
    return;
  }
  std::fputs((context.json ? jsonText(metricsJson(*metrics)) : metricsText(*metrics)).c_str(), stdout);
}

}  // namespace

void addMetricsCommand(CLI::App& app, Context& context) {
  app.add_subcommand("metrics", "The daemon's counters")->callback([&context] { showMetrics(context); });
}

}  // namespace quorvelctl

#include <gtest/gtest.h>

#include <cmath>

#include "tools/metrics/metrics_text.h"

namespace {

TEST(MetricsText, ReadsTheDaemonsFamilies) {
  const char* text =
      "quorveld_build_info{version=\"9.8.7\"} 1\n"
      "# HELP quorveld_scalar s\n# TYPE quorveld_scalar gauge\n"
      "quorveld_scalar{key=\"limit\"} -3\n"
      "quorveld_events_total{key=\"a \\\"b\\\\c\\n}\"} 7\n"
      "quorveld_duration_seconds_bucket{key=\"hang\",le=\"0.5\"} 3\n"
      "quorveld_duration_seconds_bucket{key=\"hang\",le=\"1\"} 9\n"
      "quorveld_duration_seconds_bucket{key=\"hang\",le=\"+Inf\"} 10\n"
      "quorveld_duration_seconds_sum{key=\"hang\"} 6.0005\n"
      "quorveld_duration_seconds_count{key=\"hang\"} 10\n"
      "other_metric 5\n";
  size_t line = 0;
  const auto metrics = quorvelctl::parseMetrics(text, line).value_or(quorvelctl::Metrics{});
  ASSERT_TRUE(metrics.distributions.contains("hang")) << line;
  EXPECT_EQ(metrics.version, "9.8.7");
  EXPECT_EQ(metrics.scalars.at("limit"), -3);
  EXPECT_EQ(metrics.counters.at("a \"b\\c\n}"), 7);
  const auto& hang = metrics.distributions.at("hang");
  EXPECT_DOUBLE_EQ(hang.meanMs(), 600.05);
  EXPECT_EQ(hang.boundOf(0.9), 1000);
  EXPECT_TRUE(std::isinf(hang.boundOf(0.95)));
}

TEST(MetricsText, SaysWhichLineIsBroken) {
  for (const char* broken :
       {"quorveld_scalar{key=\"a} 1", "quorveld_scalar", "quorveld_scalar{key=\"a\"} x",
        "quorveld_scalar{key}", "quorveld_duration_seconds_bucket{key=\"a\"} 1",
        "quorveld_duration_seconds_count{key=\"a\"} -3", "quorveld_duration_seconds_count{key=\"a\"} nan",
        "quorveld_duration_seconds_bucket{key=\"a\",le=\"1\"} 1e30"}) {
    size_t line = 0;
    EXPECT_FALSE(quorvelctl::parseMetrics(std::string("good 1\n") + broken, line)) << broken;
    EXPECT_EQ(line, 2u);
  }
}

}  // namespace

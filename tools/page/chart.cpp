#include "tools/page/chart.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <ctime>

#include "tools/base/units.h"

namespace quorvelctl {
namespace {

/// The SVG's own units: finer than any screen's pixels.
constexpr double kWidth = 1000;
constexpr double kHeight = 1000;
/// A start of the machine with one report alone is drawn so wide.
constexpr double kLeastWidth = 4;
/// What stands below the time axis has room for so many labels on a narrow page.
constexpr double kMostTimeLabels = 5;
/// "restarted" is written no closer to the last one than this part of the width.
constexpr double kRestartLabelPart = 0.2;

/// Steps of a time axis.
constexpr int kMinute = 60;
constexpr int kHour = 3600;
constexpr int kDay = 24 * kHour;
constexpr std::array<int, 17> kTimeStepSeconds = {
    5,         15,        30,         kMinute, 5 * kMinute, 15 * kMinute, 30 * kMinute, kHour,    2 * kHour,
    3 * kHour, 6 * kHour, 12 * kHour, kDay,    2 * kDay,    7 * kDay,     14 * kDay,    30 * kDay};

std::string coordinate(double value) {
  return fixed(value, 1);
}

std::string percent(double part) {
  return fixed(100 * part, 2) + "%";
}

/// Where the chart's things are.
class Plane {
 public:
  Plane(const ChartTimes& times, double topBytes) : times_(times), topBytes_(std::max(topBytes, 1.0)) {}

  /// From 0 to 1.
  double across(double hours) const {
    const double span = times_.hours.back() - times_.hours.front();
    // What a report says of its time need not be in order.
    return span > 0 ? std::clamp((hours - times_.hours.front()) / span, 0.0, 1.0) : 0.5;
  }
  double x(size_t index) const { return kWidth * across(times_.hours[index]); }
  double y(double bytes) const { return kHeight * (1 - bytes / topBytes_); }
  double topBytes() const { return topBytes_; }

  /// The parts of the series that no start of the machine divides: first index and the one behind the last.
  std::vector<std::pair<size_t, size_t>> parts() const {
    std::vector<std::pair<size_t, size_t>> parts;
    for (size_t i = 0; i < times_.hours.size(); ++i) {
      if (i == 0 || times_.starts[i] != times_.starts[i - 1]) parts.emplace_back(i, i);
      parts.back().second = i + 1;
    }
    return parts;
  }

 private:
  const ChartTimes& times_;
  double topBytes_;
};

/// What a path goes through: "x,y" for each index, or both ends of a short dash for a part of one.
std::string points(const Plane& plane, const std::vector<double>& bytes, size_t begin, size_t end) {
  const auto point = [&](double x, double value) {
    return " " + coordinate(x) + "," + coordinate(plane.y(value));
  };
  if (end - begin == 1) {
    const double x = plane.x(begin);
    return point(x - kLeastWidth / 2, bytes[begin]) + point(x + kLeastWidth / 2, bytes[begin]);
  }
  std::string all;
  for (size_t i = begin; i < end; ++i) all += point(plane.x(i), bytes[i]);
  return all;
}

std::string reversedPoints(const std::string& forward) {
  std::string all;
  for (size_t end = forward.size(); end > 0;) {
    const size_t begin = forward.rfind(' ', end - 1);
    all += forward.substr(begin, end - begin);
    end = begin;
  }
  return all;
}

Html path(const std::string& className, size_t colour, const std::string& data, const std::string& name) {
  return Html{"<path class=\"" + className + " k" + std::to_string(colour) + "\" d=\"" + data + "\">"} +
         element("title", "", name) + Html{"</path>"};
}

/// Powers of two, of which three or four lie below the top.
Html sizeLabels(const Plane& plane, std::string& grid) {
  Html labels;
  const double step = std::exp2(std::ceil(std::log2(plane.topBytes() / 4)));
  for (double bytes = 0; bytes <= plane.topBytes(); bytes += step) {
    grid += "<line class=\"grid\" x1=\"0\" x2=\"1000\" y1=\"" + coordinate(plane.y(bytes)) + "\" y2=\"" +
            coordinate(plane.y(bytes)) + "\"/>";
    labels += Html{"<span class=\"size\" style=\"top:" + percent(plane.y(bytes) / kHeight) + "\">"} +
              escaped(sizeText(static_cast<uint64_t>(bytes))) + Html{"</span>"};
  }
  return labels;
}

std::string timeLabel(const tm& local, int64_t stepSeconds) {
  const bool isDay = stepSeconds >= kDay || (local.tm_hour == 0 && local.tm_min == 0 && local.tm_sec == 0);
  std::array<char, 32> text{};
  if (isDay) {
    std::strftime(text.data(), text.size(), "%e %b", &local);
  } else if (stepSeconds >= kMinute) {
    std::strftime(text.data(), text.size(), "%H:%M", &local);
  } else {
    std::strftime(text.data(), text.size(), "%H:%M:%S", &local);
  }
  return text[0] == ' ' ? text.data() + 1 : text.data();
}

Html timeLabels(const Plane& plane, const ChartTimes& times) {
  const double first = times.hours.front() * kHour;
  const double last = times.hours.back() * kHour;
  const auto found = std::find_if(kTimeStepSeconds.begin(), kTimeStepSeconds.end(), [&](int seconds) {
    return (last - first) / seconds <= kMostTimeLabels - 1;
  });
  const int64_t step = found == kTimeStepSeconds.end()
                           ? static_cast<int64_t>(std::ceil((last - first) / kMostTimeLabels / kDay)) * kDay
                           : *found;
  const auto start = static_cast<time_t>(first);
  tm midnight{};
  localtime_r(&start, &midnight);
  const int secondOfDay = midnight.tm_hour * kHour + midnight.tm_min * kMinute + midnight.tm_sec;
  midnight.tm_hour = midnight.tm_min = midnight.tm_sec = 0;
  Html labels;
  for (int64_t second = secondOfDay / step * step;; second += step) {
    tm local = midnight;  // the clock's own steps, summer time or not
    local.tm_mday += static_cast<int>(second / kDay);
    local.tm_sec = static_cast<int>(second % kDay);
    local.tm_isdst = -1;
    const auto at = static_cast<double>(mktime(&local));
    if (at > last) return labels;
    if (at < first) continue;
    labels += Html{"<span class=\"time\" style=\"left:" + percent(plane.across(at / kHour)) + "\">"} +
              escaped(timeLabel(local, step)) + Html{"</span>"};
  }
}

/// A line at the first report of each further start of the machine.
Html restarts(const Plane& plane, const ChartTimes& times, std::string& lines) {
  Html labels;
  double lastLabel = -1;
  for (const auto& [begin, end] : plane.parts()) {
    if (begin == 0) continue;
    const double across = plane.across(times.hours[begin]);
    lines += "<line class=\"restart\" x1=\"" + coordinate(kWidth * across) + "\" x2=\"" +
             coordinate(kWidth * across) + "\" y1=\"0\" y2=\"1000\"/>";
    if (across - lastLabel < kRestartLabelPart) continue;
    lastLabel = across;
    labels += Html{"<span class=\"restarted" + std::string(across > 0.8 ? " left" : "") +
                   "\" style=\"left:" + percent(across) + "\">restarted</span>"};
  }
  return labels;
}

Html legend(const std::vector<ChartLine>& lines, bool fromTop) {
  Html items;
  for (size_t i = 0; i < lines.size(); ++i) {
    const ChartLine& line = lines[fromTop ? lines.size() - 1 - i : i];
    items += element("li", "",
                     Html{"<i class=\"k" + std::to_string(line.colour) + "\"></i>"} + escaped(line.name) +
                         escaped(" ") + element("b", "", sizeText(static_cast<uint64_t>(line.bytes.back()))));
  }
  return element("ul", "legend", items);
}

Html chart(const Plane& plane, const ChartTimes& times, const Html& paths, const Html& legendList) {
  std::string grid;
  std::string marks;
  const Html labels = sizeLabels(plane, grid) + timeLabels(plane, times) + restarts(plane, times, marks);
  return Html{
             "<figure class=\"chart\"><div class=\"plot\"><svg viewBox=\"0 0 1000 1000\" "
             "preserveAspectRatio=\"none\" aria-hidden=\"true\">" +
             paths.markup + grid + marks + "</svg>" + labels.markup + "</div>"} +
         legendList + Html{"</figure>"};
}

}  // namespace

Html areaChart(const ChartTimes& times, const std::vector<ChartLine>& lines, double topBytes) {
  const Plane plane(times, topBytes);
  Html paths;
  std::vector<double> below(times.hours.size(), 0);
  for (const ChartLine& line : lines) {
    std::vector<double> above = below;
    for (size_t i = 0; i < above.size(); ++i) above[i] += line.bytes[i];
    std::string data;
    for (const auto& [begin, end] : plane.parts()) {
      data += "M" + points(plane, above, begin, end) + reversedPoints(points(plane, below, begin, end)) + "Z";
    }
    paths += path("area", line.colour, data, line.name);
    below = std::move(above);
  }
  return chart(plane, times, paths, legend(lines, true));
}

Html lineChart(const ChartTimes& times, const std::vector<ChartLine>& lines) {
  double topBytes = 0;
  for (const ChartLine& line : lines) {
    topBytes = std::max(topBytes, *std::max_element(line.bytes.begin(), line.bytes.end()));
  }
  const Plane plane(times, topBytes * 1.04);
  Html paths;
  for (const ChartLine& line : lines) {
    std::string data;
    for (const auto& [begin, end] : plane.parts()) data += "M" + points(plane, line.bytes, begin, end);
    paths += path("line", line.colour, data, line.name);
  }
  return chart(plane, times, paths, legend(lines, false));
}

}  // namespace quorvelctl

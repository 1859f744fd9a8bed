#include "tools/page/launches_html.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <ctime>
#include <optional>

#include "tools/base/units.h"
#include "tools/page/html.h"
#include "tools/page/report_page.h"

namespace quorvelctl {
namespace {

constexpr double kDayS = 24 * 3600;
constexpr double kWeekS = 7 * kDayS;
constexpr time_t kReferenceDate = 978'307'200;  // 2001-01-01 00:00:00 UTC in Unix time
/// Applications with a picture; the table has all of them.
constexpr size_t kMaxPictures = 50;
/// Launches of an application that are drawn, the latest ones.
constexpr size_t kMaxDots = 2000;
/// A picture ends at so many times what nine launches in ten took: one that took minutes would make a line
/// of the others.
constexpr uint64_t kTopFactor = 2;
/// A change of a median that is worth a sentence.
constexpr double kChangePercent = 10;

enum class Label { dayAndTime, day, time };

std::string dateText(double at, Label label) {
  const auto seconds = static_cast<time_t>(std::floor(at)) + kReferenceDate;
  tm local{};
  std::array<char, 64> text{};
  if (!localtime_r(&seconds, &local)) return {};
  switch (label) {
    case Label::dayAndTime:
      std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M", &local);
      break;
    case Label::day:
      std::strftime(text.data(), text.size(), "%e %b", &local);
      break;
    case Label::time:
      std::strftime(text.data(), text.size(), "%H:%M", &local);
      break;
  }
  return text.data();
}

std::string msText(uint64_t ms) {
  return durationText(static_cast<double>(ms));
}

std::string number(double value) {
  return fixed(value, 1);
}

/// The time that all pictures show, so that they can be compared.
struct Span {
  double begin = 0;
  double end = 0;

  /// From 0 to 1000.
  double x(double at) const {
    return end > begin ? 1000 * std::clamp((at - begin) / (end - begin), 0.0, 1.0) : 500;
  }
};

Span spanOf(const std::vector<AppLaunches>& apps, double now) {
  Span span{now, now};
  for (const AppLaunches& app : apps) {
    for (const LaunchMoment& launch : app.launches) span.begin = std::min(span.begin, launch.startedAt);
  }
  return span;
}

/// A line across `from` to `to`.
Html medianLine(const char* colour, const std::optional<LaunchTimes>& times, double from, double to,
                uint64_t topMs, const char* week) {
  if (!times || from >= to) return {};
  const std::string y =
      number(1000 * (1 - static_cast<double>(times->medianMs) / static_cast<double>(topMs)));
  return Html{std::string("<path class=\"median ") + colour + "\" d=\"M " + number(from) + "," + y + " H " +
              number(to) + "\">"} +
         element("title", "", "median of " + std::string(week) + ": " + msText(times->medianMs)) +
         Html{"</path>"};
}

/// Each launch as a dot, those of the last seven days in a colour, and the medians of both weeks.
Html pictureHtml(const AppLaunches& app, const Span& span) {
  const uint64_t topMs = std::max<uint64_t>(std::min(app.all.slowestMs, kTopFactor * app.all.p90Ms), 1);
  std::string recent, older;
  const size_t first = app.launches.size() - std::min(app.launches.size(), kMaxDots);
  for (size_t i = first; i < app.launches.size(); ++i) {
    const LaunchMoment& launch = app.launches[i];
    const double part = static_cast<double>(std::min(launch.durationMs, topMs)) / static_cast<double>(topMs);
    // A path of no length is a round dot, however the picture is stretched.
    (span.end - launch.startedAt < kWeekS ? recent : older) +=
        "M " + number(span.x(launch.startedAt)) + "," + number(1000 * (1 - part)) + " h 0 ";
  }
  const auto dots = [](const char* colour, const std::string& data) {
    return data.empty() ? Html{}
                        : Html{std::string("<path class=\"dots ") + colour + "\" d=\"" + data + "\"/>"};
  };
  const double weekAgo = span.x(span.end - kWeekS), twoWeeksAgo = span.x(span.end - 2 * kWeekS);
  Html svg{"<svg viewBox=\"0 0 1000 1000\" preserveAspectRatio=\"none\" aria-hidden=\"true\">"};
  svg += Html{
      "<line class=\"grid\" x1=\"0\" x2=\"1000\" y1=\"0\" y2=\"0\"/><line class=\"grid\" x1=\"0\" x2=\"1000\" y1=\"1000\" y2=\"1000\"/>"};
  if (weekAgo > 0) {
    svg += Html{"<line class=\"restart\" x1=\"" + number(weekAgo) + "\" x2=\"" + number(weekAgo) +
                "\" y1=\"0\" y2=\"1000\"/>"};
  }
  svg += dots("k8", older) + dots("k0", recent) +
         medianLine("k1", app.lastWeek, twoWeeksAgo, weekAgo, topMs, "last week") +
         medianLine("k1", app.thisWeek, weekAgo, 1000, topMs, "this week") + Html{"</svg>"};
  const bool isCut = topMs < app.all.slowestMs;
  const Html sizes = Html{"<span class=\"size\" style=\"top:0\">"} +
                     escaped(msText(topMs) + (isCut ? "+" : "")) +
                     Html{"</span><span class=\"size\" style=\"top:100%\">0</span>"};
  const bool isShort = span.end - span.begin < kDayS;
  const auto label = [&](double x, double at) {
    return Html{std::string("<span class=\"time") + (x == 1000 ? " last" : "") +
                "\" style=\"left:" + number(x / 10) + "%\">"} +
           escaped(dateText(at, isShort ? Label::time : Label::day)) + Html{"</span>"};
  };
  Html times = label(1000, span.end);
  if (span.end > span.begin) times += label(0, span.begin);
  constexpr double kLabelRoom = 150;
  if (weekAgo > kLabelRoom && weekAgo < 1000 - kLabelRoom) times += label(weekAgo, span.end - kWeekS);
  return element("div", "plot", svg + sizes + times);
}

Html appHtml(const AppLaunches& app, const Span& span) {
  const auto figure = [](const std::string& value, const char* what) {
    return element("b", "", value) + escaped(what);
  };
  Html line = figure(msText(app.all.medianMs), " median · ") + figure(msText(app.all.p90Ms), " 90 % in · ") +
              figure(msText(app.all.slowestMs), " slowest · ") +
              figure(std::to_string(app.all.count), app.all.count == 1 ? " launch" : " launches");
  if (app.changePercent()) line += escaped(" · ") + figure(changeText(app), " within the week");
  return element("div", "app",
                 element("h3", "", app.bundleID) + element("p", "", line) + pictureHtml(app, span));
}

/// A sentence for each application whose launches changed, those that got slower most first.
Html changesHtml(const std::vector<AppLaunches>& apps) {
  std::vector<const AppLaunches*> changed;
  Html fresh;
  for (const AppLaunches& app : apps) {
    if (std::abs(app.changePercent().value_or(0)) >= kChangePercent) changed.push_back(&app);
    if (app.thisWeek && app.thisWeek->count == app.all.count) {
      fresh +=
          element("li", "", element("b", "", app.bundleID) + escaped(": new, " + msText(app.all.medianMs)));
    }
  }
  std::stable_sort(changed.begin(), changed.end(), [](const AppLaunches* left, const AppLaunches* right) {
    return *left->changePercent() > *right->changePercent();
  });
  Html items;
  for (const AppLaunches* app : changed) {
    items += element("li", *app->changePercent() > 0 ? "slower" : "",
                     element("b", "", app->bundleID) +
                         escaped(": " + changeText(*app) + ", " + msText(app->lastWeek->medianMs) + " → " +
                                 msText(app->thisWeek->medianMs)));
  }
  items += fresh;
  const Html body = items.markup.empty() ? element("p", "note", "No application's median changed by a tenth.")
                                         : element("ul", "", items);
  return element("section", "card", element("h2", "", "What changed since last week") + body);
}

Html tableHtml(const std::vector<AppLaunches>& apps) {
  const auto cell = [](const std::string& text) { return element("td", "number", text); };
  const auto week = [&](const std::optional<LaunchTimes>& times) {
    return cell(times ? msText(times->medianMs) : "-");
  };
  Html rows;
  for (const AppLaunches& app : apps) {
    rows += element("tr", "",
                    element("td", "", app.bundleID) + cell(msText(app.all.medianMs)) +
                        cell(msText(app.all.p90Ms)) + cell(msText(app.all.slowestMs)) +
                        cell(std::to_string(app.all.count)) + week(app.thisWeek) + week(app.lastWeek) +
                        cell(changeText(app)));
  }
  Html columns;
  for (const char* name :
       {"Application", "Median", "90 % in", "Slowest", "Launches", "This week", "Last week", "Change"}) {
    columns += Html{"<th scope=col>"} + escaped(name);
  }
  return element("section", "card",
                 element("h2", "", "All figures") + scrolledTable("All figures", columns, rows));
}

}  // namespace

std::string launchesPage(const std::vector<AppLaunches>& apps, double now) {
  const Span span = spanOf(apps, now);
  size_t launches = 0, misdated = 0;
  for (const AppLaunches& app : apps) {
    launches += app.all.count;
    misdated += app.misdated;
  }
  std::string about = std::to_string(launches) + (launches == 1 ? " launch of " : " launches of ") +
                      std::to_string(apps.size()) + (apps.size() == 1 ? " application" : " applications") +
                      " from " + dateText(span.begin, Label::dayAndTime) + " to " +
                      dateText(span.end, Label::dayAndTime);
  if (misdated > 0) about += "; " + std::to_string(misdated) + " of them not drawn, the clock was wrong then";
  Html pictures =
      element("h2", "", "Every launch, the slowest applications first") +
      Html{
          "<ul class=\"legend\"><li><i class=\"k0\"></i>within seven days</li><li><i class=\"k8\"></i>before</li>"
          "<li><i class=\"k1\"></i>median of each week</li></ul>"};
  for (size_t i = 0; i < apps.size() && i < kMaxPictures; ++i) pictures += appHtml(apps[i], span);
  const Html content = element("header", "", element("h1", "", "Launches") + element("p", "", about)) +
                       changesHtml(apps) + element("section", "card", pictures) + tableHtml(apps);
  return wholePage("Launches",
                   std::string(kReportStyle) + std::string(kMemoryStyle) + std::string(kLaunchesStyle),
                   content);
}

}  // namespace quorvelctl

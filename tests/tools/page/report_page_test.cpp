#include "tools/page/report_page.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <map>
#include <regex>
#include <set>

#include "tools/page/report_html.h"
#include "tools/page/report_timeline.h"

using quorvelctl::Report;
using quorvelctl::Timeline;

namespace {

size_t countOf(const std::string& text, std::string_view what) {
  size_t count = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++count;
  return count;
}

std::string pageOf(const std::string& text) {
  std::string error;
  const Report report = quorvelctl::parseReport(text, error).value_or(Report{});
  EXPECT_EQ(error, "");
  return quorvelctl::reportPage(report);
}

// Every text of it is hostile; two of three states are drawn on the states' own track.
constexpr const char* kHostile =
    R"({"metadata":{"Reason":"X","ServiceName":"X","ProcessPath":"/bin/X","PID":41,
"ThreadID":41,"StartTime":24000000,"EndTime":48000000,"host":{"system":"X"},"capture":{"time":"X","ts":1500000},
"sampled":{"durationMs":10,"places":[{"sf":"1","waitedMs":10}]},
"leftOut":[{"what":"X","why":"X"}],"verdict":{"cause":"X","sentence":"X","evidence":{"source":"X"},
"spent":{"runningMs":1},"waits":[{"state":"X","waitChannel":"X","wokenBy":{"tid":1,"name":"X","process":"X"}}],
"chain":[{"tid":41,"name":"X","process":"X","text":"X","culprit":"X","waitsFor":{"sureness":"X","evidence":"X"}}],
"busiest":[{"tid":3,"name":"X","process":"X","runningMs":1}]},
"launch":{"pid":51,"name":"X","followed":{"tid":51,"name":"X"},"phases":[{"from":"X","to":"X","pid":51,"process":"X",
"durationMs":1,"mostly":{"tid":51,"name":"X","process":"X","doing":"X"}}],
"path":[{"tid":51,"name":"X","process":"X","doing":"X","durationMs":900}],"processes":[{"pid":51,"name":"X","parent":2}]}},
"traceEvents":[{"ph":"P","tid":41,"sf":"1"},{"ph":"X","cat":"cpu","tid":0,"ts":1e6,"dur":5,"name":"X","args":{"tid":7}},
{"ph":"X","cat":"state","tid":41,"ts":1e6,"dur":1e6,"name":"one look"},
{"ph":"X","cat":"state","tid":4194306,"ts":1e6,"dur":5,"name":"X"},
{"ph":"X","cat":"cpu","tid":0,"ts":1e300,"dur":5,"name":"far"},{"ph":"i","cat":"signpost","ts":1e6,"name":"X"}],
"stackFrames":{"1":{"name":"X","category":"X","module":"X","offset":"X"}},
"threads":[{"tid":41,"hung":true,"name":"X","state":"X","waitChannel":"X","kernelStack":["X"],"stackCutOff":"X"},
{"tid":42,"name":"X","noStack":"X"}]})";

TEST(ReportPage, DrawsSampledStacksAsBoxesAsWideAsTheirTime) {
  std::string text(kHostile);
  const std::string places = R"("places":[{"sf":"1","waitedMs":10}])";
  text.replace(
      text.find(places), places.size(),
      R"("places":[{"sf":"5","onCpuMs":5,"readyMs":1},{"sf":"7","waitedMs":3}],"notSeen":{"waitedMs":1})");
  text.insert(text.find(R"("stackFrames":{)") + 15,
              R"("2":{"name":"_start"},"3":{"name":"main","parent":"2"},"4":{"name":"crunch","parent":"3"},
"5":{"name":"parse","parent":"4"},"6":{"name":"save","parent":"3"},
"7":{"name":"futex_wait","category":"kernel","parent":"6"},)");
  const std::string page = pageOf(text);
  size_t at = 0;  // by hand: a regular expression over a whole page takes more stack than a sanitizer leaves
  for (const char* next :
       {"<div class=\"flame\"", "main</span><ul><li style=\"width:66.67%\">",
        "crunch</span><ul><li style=\"width:100.00%\">",
        "parse</span></li>\n</ul></li>\n<li style=\"width:33.33%\">", "save</span>", "futex_wait</span></li>",
        "<li style=\"width:10.00%\">", "(not seen)</span></li>\n</ul>"}) {
    at = page.find(next, at);
    ASSERT_NE(at, std::string::npos) << next << page.substr(page.find("<div class=\"flame\""), 2'000);
  }
  EXPECT_EQ(page.find(">_start</span>"), std::string::npos) << "what all stacks begin with";
  EXPECT_NE(page.find("tabindex=\"0\" role=\"img\" style=\"--cpu:83.3%;--ready:100.0%\" "
                      "aria-label=\"parse: 60 %, on a CPU for 5 ms, ready for 1 ms\""),
            std::string::npos);
}

TEST(ReportPage, NothingOfAReportBecomesMarkup) {
  const std::string harmless = pageOf(kHostile);
  std::string text(kHostile);
  for (size_t at = text.find("\"X\""); at != std::string::npos; at = text.find("\"X\"", at)) {
    // An event's phase, which may be X too, stays: else there would be nothing to draw.
    if (text.compare(at - 5, 5, "\"ph\":") == 0) {
      ++at;
    } else {
      text.replace(at, 3, R"("</script><!--<img src=\"x\" onerror='f()'>{{script}}&amp;")");
    }
  }
  const std::string page = pageOf(text);
  EXPECT_GT(countOf(page, "&lt;/script&gt;"), 15u);
  for (const char* markup : {"<", ">", "\""}) {
    // In the embedded JSON alone quotes and '>' are plain, or escaped by a backslash.
    const auto outside = [&](const std::string& all) {
      return countOf(all.substr(0, all.find("id=\"data\"")), markup);
    };
    EXPECT_EQ(outside(page), outside(harmless)) << markup;
  }
  EXPECT_EQ(countOf(page, "</script>"), 2u);
  EXPECT_EQ(countOf(page, "<!--"), 0u);
  EXPECT_EQ(countOf(page, "'use strict'"), 1u) << "a part of the page was put into a text of the report";
}

/// Of "#rrggbb", as WCAG reckons it.
double luminance(const std::string& color) {
  double sum = 0;
  for (const auto& [at, weight] : {std::pair{1, .2126}, {3, .7152}, {5, .0722}}) {
    const double part = std::stoi(color.substr(static_cast<size_t>(at), 2), nullptr, 16) / 255.0;
    sum += weight * (part <= .04045 ? part / 12.92 : std::pow((part + .055) / 1.055, 2.4));
  }
  return sum;
}

TEST(ReportPage, ItsColorsCanBeToldApartInLightAndInDark) {
  const std::string style(quorvelctl::kReportStyle);
  const size_t dark = style.find("prefers-color-scheme: dark");
  std::map<std::string, std::string> colors;
  const auto contrast = [&](const char* one, const char* other) {
    const double a = luminance(colors.at(one)), b = luminance(colors.at(other));
    return (std::max(a, b) + .05) / (std::min(a, b) + .05);
  };
  for (const std::string& scheme : {style.substr(0, dark), style.substr(dark)}) {
    const std::regex variable("--([a-z0-9-]+): (#[0-9a-f]{6})");
    for (std::sregex_iterator at(scheme.begin(), scheme.end(), variable), end; at != end; ++at)
      colors[(*at)[1]] = (*at)[2];
    for (const auto& [text, ground] : {std::pair{"ink", "card"},
                                       {"ink", "bg"},
                                       {"ink", "soft"},
                                       {"dim", "card"},
                                       {"dim", "bg"},
                                       {"badge", "badge-bg"},
                                       {"link", "card"}})
      EXPECT_GE(contrast(text, ground), 4.5) << text << " on " << ground;
    for (const char* mark :
         {"focus", "edge", "dim", "running", "runnable", "uninterruptible", "sleeping", "stopped"})
      EXPECT_GE(contrast(mark, "card"), 3) << mark;
  }
}

TEST(ReportPage, TellsTheCauseFirstAndCanBeReadWithoutEyesOrMouse) {
  std::string text(kHostile);
  const std::string chain =
      text.substr(text.find("\"chain\""), text.find("\"busiest\"") - text.find("\"chain\""));
  text.replace(text.find(chain), chain.size(), R"("function":"X","chain":[
{"tid":41,"name":"viewer","pid":41,"function":"X","text":"waits","waitsFor":{"tid":42}},
{"tid":42,"name":"worker","pid":41,"text":"waits","culprit":"deadlock","waitsFor":{"tid":55}},
{"tid":55,"name":"bus","pid":55,"text":"waits","culprit":"deadlock","waitsFor":{"tid":42}}],)");
  text.replace(text.find("{\"tid\":42,\"name\":\"X\""), 0, R"({"tid":43,"name":"idle"},)");
  const size_t launch = text.find(",\n\"launch\"");  // it is a hang's
  text.erase(launch, text.find("},\n\"traceEvents\"") - launch);
  const std::string page = pageOf(text);

  size_t before = page.find("<body");
  for (const char* part : {"class=\"sentence\"", "Who waited for whom", "Where the time went",
                           "Where it was in the last 10 ms", "id=\"timeline\"", "Stacks", "id=\"thread-41\"",
                           "id=\"thread-42\"", "id=\"thread-43\"", ">Report<"}) {
    EXPECT_GT(page.find(part), before) << part;
    before = page.find(part);
  }
  EXPECT_NE(page.find("<details id=\"thread-41\" open>"), std::string::npos) << "it hung";
  EXPECT_NE(page.find("<details id=\"thread-42\" class=\"culprit\" open>"), std::string::npos);
  EXPECT_NE(page.find("<details id=\"thread-43\">"), std::string::npos);
  EXPECT_NE(page.find("<li class=\"here\">X"), std::string::npos);
  EXPECT_NE(page.find("<a href=\"#link-1\">back to worker</a>"), std::string::npos);
  EXPECT_EQ(countOf(page, "The report has no stack of it"), 1u);

  const auto matches = [&](const char* pattern) {
    const std::regex expression(pattern);
    std::vector<std::string> found;
    for (std::sregex_iterator at(page.begin(), page.end(), expression), end; at != end; ++at)
      found.push_back((*at)[1]);
    return found;
  };
  int level = 0;
  for (const std::string& heading : matches("<h([1-6])")) {
    EXPECT_LE(std::stoi(heading), level + 1) << "a level is left out";
    level = std::stoi(heading);
  }
  EXPECT_EQ(countOf(page, "<h1"), 1u);
  const auto ids = matches(" id=\"([^\"]+)\"");
  EXPECT_EQ(std::set<std::string>(ids.begin(), ids.end()).size(), ids.size());
  for (const std::string& target : matches("href=\"#([^\"]+)\""))
    EXPECT_EQ(std::count(ids.begin(), ids.end(), target), 1) << target;
  EXPECT_EQ(matches("class=\"scroll\" (tabindex=\"0\" role=\"region\" aria-label=\"[^\"]+\")").size(),
            countOf(page, "class=\"scroll\""));
  EXPECT_EQ(countOf(page, "<th"), countOf(page, "<th scope=") + countOf(page, "<thead"));
}

TEST(ReportPage, ATimelineIsBoundedAndLosesNoTime) {
  Report report;
  report.header.pid = report.header.threadId = 41;
  report.header.startTicks = 24'000'000;
  report.header.endTicks = 48'000'000;
  report.threads.resize(1);
  report.threads.front().tid = 42;
  report.trace.texts = {"viewer", "worker", "sleeping", "hog"};
  double hogUs = 0;
  for (int i = 0; i < 150'000; ++i) {
    const double start = 1e6 + i * 20.0;
    const auto tid = static_cast<int64_t>(i % 6 == 0 ? 41 : i % 6 == 1 ? 42 : 7);
    const uint32_t name = tid == 41 ? 0 : tid == 42 ? 1 : 3;
    if (tid == 7) hogUs += 30;
    report.trace.events.push_back({quorvelctl::TraceEvent::Kind::cpu, name, i % 2, tid, start, 30});
  }
  report.trace.events.push_back({quorvelctl::TraceEvent::Kind::state, 2, 41, 0, 1e6, 1e6});

  report.sampled.durationMs = 500;
  EXPECT_EQ(quorvelctl::timelineOf(report).events, 150'000u) << "samples tell more than the look";
  report.sampled.durationMs = 0;
  const Timeline timeline = quorvelctl::timelineOf(report);
  EXPECT_EQ(timeline.events, 150'001u);
  EXPECT_TRUE(timeline.statesOfLook);
  ASSERT_EQ(timeline.tracks.size(), 3u);
  size_t items = 0;
  size_t events = 0;
  double end = 0;
  for (const Timeline::Track& track : timeline.tracks) {
    items += track.items.size();
    for (const Timeline::Item& item : track.items) {
      events += item.count;
      if (track.kind == "cpu") end = std::max(end, item.startUs + item.durationUs);
    }
  }
  EXPECT_EQ(events, 150'001u);
  EXPECT_LE(items, 32'000u);
  EXPECT_GT(items, 15'000u) << "so coarse that looking closer shows nothing";
  EXPECT_DOUBLE_EQ(end, 149'999 * 20.0 + 30);
  for (const Timeline::Label& label : timeline.labels) {
    const char* owner = label.tid == 41 ? "hung" : label.tid == 42 ? "own" : label.tid == 7 ? "other" : "";
    EXPECT_EQ(label.owner, owner);
    EXPECT_DOUBLE_EQ(label.totalUs, label.tid == 7 ? hogUs : label.totalUs);
  }
  EXPECT_LT(quorvelctl::reportPage(report).size(), size_t{1} * 1024 * 1024);
}

}  // namespace

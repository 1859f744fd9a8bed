#include "tools/page/report_html.h"

#include <algorithm>
#include <cstdint>

#include "tools/base/units.h"
#include "tools/page/chain_html.h"
#include "tools/page/html.h"
#include "tools/page/launch_html.h"
#include "tools/page/report_page.h"
#include "tools/page/report_timeline.h"
#include "tools/page/verdict_html.h"
#include "tools/report/report_text.h"
#include "tools/report/verdict_text.h"

namespace quorvelctl {
namespace {

/// Threads whose stacks are on the page; a report lists more only with hundreds that look alike.
constexpr size_t kMaxThreadsShown = 256;

std::string titleText(const ReportHeader& header) {
  if (!header.hasHang()) return "Trace";
  const std::string duration = durationText(header.durationMs());
  if (header.pid == 0) return header.processName() + " took " + duration + " to launch";
  return header.processName() + " hung for " + duration;
}

/// The sentence is the first that is read of it, below what it is about.
Html headerHtml(const Report& report) {
  const ReportHeader& header = report.header;
  std::string line;
  const auto add = [&](const std::string& part) {
    line += (line.empty() || part.empty() ? "" : " · ") + part;
  };
  if (header.hasHang()) add(header.kind());
  add(header.serviceName);
  const int64_t pid = report.launch ? report.launch->pid : header.pid;
  if (pid != 0) add("pid " + std::to_string(pid));
  add(report.madeAt);
  Html content = element("h1", "", titleText(header));
  if (report.verdict) {
    content += element("p", "sentence", report.verdict->sentence);
    if (header.hasHang()) content += element("p", "badge", causeText(report.verdict->cause));
  }
  return element("header", "", content + element("p", "about", line));
}

Html factsHtml(const Report& report) {
  Html facts;
  const auto add = [&](std::string_view what, const std::string& value) {
    if (!value.empty()) facts += element("div", "", element("dt", "", what) + element("dd", "", value));
  };
  const ReportHeader& header = report.header;
  add("Reason", header.reason);
  add("Process", header.processPath);
  if (header.threadId != 0) add("Thread", std::to_string(header.threadId));
  if (header.hasHang())
    add("Ticks", std::to_string(header.startTicks) + " to " + std::to_string(header.endTicks));
  add("Display", displayText(header));
  add("Host", report.host);
  return element("section", "card", element("h2", "", "Report") + element("dl", "", facts));
}

Html frameHtml(const ReportFrame& frame, bool isHere) {
  const std::string place = frame.place();
  Html line = escaped(frame.name);
  if (!place.empty() && frame.name != place) line += element("span", "place", place);
  return element("li", isHere ? "here" : "", line);
}

/// The thread in the chain; null if it isn't there.
const ReportVerdict::Link* linkOf(const Report& report, int64_t tid) {
  if (!report.verdict) return nullptr;
  const auto& chain = report.verdict->chain;
  const auto link =
      std::find_if(chain.begin(), chain.end(), [&](const auto& each) { return each.thread.tid == tid; });
  return link == chain.end() ? nullptr : &*link;
}

/// The function that the verdict puts the thread in; empty if it doesn't.
std::string functionOf(const Report& report, const ReportThread& thread) {
  const ReportVerdict::Link* link = linkOf(report, thread.tid);
  if (link) return link->function;
  return thread.hung && report.verdict ? report.verdict->function : std::string();
}

Html stackHtml(const Report& report, const ReportThread& thread) {
  Html kernel;
  for (const std::string& frame : thread.kernelStack) kernel += element("li", "", frame);
  Html user;
  std::string function = functionOf(report, thread);
  for (const ReportFrame& frame : thread.userStack) {
    const bool isHere = !function.empty() && frame.name == function;
    user += frameHtml(frame, isHere);
    if (isHere) function.clear();  // once: what calls itself is there again
  }
  Html stack;
  if (!thread.kernelStack.empty()) {
    stack += element("h3", "", "Kernel") + element("ol", "stack kernel", kernel);
  }
  if (!thread.userStack.empty()) stack += element("h3", "", "User") + element("ol", "stack", user);
  if (!thread.stackCutOff.empty()) stack += element("p", "note", "It ends here: " + thread.stackCutOff);
  if (thread.userStack.empty()) {
    stack += element("p", "note", "No user stack" + (thread.noStack.empty() ? "" : ": " + thread.noStack));
  }
  return stack;
}

Html threadHtml(const Report& report, const ReportThread& thread) {
  const bool isTheCulprit = isCulprit(report, thread.tid);
  const Html name = element("b", "", ownerText(thread)) + element("span", "tid", std::to_string(thread.tid)) +
                    element("span", "doing", doingText(thread));
  Html details{"<details id=\"thread-" + std::to_string(thread.tid) + "\"" +
               (isTheCulprit ? " class=\"culprit\"" : "") + (thread.hung || isTheCulprit ? " open" : "") +
               "><summary>"};
  details += name;
  if (thread.hung) details += element("span", "badge plain", "hung");
  if (isTheCulprit) details += element("span", "badge", "culprit");
  details += Html{"</summary>"} + stackHtml(report, thread) + Html{"</details>\n"};
  return details;
}

Html stacksHtml(const Report& report) {
  Html content = element("h2", "", "Stacks");
  if (report.header.pid != 0 && (report.threads.empty() || !report.threads.front().hung)) {
    content += element("p", "note", "The thread that hung had ended, or could not be looked at.");
  }
  // First those that the verdict speaks of.
  size_t shown = 0;
  for (const bool isSpokenOf : {true, false}) {
    for (const ReportThread& thread : report.threads) {
      const bool isOne = thread.hung || linkOf(report, thread.tid);
      if (isOne == isSpokenOf && shown++ < kMaxThreadsShown) content += threadHtml(report, thread);
    }
  }
  if (report.threads.size() > kMaxThreadsShown) {
    content += element("p", "note",
                       std::to_string(report.threads.size() - kMaxThreadsShown) +
                           " more threads are in the report, not on this page.");
  }
  return report.threads.empty() && report.header.pid == 0 ? Html{} : element("section", "card", content);
}

Html timelineHtml(const Timeline& timeline) {
  if (timeline.tracks.empty()) return {};
  const auto button = [](const char* id, const char* label, const char* title) {
    return Html{std::string("<button type=\"button\" id=\"") + id + "\" title=\"" + title +
                "\" aria-label=\"" + title + "\">" + label + "</button>"};
  };
  const Html tools = button("in", "+", "Closer") + button("out", "&minus;", "Farther") +
                     (timeline.hangUs > 0 ? button("hang", "Hang", "The hang alone") : Html{}) +
                     button("all", "All", "All that was recorded");
  Html content = element("div", "heading", element("h2", "", "Timeline") + element("div", "tools", tools));
  content += Html{
      "<div id=\"timeline\"><canvas id=\"canvas\" tabindex=\"0\" role=\"img\" "
      "aria-label=\"Timeline of the hang\" aria-describedby=\"moving\"></canvas><div id=\"tip\" hidden></div></div>"
      "<ul class=\"legend\" id=\"legend\"></ul>"};
  std::string note =
      "Drag it or press the arrow keys to move; hold Ctrl and turn the wheel, double-click, or press + and − to look closer.";
  if (timeline.hiddenCpus > 0)
    note += " " + std::to_string(timeline.hiddenCpus) + " more CPUs are in the report.";
  content += Html{"<p class=\"note\" id=\"moving\">"} + escaped(note) + Html{"</p>"} +
             Html{"<noscript><p class=\"note\">It is drawn by a script.</p></noscript>"};
  return element("section", "card", content);
}

Html leftOutHtml(const Report& report) {
  if (report.leftOut.empty()) return {};
  Html list;
  for (const auto& [what, why] : report.leftOut) {
    list += element("div", "", element("dt", "", what) + element("dd", "", why));
  }
  return element("section", "card", element("h2", "", "Left out") + element("dl", "", list));
}

}  // namespace

std::string reportPage(const Report& report) {
  const Timeline timeline = timelineOf(report);
  const Html content = headerHtml(report) + chainHtml(report) + launchHtml(report) +
                       (report.verdict ? timeHtml(*report.verdict, report.header) : Html{}) +
                       sampledHtml(report.sampled) + timelineHtml(timeline) + stacksHtml(report) +
                       factsHtml(report) + leftOutHtml(report);
  const Html scripts = Html{"<script type=\"application/json\" id=\"data\">"} +
                       scriptData(timelineJson(timeline)) + Html{"</script>\n<script>\n"} +
                       Html{std::string(kReportScript)} + Html{"</script>\n"};
  return wholePage(titleText(report.header), std::string(kReportStyle), content, scripts);
}

}  // namespace quorvelctl

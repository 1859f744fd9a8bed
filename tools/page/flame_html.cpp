#include "tools/page/flame_html.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "tools/base/units.h"

namespace quorvelctl {
namespace {

/// Boxes narrower than this share of the whole are left out, and so is what lies deeper.
constexpr double kLeastShare = 0.005;
constexpr size_t kMostRows = 48;

using Spent = ReportSampled::Spent;

struct Box {
  std::string name;
  bool isKernel = false;
  Spent spent;
  std::vector<Box> callees;

  void add(const Spent& more) {
    spent.onCpuMs += more.onCpuMs;
    spent.readyMs += more.readyMs;
    spent.waitedMs += more.waitedMs;
  }
  /// The callee of that name.
  Box& callee(const std::string& called, bool inKernel) {
    for (Box& box : callees) {
      if (box.name == called && box.isKernel == inKernel) return box;
    }
    return callees.emplace_back(Box{called, inKernel, {}, {}});
  }
};

void add(Box& whole, const ReportSampled::Place& place) {
  Box* box = &whole;
  const auto enter = [&](const std::string& name, bool isKernel) {
    box = &box->callee(name, isKernel);
    box->add(place.spent);
  };
  if (place.stack.empty()) enter("(unknown)", false);
  for (auto frame = place.stack.rbegin(); frame != place.stack.rend(); ++frame) enter(frame->name, false);
  if (!place.inKernel.empty()) enter(place.inKernel, true);
}

/// What all stacks begin with says nothing: it is one box, with the name of the innermost.
void shorten(Box& whole) {
  while (whole.callees.size() == 1 && whole.callees.front().callees.size() == 1 &&
         !whole.callees.front().callees.front().isKernel) {
    Box only = std::move(whole.callees.front().callees.front());
    whole.callees.front() = std::move(only);
  }
}

std::string percentText(double share) {
  return fixed(100 * share, share < 0.1 ? 1 : 0) + " %";
}

std::string timesText(const Spent& spent) {
  std::string text;
  const auto add = [&](const char* what, double ms) {
    if (ms >= 1) text += (text.empty() ? "" : ", ") + std::string(what) + " " + durationText(ms);
  };
  add("on a CPU for", spent.onCpuMs);
  add("ready for", spent.readyMs);
  add("waited for", spent.waitedMs);
  return text;
}

class Graph {
 public:
  explicit Graph(double wholeMs) : wholeMs_(wholeMs) {}

  /// The boxes in one row, with all that is below them.
  Html row(std::vector<Box>& boxes, double parentMs, size_t rows) const {
    std::sort(boxes.begin(), boxes.end(),
              [](const Box& a, const Box& b) { return a.spent.sum() > b.spent.sum(); });
    Html items;
    for (Box& box : boxes) {
      if (box.spent.sum() < kLeastShare * wholeMs_) break;
      char width[48];
      std::snprintf(width, sizeof width, "<li style=\"width:%.2f%%\">", 100 * box.spent.sum() / parentMs);
      items += Html{width} + label(box);
      if (rows > 1 && !box.callees.empty()) items += row(box.callees, box.spent.sum(), rows - 1);
      items += Html{"</li>\n"};
    }
    return items.markup.empty() ? Html{} : Html{"<ul>"} + items + Html{"</ul>"};
  }

 private:
  Html label(const Box& box) const {
    const double sumMs = box.spent.sum();
    const double cpu = 100 * box.spent.onCpuMs / sumMs;
    const double ready = cpu + 100 * box.spent.readyMs / sumMs;
    char begin[160];
    std::snprintf(begin, sizeof begin,
                  "<span class=\"box%s\" tabindex=\"0\" role=\"img\" style=\"--cpu:%.1f%%;--ready:%.1f%%\" "
                  "aria-label=\"",
                  box.isKernel ? " kernel" : "", cpu, ready);
    const std::string about = box.name + (box.isKernel ? " (kernel)" : "") + ": " +
                              percentText(sumMs / wholeMs_) + ", " + timesText(box.spent);
    return Html{begin} + escaped(about) + Html{"\">"} + escaped(box.name) + Html{"</span>"};
  }

  double wholeMs_;
};

}  // namespace

Html flameHtml(const ReportSampled& sampled) {
  if (!(sampled.durationMs > 0)) return {};
  Box whole;
  for (const ReportSampled::Place& place : sampled.places) add(whole, place);
  shorten(whole);
  if (sampled.notSeen.sum() > 0) whole.callee("(not seen)", false).add(sampled.notSeen);
  double toldMs = 0;
  for (const Box& box : whole.callees) toldMs += box.spent.sum();
  const double wholeMs = std::max(sampled.durationMs, toldMs);  // whatever a report says
  const Html boxes = Graph(wholeMs).row(whole.callees, wholeMs, kMostRows);
  if (boxes.markup.empty()) return {};
  const auto key = [](const char* state, const char* text) {
    return element("li", "", element("i", state, "") + escaped(text));
  };
  return Html{
             "<div class=\"flame\" role=\"group\" aria-label=\"Flame graph: callers above what they call\">"} +
         boxes + element("p", "note", "Point at a box, or tab to it, for its name and times.") +
         Html{"</div>"} +
         element("ul", "legend",
                 key("running", "on a CPU") + key("runnable", "ready, not run") + key("sleeping", "waited"));
}

}  // namespace quorvelctl

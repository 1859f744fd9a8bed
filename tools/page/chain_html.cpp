#include "tools/page/chain_html.h"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <vector>

#include "tools/report/verdict_text.h"

namespace quorvelctl {
namespace {

/// Of each thread: the function that it was in, and who called it.
constexpr ptrdiff_t kFunctionsShown = 3;

using Link = ReportVerdict::Link;

Html functionsHtml(const Link& link, const ReportThread* thread) {
  if (link.function.empty()) return {};
  Html functions = escaped("in ") + element("b", "", link.function);
  const std::vector<ReportFrame> stack = thread ? thread->userStack : std::vector<ReportFrame>();
  const auto frame = std::find_if(stack.begin(), stack.end(),
                                  [&](const ReportFrame& each) { return each.name == link.function; });
  for (auto caller = frame; caller != stack.end() && caller - frame < kFunctionsShown; ++caller) {
    if (caller != frame) functions += escaped(", called by " + caller->name);
  }
  return element("p", "code", functions);
}

Html partyHtml(const Report& report, const ReportVerdict& verdict, size_t index) {
  const Link& link = verdict.chain[index];
  const auto thread = std::find_if(report.threads.begin(), report.threads.end(),
                                   [&](const ReportThread& each) { return each.tid == link.thread.tid; });
  const bool hasThread = thread != report.threads.end();
  Html content = element("b", "", linkText(verdict, report.header, index));
  if (index == 0) content += element("span", "badge plain", report.launch ? "launching" : "hung");
  if (link.isCulprit) content += element("span", "badge", "culprit");
  content += functionsHtml(link, hasThread ? &*thread : nullptr);
  if (hasThread) {
    content += Html{"<p><a href=\"#thread-" + std::to_string(link.thread.tid) + "\">"} +
               escaped("Stack of " + link.thread.name) + Html{"</a></p>"};
  } else if (!report.launch) {  // of a launch there are none at all
    content += element("p", "note", "The report has no stack of it.");
  }
  return content;
}

/// What it waits for or does, and how that is known.
Html stepHtml(const ReportVerdict& verdict, size_t index) {
  const Link& link = verdict.chain[index];
  Html step = escaped(stepText(link));
  if (const std::optional<size_t> back = backTo(verdict.chain, index)) {
    step += Html{": <a href=\"#link-" + std::to_string(*back) + "\">"} +
            escaped("back to " + verdict.chain[*back].thread.name) + Html{"</a>"};
  }
  if (!link.evidence.empty()) step += element("span", "note", "Evidence: " + link.evidence);
  return step;
}

}  // namespace

Html chainHtml(const Report& report) {
  if (!report.verdict || report.verdict->chain.empty()) return {};
  const ReportVerdict& verdict = *report.verdict;
  const std::vector<Link>& chain = verdict.chain;
  Html links;
  for (size_t i = 0; i < chain.size(); ++i) {
    Html party = partyHtml(report, verdict, i);
    Html arrow;
    if (i + 1 < chain.size() || backTo(chain, i)) {
      arrow = element("p", "arrow", stepHtml(verdict, i));
    } else {
      party += element("p", "", stepHtml(verdict, i));
    }
    links += Html{"<li id=\"link-" + std::to_string(i) + "\">"} +
             element("div", chain[i].isCulprit ? "party culprit" : "party", party) + arrow + Html{"</li>\n"};
  }
  return element("section", "card", element("h2", "", "Who waited for whom") + element("ol", "chain", links));
}

}  // namespace quorvelctl

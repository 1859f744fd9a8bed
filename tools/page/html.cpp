#include "tools/page/html.h"

#include "tools/base/table.h"
#include "tools/page/report_page.h"

namespace quorvelctl {

Html& Html::operator+=(const Html& other) {
  markup += other.markup;
  return *this;
}

Html operator+(Html left, const Html& right) {
  left += right;
  return left;
}

Html escaped(std::string_view text) {
  Html html;
  for (const char c : printable(text)) {
    switch (c) {
      case '&':
        html.markup += "&amp;";
        break;
      case '<':
        html.markup += "&lt;";
        break;
      case '>':
        html.markup += "&gt;";
        break;
      case '"':
        html.markup += "&quot;";
        break;
      case '\'':
        html.markup += "&#39;";
        break;
      default:
        html.markup += c;
    }
  }
  return html;
}

Html element(std::string_view tag, std::string_view className, const Html& content) {
  Html html{"<" + std::string(tag)};
  if (!className.empty()) html.markup += " class=\"" + std::string(className) + "\"";
  html.markup += ">" + content.markup + "</" + std::string(tag) + ">";
  return html;
}

Html element(std::string_view tag, std::string_view className, std::string_view text) {
  return element(tag, className, escaped(text));
}

Html scrolledTable(std::string_view label, const Html& columns, const Html& rows) {
  const Html head = element("thead", "", element("tr", "", columns)) + Html{"\n"};
  return Html{"<div class=\"scroll\" tabindex=\"0\" role=\"region\" aria-label=\""} + escaped(label) +
         Html{"\">"} + element("table", "", head + element("tbody", "", rows)) + Html{"</div>"};
}

Html scriptData(std::string_view json) {
  Html html;
  for (const char c : json) {
    if (c == '<') {
      html.markup += "\\u003c";  // so neither </script> nor <!-- can stand in it
    } else {
      html.markup += c;
    }
  }
  return html;
}

std::string wholePage(std::string_view title, const std::string& style, const Html& content,
                      const Html& scripts) {
  const bool hasScripts = !scripts.markup.empty();
  return filled(kPage, {{"allowed", Html{hasScripts ? "; script-src 'unsafe-inline'" : ""}},
                        {"title", escaped(title)},
                        {"style", Html{style}},
                        {"content", content},
                        {"scripts", scripts}});
}

std::string filled(std::string_view page, const std::map<std::string, Html, std::less<>>& parts) {
  std::string out;
  while (true) {
    const size_t begin = page.find("{{");
    const size_t end = page.find("}}", begin);
    out += page.substr(0, begin);
    if (begin == std::string_view::npos || end == std::string_view::npos) return out;
    const auto part = parts.find(page.substr(begin + 2, end - begin - 2));
    if (part != parts.end()) out += part->second.markup;
    page.remove_prefix(end + 2);
  }
}

}  // namespace quorvelctl

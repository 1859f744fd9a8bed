#pragma once

#include <map>
#include <string>
#include <string_view>

namespace quorvelctl {

/// A piece of HTML that is safe to put into a page. Text becomes one by `escaped` alone, so that what a
/// report says never is markup.
struct Html {
  std::string markup;

  Html& operator+=(const Html& other);
};

Html operator+(Html left, const Html& right);

/// `text` as text between tags or in a quoted attribute; control characters become '?'.
Html escaped(std::string_view text);

/// "<tag class=name>content</tag>"; `className` may be empty. Both names are ours, never a report's.
Html element(std::string_view tag, std::string_view className, const Html& content);
Html element(std::string_view tag, std::string_view className, std::string_view text);

/// A table that is scrolled for itself where it is too wide, by keyboard too; `label` tells what it holds to
/// who doesn't see it. `columns` are the cells of its head.
Html scrolledTable(std::string_view label, const Html& columns, const Html& rows);

/// JSON for within a script element: nothing in it can end the element.
Html scriptData(std::string_view json);

/// A page that needs nothing else. `title` and `content` are what a report says, `style` is ours. Without
/// `scripts`, elements to stand at its end, none may run.
std::string wholePage(std::string_view title, const std::string& style, const Html& content,
                      const Html& scripts = {});

/// `page` with each "{{name}}" replaced by the part of that name, or by nothing. Parts aren't looked at for
/// names.
std::string filled(std::string_view page, const std::map<std::string, Html, std::less<>>& parts);

}  // namespace quorvelctl

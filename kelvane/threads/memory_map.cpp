#include "kelvane/threads/memory_map.h"

#include <string_view>
#include <utility>

#include "kelvane/base/limits.h"
#include "kelvane/base/proc_text.h"

namespace kelvane {

void MemoryMapParser::feed(std::string_view text) {
  while (!text.empty()) {
    size_t end = text.find('\n');
    partialLine_ += text.substr(0, end);
    if (end == std::string_view::npos) return;
    addLine(partialLine_);
    partialLine_.clear();
    text.remove_prefix(end + 1);
  }
}

std::vector<MappedModule> MemoryMapParser::finish() {
  closeModule();
  return std::move(modules_);
}

bool MemoryMapParser::full() const {
  return modules_.size() >= kMaxModules;
}

void MemoryMapParser::addLine(std::string_view text) {
  auto line = parseMapsLine(text);
  if (!line) return;
  bool anonymous = line->inode == 0;
  // An anonymous mapping may lie between two mappings of a module, and ends none.
  if (anonymous && line->path != "[vdso]") return;
  bool continues = !anonymous && open_.inode == line->inode && open_.path == line->path &&
                   line->fileOffset >= open_.fileOffset && line->start >= open_.end;
  // A second copy of a library starts over at the file's beginning.
  if (continues && line->fileOffset == 0 && open_.firstEnd != 0) continues = false;
  if (!continues) {
    closeModule();
    open_ = MappedModule{line->start,
                         line->end,
                         line->end,
                         line->fileOffset,
                         line->inode,
                         line->executable,
                         std::string(line->path)};
    return;
  }
  open_.end = line->end;
  open_.executable = open_.executable || line->executable;
}

void MemoryMapParser::closeModule() {
  MappedModule module = std::exchange(open_, {});
  if (!module.executable || full()) return;
  module.path = unescapePath(module.path);
  modules_.push_back(std::move(module));
}

}  // namespace kelvane

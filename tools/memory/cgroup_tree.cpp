#include "tools/memory/cgroup_tree.h"

#include <algorithm>
#include <functional>
#include <map>
#include <vector>

#include "tools/base/table.h"
#include "tools/base/units.h"

namespace quorvelctl {
namespace {

using Rows = std::vector<std::vector<std::string>>;

struct Group {
  std::map<std::string, Group> children;
  const CgroupMemory* memory = nullptr;  ///< null: version 2 doesn't account for it
  uint64_t processBytes = 0;             ///< of its processes and those below
  size_t processes = 0;

  uint64_t bytes() const { return memory ? memory->currentBytes : processBytes; }
};

/// Calls `visit` for the root and each group on the way to `path`.
void walkTo(Group& root, const std::string& path, const std::function<void(Group&)>& visit) {
  Group* group = &root;
  visit(*group);
  for (size_t at = 0; at < path.size();) {
    const size_t end = std::min(path.find('/', at), path.size());
    if (end > at) {
      group = &group->children[path.substr(at, end - at)];
      visit(*group);
    }
    at = end + 1;
  }
}

Group treeOf(const MemoryNow& now) {
  Group root;
  for (const NowProcess& process : now.processes) {
    walkTo(root, process.cgroup, [&](Group& group) {
      group.processBytes += process.ownBytes();
      ++group.processes;
    });
  }
  for (const auto& [path, memory] : now.cgroups) {
    Group* last = nullptr;
    walkTo(root, path, [&](Group& group) { last = &group; });
    last->memory = &memory;
  }
  return root;
}

void collectSizes(const Group& group, std::vector<uint64_t>& sizes) {
  sizes.push_back(group.bytes());
  for (const auto& [name, child] : group.children) collectSizes(child, sizes);
}

std::string orDash(uint64_t bytes) {
  return bytes == 0 ? "-" : sizeText(bytes);
}

std::string limitText(const CgroupMemory& memory) {
  std::string text;
  if (memory.highBytes) text = "high " + sizeText(*memory.highBytes);
  if (memory.maxBytes) text += (text.empty() ? "max " : ", max ") + sizeText(*memory.maxBytes);
  if (memory.highEvents > 0) text += " held back " + std::to_string(memory.highEvents) + "x";
  if (memory.killEvents > 0) text += " killed " + std::to_string(memory.killEvents);
  return text.empty() ? "-" : text;
}

class Tree {
 public:
  Tree(size_t maxRows, bool narrow, bool accounted, const Group& root)
      : narrow_(narrow), accounted_(accounted) {
    std::vector<uint64_t> sizes;
    collectSizes(root, sizes);
    std::sort(sizes.rbegin(), sizes.rend());
    if (sizes.size() > maxRows) smallest_ = sizes[maxRows];
    rows_ = {{"SIZE"}};
    if (!narrow_ && accounted_)
      rows_[0].insert(rows_[0].end(), {"PROCESSES", "FILE", "SHARED", "KERNEL", "LIMIT"});
    rows_[0].emplace_back("GROUP");
  }

  void add(const Group& group, const std::string& name, const std::string& lead,
           const std::string& childLead) {
    const CgroupMemory none;
    const CgroupMemory& memory = group.memory ? *group.memory : none;
    rows_.push_back({sizeText(group.bytes())});
    if (!narrow_ && accounted_) {
      rows_.back().insert(rows_.back().end(),
                          {orDash(group.processBytes), orDash(memory.fileBytes), orDash(memory.sharedBytes),
                           orDash(memory.kernelBytes + memory.socketBytes), limitText(memory)});
    }
    rows_.back().push_back(lead + printable(name) + " (" + std::to_string(group.processes) + ")");
    std::vector<const std::pair<const std::string, Group>*> children;
    for (const auto& child : group.children) {
      if (child.second.bytes() > smallest_) children.push_back(&child);
    }
    std::stable_sort(children.begin(), children.end(),
                     [](const auto* a, const auto* b) { return a->second.bytes() > b->second.bytes(); });
    for (const auto* child : children) {
      const bool last = child == children.back();
      add(child->second, child->first, childLead + (last ? "\u2514\u2500" : "\u251C\u2500"),
          childLead + (last ? "  " : "\u2502 "));
    }
  }

  std::string text() const { return table(rows_); }

 private:
  const bool narrow_;
  const bool accounted_;
  uint64_t smallest_ = 0;
  Rows rows_;
};

}  // namespace

std::string cgroupTreeText(const MemoryNow& now, size_t maxRows, bool narrow) {
  const Group root = treeOf(now);
  Tree tree(maxRows, narrow, !now.cgroups.empty(), root);
  tree.add(root, "/", "", "");
  return tree.text();
}

}  // namespace quorvelctl

#include "kelvane/report/stack_tree.h"

#include <algorithm>
#include <string_view>

#include "kelvane/verdict/display_names.h"

namespace kelvane {

uint32_t StackTree::addNode(Node node) {
  const void* content = node.frame ? static_cast<const void*>(node.frame) : node.kernelFrame;
  auto [known, isNew] = known_.try_emplace({node.parent, content}, static_cast<uint32_t>(nodes_.size() + 1));
  if (isNew) nodes_.push_back(node);
  return known->second;
}

uint32_t StackTree::add(const std::vector<uint32_t>& userFrames,
                        const std::vector<std::string>& kernelFrames) {
  uint32_t id = 0;
  for (auto frame = userFrames.rbegin(); frame != userFrames.rend(); ++frame) {
    id = addNode({id, &process_.frames[*frame], nullptr});
  }
  for (auto frame = kernelFrames.rbegin(); frame != kernelFrames.rend(); ++frame) {
    // Equal texts share one string, so that equal stacks share their nodes.
    id = addNode({id, nullptr, &kernelFrames_.try_emplace(*frame, 0).first->first});
  }
  return id;
}

std::vector<uint32_t> StackTree::pathTo(uint32_t id) const {
  std::vector<uint32_t> path;
  for (; id != 0; id = nodes_[id - 1].parent) path.push_back(id);
  std::reverse(path.begin(), path.end());
  return path;
}

std::string StackTree::nameOf(uint32_t id) const {
  const Node& node = nodes_[id - 1];
  return node.kernelFrame ? *node.kernelFrame : frameName(process_, *node.frame);
}

void StackTree::write(JsonWriter& json) const {
  json.beginObject();
  for (uint32_t id = 1; id <= nodes_.size(); id++) {
    const Node& node = nodes_[id - 1];
    json.key(std::to_string(id));
    json.beginObject();
    json.member("name", std::string_view(nameOf(id)));
    const Module* module = node.frame ? moduleOf(process_, *node.frame) : nullptr;
    json.member("category", std::string_view(node.kernelFrame ? "kernel"
                                             : module         ? fileName(module->path)
                                                              : ""));
    if (node.parent != 0) json.member("parent", std::string_view(std::to_string(node.parent)));
    if (node.frame) json.member("address", std::string_view(hexText(node.frame->address)));
    if (module) {
      json.member("module", std::string_view(module->path));
      json.member("offset", std::string_view(hexText(node.frame->offset)));
      if (!module->buildId.empty()) json.member("build_id", std::string_view(module->buildId));
    }
    json.endObject();
  }
  json.endObject();
}

}  // namespace kelvane

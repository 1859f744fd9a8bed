#include "tools/report/report_json.h"

#include <utility>
#include <vector>

namespace quorvelctl {
namespace {

/// Puts values together as they come. (The parser's own way to be told of each value looks through all
/// siblings at the end of every object, which takes minutes where there are many.)
class JsonReader final : public nlohmann::json_sax<Json> {
 public:
  /// `metadataAlone`: it stops at the end of the report's metadata, as if that were wrong.
  JsonReader(const std::function<void(const Json&)>& take, bool metadataAlone)
      : take_(take), metadataAlone_(metadataAlone) {}

  Json root;
  size_t brokenAt = 0;
  bool hasMetadata = false;

  bool null() override { return add(nullptr); }
  bool boolean(bool value) override { return add(value); }
  bool number_integer(number_integer_t value) override { return add(value); }
  bool number_unsigned(number_unsigned_t value) override { return add(value); }
  bool number_float(number_float_t value, const string_t&) override { return add(value); }
  bool string(string_t& value) override { return add(std::move(value)); }
  bool binary(binary_t&) override { return false; }  // not in texts

  bool key(string_t& name) override {
    key_ = std::move(name);
    if (open_.size() == 1) {
      inEvents_ = key_ == "traceEvents";
      inMetadata_ = key_ == "metadata";
    }
    return true;
  }
  bool start_object(size_t) override { return open(Json::object()); }
  bool start_array(size_t) override { return open(Json::array()); }

  bool end_object() override {
    const Json& object = *open_.back();
    open_.pop_back();
    if (metadataAlone_ && inMetadata_ && open_.size() == 1) {
      hasMetadata = true;
      return false;
    }
    if (inEvents_ && open_.size() == 2 && open_.back()->is_array()) {
      take_(object);
      open_.back()->clear();
    }
    return true;
  }
  bool end_array() override {
    open_.pop_back();
    return true;
  }

  bool parse_error(size_t position, const std::string&, const nlohmann::detail::exception&) override {
    brokenAt = position;
    return false;
  }

 private:
  bool add(Json value) {
    put(std::move(value));
    return true;
  }
  bool open(Json empty) {
    open_.push_back(put(std::move(empty)));
    return true;
  }

  /// Where it is now; stays there until its parent gets another value.
  Json* put(Json value) {
    if (open_.empty()) return &(root = std::move(value));
    Json& parent = *open_.back();
    if (parent.is_object()) return &(parent[key_] = std::move(value));
    parent.push_back(std::move(value));
    return &parent.back();
  }

  const std::function<void(const Json&)>& take_;
  std::vector<Json*> open_;  // from the root inwards
  std::string key_;
  bool inEvents_ = false;
  bool inMetadata_ = false;
  const bool metadataAlone_;
};

std::string problemOf(const JsonReader& reader, std::string_view bytes) {
  return reader.brokenAt > bytes.size()
             ? "it is cut off"
             : "it isn't JSON from byte " + std::to_string(reader.brokenAt) + " on";
}

}  // namespace

std::optional<Json> parseReportJson(std::string_view bytes, const std::function<void(const Json&)>& take,
                                    std::string& error) {
  JsonReader reader(take, false);
  if (Json::sax_parse(bytes, &reader)) return std::move(reader.root);
  error = problemOf(reader, bytes);
  return std::nullopt;
}

std::optional<Json> parseMetadataJson(std::string_view bytes, std::string& error) {
  const std::function<void(const Json&)> forget = [](const Json&) {};
  JsonReader reader(forget, true);
  if (Json::sax_parse(bytes, &reader)) return Json();
  if (reader.hasMetadata) return std::move(reader.root["metadata"]);
  error = problemOf(reader, bytes);
  return std::nullopt;
}

}  // namespace quorvelctl

#include "platform/linux/logs/logs.h"

namespace quorveld::linux_platform {

using platform::LogLevel;

class LinuxLogs::Handle final : public platform::LogHandle {
 public:
  Handle(LinuxLogs& logs, const Name& name)
      : sink_(logs.sink_), marker_(logs.marker_), name_(name), interval_(name.second) {
    if (interval_.empty()) interval_ = name.first;
    // A separator in a mark's name would end it.
    for (char& character : interval_) {
      if (character == '|' || static_cast<unsigned char>(character) < 0x20) character = '_';
    }
  }

  bool enabled(LogLevel level) const override { return sink_.enabled(level); }

  void write(LogLevel level, std::string_view text, const platform::LogEvent& event) override {
    sink_.write({level, name_.first, name_.second, text, event});
  }

  bool signpostsEnabled() const override { return sink_.enabled(LogLevel::info) || marker_.enabled(); }

  void signpostIntervalBegin(uint64_t id, std::string_view text) override {
    signpost('S', "begin", id, text);
  }
  void signpostIntervalEnd(uint64_t id, std::string_view text) override { signpost('F', "end", id, text); }

 private:
  void signpost(char phase, const char* type, uint64_t id, std::string_view text) {
    // Viewers tie the two ends by name, and the texts of begin and end differ: the category names the
    // interval.
    if (marker_.enabled()) marker_.mark(phase, interval_, id);
    sink_.write({LogLevel::info, name_.first, name_.second, text, {}, id, type});
  }

  LogSink& sink_;
  TraceMarker& marker_;
  const Name& name_;  // the key of the map that owns this handle
  std::string interval_;
};

LinuxLogs::LinuxLogs() : marker_(sink_) {}

LinuxLogs::~LinuxLogs() = default;

platform::LogHandle& LinuxLogs::handle(std::string_view subsystem, std::string_view category) {
  const std::lock_guard lock(mutex_);
  const std::pair<std::string_view, std::string_view> name(subsystem, category);
  auto found = handles_.find(name);
  if (found == handles_.end()) {
    found = handles_.emplace(Name(name), nullptr).first;
    found->second = std::make_unique<Handle>(*this, found->first);
  }
  return *found->second;
}

void LinuxLogs::system(std::string_view text) {
  sink_.write({LogLevel::standard, "", "", text});
}

}  // namespace quorveld::linux_platform

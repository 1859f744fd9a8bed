#include "platform/linux/logs/log_sink.h"

#include <fcntl.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "platform/linux/base/root_path.h"
#include "platform/linux/logs/message_ids.h"

namespace quorveld::linux_platform {

namespace {

using platform::LogLevel;

constexpr std::string_view kDaemonSubsystem = "com.corvix.quorvel";
constexpr std::string_view kHexDigits = "0123456789abcdef";
constexpr double kMaxDurationMs = 1e15;  // what a lie about the clock may make of it

/// Losses are warnings, whatever their lines' level: who follows warnings is to hear that something is
/// missing.
int priority(const LogRecord& record) {
  if (isLoss(record.event.kind)) return LOG_WARNING;
  switch (record.level) {
    case LogLevel::standard:
      return LOG_NOTICE;
    case LogLevel::info:
      return LOG_INFO;
    case LogLevel::debug:
      break;
  }
  return LOG_DEBUG;
}

const char* word(LogLevel level) {
  switch (level) {
    case LogLevel::standard:
      return "default";
    case LogLevel::info:
      return "info";
    case LogLevel::debug:
      break;
  }
  return "debug";
}

int64_t monotonicSeconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec;
}

void appendLocalTime(LineBuffer& line) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  std::array<char, 40> text;
  const size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &local);
  line.append({text.data(), length});
  const int milliseconds = static_cast<int>(now.tv_nsec / 1'000'000);
  std::snprintf(text.data(), text.size(), ".%03d ", milliseconds);
  line.append(text.data());
}

std::string_view withoutTrailingNewlines(std::string_view text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.remove_suffix(1);
  return text;
}

bool isControl(unsigned char byte) {
  return byte < 0x20 || byte == 0x7f;
}

/// U+0080 to U+009F, which some terminals obey like escape sequences, as UTF-8.
bool startsC1Control(std::string_view text) {
  return text.size() >= 2 && text[0] == '\xc2' && static_cast<unsigned char>(text[1]) < 0xa0;
}

bool isContinuation(char byte) {
  return (static_cast<unsigned char>(byte) & 0xc0) == 0x80;
}

/// Fields by which a journal is searched: the catalog knows what the message is about.
void addEvent(LineBuffer& fields, const platform::LogEvent& event) {
  const std::string_view id = messageId(event.kind);
  if (!id.empty()) {
    fields.append("MESSAGE_ID=");
    fields.append(id);
    fields.append("\n");
  }
  if (event.pid > 0) {
    fields.append("OBJECT_PID=");
    fields.appendNumber(static_cast<uint64_t>(event.pid));
    fields.append("\n");
  }
  for (const auto& [name, value] : {std::pair("QV_REPORT=", event.reportPath),
                                    {"QV_CAUSE=", event.cause},
                                    {"QV_CULPRIT=", event.culprit},
                                    {"QV_SIGNATURE=", event.signature}}) {
    if (value.empty()) continue;
    fields.append(name);
    fields.appendHarmless(value);
    fields.append("\n");
  }
  if (event.durationMs > 0) {
    fields.append("QV_DURATION_MS=");
    fields.appendNumber(static_cast<uint64_t>(std::min(event.durationMs, kMaxDurationMs)));
    fields.append("\n");
  }
}

constexpr std::string_view kCut = "...";

thread_local uint32_t currentSender = 0;

}  // namespace

void LineBuffer::append(std::string_view bytes) {
  if (cut_) return;
  const size_t room = bytes_.size() - 1 - length_;  // without the line break
  cut_ = bytes.size() > room;
  length_ += bytes.copy(bytes_.data() + length_, room);
  if (!cut_) return;
  length_ -= kCut.size();
  while (length_ > 0 && isContinuation(bytes_[length_])) --length_;
  length_ += kCut.copy(bytes_.data() + length_, kCut.size());
}

std::string_view LineBuffer::line() {
  bytes_[length_] = '\n';
  return {bytes_.data(), length_ + 1};
}

void LineBuffer::appendHarmless(std::string_view text) {
  size_t plain = 0;  // start of what is to be taken as it is
  for (size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const bool c1 = startsC1Control(text.substr(i));
    if (!isControl(byte) && !c1) continue;
    append(text.substr(plain, i - plain));
    if (byte == '\n') {
      append("\\n");
    } else if (byte == '\t') {
      append("\\t");
    } else {
      const unsigned char code = c1 ? static_cast<unsigned char>(text[++i]) : byte;
      const std::array<char, 4> escape = {'\\', 'x', kHexDigits[code >> 4], kHexDigits[code & 15]};
      append({escape.data(), escape.size()});
    }
    plain = i + 1;
  }
  append(text.substr(plain));
}

void LineBuffer::appendNumber(uint64_t number) {
  std::array<char, 20> digits;
  const auto [end, error] = std::to_chars(digits.data(), digits.data() + digits.size(), number);
  append({digits.data(), static_cast<size_t>(end - digits.data())});
}

LineBudget::Verdict LineBudget::take(int64_t monotonicSeconds, uint32_t sender) {
  const std::lock_guard lock(mutex_);
  uint64_t droppedBefore = 0;
  if (monotonicSeconds != second_) {
    second_ = monotonicSeconds;
    used_ = 0;
    usedBy_.fill(0);
    droppedBefore = std::exchange(dropped_, 0);
  }
  uint16_t& own = usedBy_[sender % usedBy_.size()];
  const uint32_t forSender = sender == 0 ? kMaxLogLinesPerSecond : kMaxLogLinesPerSecond / 4 * 3;
  if (used_ >= forSender || (sender != 0 && own >= forSender - used_)) {
    ++dropped_;
    return {false, droppedBefore};
  }
  ++used_;
  if (sender != 0) ++own;
  return {true, droppedBefore};
}

LogSink::LogSink(std::string_view journalSocket) : output_(journalSocket) {
  readThreshold();
}

void LogSink::readThreshold() {
  const char* value = std::getenv("QUORVELD_LOG");
  const std::string_view wanted = value ? value : "";
  if (wanted == "debug") {
    threshold_ = LogLevel::debug;
  } else if (wanted == "default") {
    threshold_ = LogLevel::standard;
  } else if (!wanted.empty() && wanted != "info") {
    LineBuffer text;
    text.append("QUORVELD_LOG: \"");
    text.append(wanted);
    text.append("\" is none of default, info, debug: taken as info");
    write({LogLevel::standard, kDaemonSubsystem, "", text.view()});
  }
}

uint32_t LogSink::setSender(uint32_t uid) {
  return std::exchange(currentSender, uid);
}

void LogSink::write(const LogRecord& record) {
  if (!enabled(record.level)) return;
  const int64_t now = monotonicSeconds();
  const auto [pass, droppedBefore] = budgets_[static_cast<size_t>(record.level)].take(now, currentSender);
  if (droppedBefore > 0) {
    LineBuffer what;
    what.append(" lines of level ");
    what.append(word(record.level));
    what.append(" dropped: too many in a second");
    emitCount(droppedBefore, record.level, what.view());
  }
  ownUpToLoss(now);
  if (pass) emit(record);
}

/// Says how many lines were lost, before the next one and not more than once a second: a reader who is slow
/// would get nothing but this.
void LogSink::ownUpToLoss(int64_t now) {
  if (lost_ == 0 || lossSaidAt_.exchange(now) == now) return;
  emitCount(lost_.exchange(0), LogLevel::standard, " lines lost: the log did not take them");
}

void LogSink::emitCount(uint64_t count, LogLevel level, std::string_view what) {
  LineBuffer text;
  text.appendNumber(count);
  text.append(what);
  const LogRecord record = {
      level, kDaemonSubsystem, "", text.view(), {.kind = platform::LogEventKind::linesLost}};
  emit(record);
}

void LogSink::emit(const LogRecord& record) {
  const int savedErrno = errno;
  if (!(output_.isJournal() ? emitToJournal(record) : emitToStderr(record))) ++lost_;
  errno = savedErrno;
}

/// In journald's native protocol: fields on lines of their own, the one that may be cut last.
bool LogSink::emitToJournal(const LogRecord& record) {
  LineBuffer fields;
  const auto add = [&](std::string_view name, std::string_view value) {
    fields.append(name);
    fields.append(value);
    fields.append("\n");
  };
  fields.append("SYSLOG_IDENTIFIER=quorveld\nPRIORITY=");
  fields.appendNumber(static_cast<uint64_t>(priority(record)));
  add("\nQV_LEVEL=", word(record.level));
  if (!record.subsystem.empty()) add("SUBSYSTEM=", record.subsystem);
  if (!record.category.empty()) add("CATEGORY=", record.category);
  if (record.signpostId != 0) {
    fields.append("SIGNPOST_ID=");
    fields.appendNumber(record.signpostId);
    add("\nSIGNPOST_TYPE=", record.signpostType);
  }
  addEvent(fields, record.event);
  fields.append("MESSAGE=");
  fields.appendHarmless(withoutTrailingNewlines(record.text));
  return output_.sendToJournal(fields.line());
}

bool LogSink::emitToStderr(const LogRecord& record) {
  LineBuffer line;
  appendLocalTime(line);
  line.append(word(record.level));
  line.append(" ");
  if (!record.subsystem.empty()) {
    line.append(record.subsystem);
    if (!record.category.empty()) line.append(":");
    line.append(record.category);
    line.append(" ");
  }
  if (record.signpostId != 0) {
    line.append("signpost ");
    line.append(record.signpostType);
    line.append(" ");
    line.appendNumber(record.signpostId);
    line.append(" ");
  }
  line.appendHarmless(withoutTrailingNewlines(record.text));
  return output_.writeToStderr(line.line());
}

TraceMarker::TraceMarker(LogSink& sink) : recorderPath_(rooted("/run/kelvane/instance/trace_marker")) {
  int reason = ENOENT;
  for (const char* path : {"/sys/kernel/tracing/trace_marker", "/sys/kernel/debug/tracing/trace_marker"}) {
    everybodys_.reset(open(path, O_WRONLY | O_CLOEXEC));
    if (everybodys_) return;
    if (errno != ENOENT) reason = errno;
  }
  LineBuffer text;
  text.append("Signposts are not in the kernel's trace, only in the log: trace_marker can't be opened: ");
  text.append(strerrordesc_np(reason));
  sink.write({LogLevel::info, kDaemonSubsystem, "", text.view()});
}

bool TraceMarker::enabled() const {
  return everybodys_ || access(recorderPath_.c_str(), W_OK) == 0;
}

void TraceMarker::mark(char phase, std::string_view name, uint64_t id) {
  LineBuffer line;
  line.append({&phase, 1});
  line.append("|");
  line.appendNumber(static_cast<uint64_t>(getpid()));
  line.append("|");
  line.append(name);
  line.append("|");
  line.appendNumber(id);
  const UniqueFd recorders(open(recorderPath_.c_str(), O_WRONLY | O_CLOEXEC));
  const int marker = recorders ? recorders.get() : everybodys_.get();
  while (::write(marker, line.view().data(), line.view().size()) < 0 && errno == EINTR) {
  }
}

}  // namespace quorveld::linux_platform

// Fields with the place in this source file would tell nothing and cost a copy for each line.
#define SD_JOURNAL_SUPPRESS_LOCATION

#include "platform/linux/logs/log_sink.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "platform/linux/base/root_path.h"

namespace quorveld::linux_platform {

namespace {

using platform::LogLevel;

constexpr std::string_view kDaemonSubsystem = "com.corvix.quorvel";
constexpr std::string_view kHexDigits = "0123456789abcdef";

int priority(LogLevel level) {
  switch (level) {
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

/// systemd sets JOURNAL_STREAM to "device:inode" of the stream that it connected (systemd.exec(5)); a child
/// that has had its stderr redirected inherits the variable but not the stream.
bool stderrIsJournal() {
  const char* stream = std::getenv("JOURNAL_STREAM");
  struct stat status {};
  if (!stream || fstat(STDERR_FILENO, &status) != 0) return false;
  std::array<char, 64> expected;
  std::snprintf(expected.data(), expected.size(), "%ju:%ju", static_cast<uintmax_t>(status.st_dev),
                static_cast<uintmax_t>(status.st_ino));
  return std::strcmp(stream, expected.data()) == 0;
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

void writeAll(int fd, std::string_view bytes) {
  // One write for one line keeps the lines of several threads apart. A reader that has gone (EPIPE), a full
  // disk or a full non-blocking pipe loses the line; waiting would stop the daemon instead.
  while (::write(fd, bytes.data(), bytes.size()) < 0 && errno == EINTR) {
  }
}

}  // namespace

void LineBuffer::append(std::string_view bytes) {
  if (!isLarge_ && bytes.size() > small_.size() - smallLength_) {
    large_.reserve(2 * (smallLength_ + bytes.size()));
    large_.assign(small_.data(), smallLength_);
    isLarge_ = true;
  }
  if (isLarge_) {
    large_.append(bytes);
  } else {
    std::memcpy(small_.data() + smallLength_, bytes.data(), bytes.size());
    smallLength_ += bytes.size();
  }
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

std::string_view LineBuffer::view() const {
  return isLarge_ ? std::string_view(large_) : std::string_view(small_.data(), smallLength_);
}

LineBudget::Verdict LineBudget::take(int64_t monotonicSeconds) {
  const std::lock_guard lock(mutex_);
  uint64_t droppedBefore = 0;
  if (monotonicSeconds != second_) {
    second_ = monotonicSeconds;
    used_ = 0;
    droppedBefore = std::exchange(dropped_, 0);
  }
  if (used_ == kMaxLogLinesPerSecond) {
    ++dropped_;
    return {false, 0};
  }
  ++used_;
  return {true, droppedBefore};
}

LogSink::LogSink() : toJournal_(stderrIsJournal()) {
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

void LogSink::write(const LogRecord& record) {
  if (!enabled(record.level)) return;
  const auto [pass, droppedBefore] = budgets_[static_cast<size_t>(record.level)].take(monotonicSeconds());
  if (droppedBefore > 0) {
    LineBuffer text;
    text.appendNumber(droppedBefore);
    text.append(" lines of level ");
    text.append(word(record.level));
    text.append(" dropped: too many in a second");
    emit({record.level, kDaemonSubsystem, "", text.view()});
  }
  if (pass) emit(record);
}

void LogSink::emit(const LogRecord& record) {
  const int savedErrno = errno;
  if (toJournal_) {
    emitToJournal(record);
  } else {
    emitToStderr(record);
  }
  errno = savedErrno;
}

void LogSink::emitToJournal(const LogRecord& record) {
  LineBuffer message;
  message.append("MESSAGE=");
  message.appendHarmless(withoutTrailingNewlines(record.text));
  LineBuffer level;
  level.append("PRIORITY=");
  level.appendNumber(static_cast<uint64_t>(priority(record.level)));
  LineBuffer levelWord;
  levelWord.append("QV_LEVEL=");
  levelWord.append(word(record.level));
  LineBuffer subsystem;
  LineBuffer category;
  LineBuffer signpostId;
  LineBuffer signpostType;

  std::array<iovec, 7> fields;
  int count = 0;
  const auto add = [&](const LineBuffer& field) {
    fields[static_cast<size_t>(count++)] = {const_cast<char*>(field.view().data()), field.view().size()};
  };
  const auto addNamed = [&](LineBuffer& field, std::string_view name, std::string_view value) {
    field.append(name);
    field.append(value);
    add(field);
  };
  add(message);
  add(level);
  add(levelWord);
  if (!record.subsystem.empty()) addNamed(subsystem, "SUBSYSTEM=", record.subsystem);
  if (!record.category.empty()) addNamed(category, "CATEGORY=", record.category);
  if (record.signpostId != 0) {
    signpostId.append("SIGNPOST_ID=");
    signpostId.appendNumber(record.signpostId);
    add(signpostId);
    addNamed(signpostType, "SIGNPOST_TYPE=", record.signpostType);
  }
  (void)sd_journal_sendv(fields.data(), count);
}

void LogSink::emitToStderr(const LogRecord& record) {
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
  line.append("\n");
  writeAll(STDERR_FILENO, line.view());
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
  writeAll(recorders ? recorders.get() : everybodys_.get(), line.view());
}

}  // namespace quorveld::linux_platform

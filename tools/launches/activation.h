#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorvelctl {

/// Where the daemon records activations, and, once that was too long, the older ones.
inline constexpr const char* kActivationLog = "/var/log/quorveld/activations.jsonl";
/// Activations that it has left out of it, by their identifiers.
inline constexpr const char* kLeftOutLog = "/var/log/quorveld/activations-left-out.jsonl";
inline constexpr const char* kOlderActivationLog = "/var/log/quorveld/activations.jsonl.1";

/// Classes of CPU time, by the names that the log gives them.
struct CpuClass {
  const char* key;
  const char* name;
};
inline constexpr std::array<CpuClass, 7> kCpuClasses{{{"QOSUserInteractive_ms", "user-interactive"},
                                                      {"QOSUserInitiated_ms", "user-initiated"},
                                                      {"QOSDefault_ms", "legacy"},
                                                      {"QOSUtility_ms", "utility"},
                                                      {"QOSBackground_ms", "background"},
                                                      {"QOSMaintenance_ms", "maintenance"},
                                                      {"QOSDisabled_ms", "kernel"}}};

/// What one process spent during an activation.
struct ProcessCost {
  enum class Life : uint8_t { throughout, born, ended };

  uint64_t identifier = 0;
  int32_t pid = 0;
  /// Empty when the log doesn't hold it; "was NAME" when it only holds one that the process had before.
  std::string name;
  Life life = Life::throughout;
  uint64_t userMs = 0;
  std::array<uint64_t, kCpuClasses.size()> classMs{};
  uint64_t readKb = 0;
  uint64_t writtenKb = 0;
  uint64_t pageIns = 0;

  /// User and system time together, which is what the classes add up to.
  uint64_t cpuMs() const;
  bool spentSomething() const { return cpuMs() + readKb + writtenKb + pageIns > 0; }
};

/// What the figures of an activation's processes don't show: of a process, beside or in place of its
/// ProcessCost.
struct ProcessMore {
  int32_t pid = 0;
  std::string name;
  uint64_t cpuMs = 0;       ///< of one of those that were too small to be listed, by their user time alone
  uint64_t childCpuMs = 0;  ///< of its children that ended meanwhile
};

/// Pages and counters of the machine, by the log's names.
using VmFigures = std::map<std::string, int64_t>;

struct Activation {
  uint64_t identifier = 0;
  double startedAt = 0;  ///< seconds since 2001-01-01 00:00:00 UTC
  std::string bundleID;
  int32_t pid = 0;
  bool launch = false;  ///< else a resume
  int result = 0;
  std::optional<uint64_t> durationMs;  ///< nothing when the end that was announced lay before the begin
  int64_t systemUptimeS = 0;
  uint64_t beginHeardLateMs = 0;  ///< in steps of 50, at most 1550
  uint64_t endHeardLateMs = 0;
  std::vector<ProcessCost> processes;  ///< who spent most first: CPU, then I/O, then page-ins
  std::optional<ProcessCost> others;   ///< all that were too small to be listed
  uint64_t otherCount = 0;             ///< how many those were; 255: that or more
  std::vector<ProcessMore> more;
  VmFigures vmAtBegin, vmAtEnd;  ///< empty when they were not recorded
};

/// Whether this is the identifier of an activation of process `pid` that was announced to have begun at
/// `startMs`.
bool isActivationOf(uint64_t identifier, int32_t pid, uint64_t startMs);

/// The identifier of the activation that a line of a log is about, at a glance; nothing when there is none in
/// it.
std::optional<uint64_t> activationIdentifierOf(std::string_view line);

/// Reads a log from its beginning on, file by file. The daemon names a process only once, so names carry over
/// from one line to the next.
class ActivationReader {
 public:
  void read(std::string_view text);

  const std::vector<Activation>& activations() const { return activations_; }  ///< as they come in the log
  /// How many lines were skipped because they were broken. What comes after the last line break is no line.
  size_t brokenLines() const { return brokenLines_; }

 private:
  bool readLine(std::string_view line);
  std::string nameOf(const ProcessCost& cost) const;

  std::vector<Activation> activations_;
  size_t brokenLines_ = 0;
  std::map<uint64_t, std::string> names_;     ///< of processes, by identifier
  std::map<int32_t, std::string> lastNames_;  ///< by pid
};

}  // namespace quorvelctl

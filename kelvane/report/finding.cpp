#include "kelvane/report/finding.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "kelvane/report/signature.h"
#include "kelvane/verdict/display_names.h"

namespace kelvane {
namespace {

std::string ownerText(const std::string& process, const std::string& thread) {
  return process.empty() || process == thread ? thread : process + "/" + thread;
}

/// Who asked most of a disk, those at the chain's end, who had the CPU, or the hung thread's own function; of
/// a launch the thread itself. As quorvelctl has it.
std::string culpritOf(const Report& report) {
  const Verdict& verdict = *report.verdict;
  const ProcessCapture& process = report.process;
  if (verdict.diskRival) return ownerText(verdict.diskRival->process, verdict.diskRival->name);
  if (verdict.chain) {
    const WaitChain& chain = verdict.chain->chain;
    std::string culprits;
    for (size_t i = chain.deadlockFrom.value_or(chain.links.size() - 1); i < chain.links.size(); i++) {
      const WaitParty& party = chain.links[i].party;
      culprits += (culprits.empty() ? "" : " and ") + ownerText(party.process, party.facts.comm);
    }
    return culprits;
  }
  if ((verdict.cause == Cause::ownCpu || verdict.cause == Cause::peer) && report.launch)
    return ownerText(report.launch->followed.comm, report.launch->followed.threads.front().facts.comm);
  if (verdict.cause == Cause::ownCpu || verdict.cause == Cause::sleeping)
    return functionOf(process, process.hungThread);
  if (verdict.cause != Cause::starved || verdict.busiest.empty()) return {};
  const NamedThread& busiest = verdict.busiest.front().thread;
  return ownerText(busiest.process, busiest.name);
}

/// What is beyond the room for it is cut off, between two characters.
template <size_t size>
void put(char (&field)[size], const std::string& text) {
  size_t length = std::min(text.size(), size - 1);
  const auto continues = [&](size_t at) { return (static_cast<unsigned char>(text[at]) & 0xc0) == 0x80; };
  while (length > 0 && length < text.size() && continues(length)) length--;
  memcpy(field, text.data(), length);
}

}  // namespace

kelvane_finding findingOf(const Report& report) {
  kelvane_finding finding{};
  if (!report.verdict) return finding;
  put(finding.cause, causeName(report.verdict->cause));
  put(finding.culprit, culpritOf(report));
  put(finding.signature, signatureOf(report));
  return finding;
}

kelvane_finding readFinding(int fd) {
  kelvane_finding finding{};
  const auto ends = [](const auto& field) { return memchr(field, '\0', sizeof field) != nullptr; };
  if (pread(fd, &finding, sizeof finding, 0) == sizeof finding && ends(finding.cause) &&
      ends(finding.culprit) && ends(finding.signature))
    return finding;
  return {};
}

void writeFinding(int fd, const kelvane_finding& finding) {
  // Without it the report is as good.
  (void)!pwrite(fd, &finding, sizeof finding, 0);
}

}  // namespace kelvane

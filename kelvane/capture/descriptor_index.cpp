#include "kelvane/capture/descriptor_index.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <ctime>
#include <sstream>

#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/base/proc_text.h"

namespace kelvane {
namespace {

std::chrono::nanoseconds cpuTime() {
  timespec spent{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &spent);
  return std::chrono::seconds(spent.tv_sec) + std::chrono::nanoseconds(spent.tv_nsec);
}

}  // namespace

std::string descriptorLink(int dirFd, const std::string& path) {
  std::array<char, PATH_MAX> text;
  const ssize_t length = readlinkat(dirFd, path.c_str(), text.data(), text.size());
  return length < 0 ? std::string() : std::string(text.data(), static_cast<size_t>(length));
}

std::vector<pid_t> childrenOfThread(pid_t pid, pid_t tid) {
  std::vector<pid_t> children;
  const std::string path = "/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid) + "/children";
  std::istringstream numbers(readFileAt(AT_FDCWD, path.c_str(), kMaxProcFileBytes).text);
  for (pid_t child = 0; numbers >> child;) children.push_back(child);
  return children;
}

std::vector<pid_t> childrenOf(pid_t pid) {
  std::vector<pid_t> children;
  const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
  for (const pid_t tid : listNumbersAt(AT_FDCWD, tasks.c_str(), kMaxThreadsListed)) {
    for (const pid_t child : childrenOfThread(pid, tid)) children.push_back(child);
  }
  return children;
}

pid_t parentOf(pid_t pid) {
  const std::string path = "/proc/" + std::to_string(pid) + "/stat";
  const auto stat = parseStat(readFileAt(AT_FDCWD, path.c_str(), kMaxProcFileBytes).text);
  return stat ? stat->parent : 0;
}

const std::vector<DescriptorIndex::Descriptor>& DescriptorIndex::withLink(const std::string& link) {
  if (!isFilled_) fill();
  static const std::vector<Descriptor> kNobody;
  const auto found = byLink_.find(link);
  return found == byLink_.end() ? kNobody : found->second;
}

void DescriptorIndex::fill() {
  isFilled_ = true;
  std::vector<pid_t> others = listNumbersAt(AT_FDCWD, "/proc", kMaxProcessesScanned);
  std::reverse(others.begin(), others.end());
  std::vector<pid_t> pids = childrenOf(near_);
  pids.insert(pids.begin(), {near_, parentOf(near_)});
  for (const pid_t pid : pids) std::erase(others, pid);
  pids.insert(pids.end(), others.begin(), others.end());
  const auto end = cpuTime() + kPeerSearchCpu;
  for (size_t i = 0; i < pids.size(); i++) {
    if (deadline_.passed() || cpuTime() > end) {
      leftOut_ += pids.size() - i;
      return;
    }
    if (pids[i] != 0) add(pids[i]);
  }
}

void DescriptorIndex::add(pid_t pid) {
  const std::string path = "/proc/" + std::to_string(pid) + "/fd";
  const UniqueFd dir(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!dir) {
    const bool hasGone = errno == ENOENT || errno == ESRCH;
    if (!hasGone) leftOut_++;
    return;
  }
  std::vector<int> numbers = listNumbersAt(dir.get(), ".", kMaxDescriptorsSearched);
  if (numbers.size() == kMaxDescriptorsSearched) leftOut_++;
  numbers.push_back(0);
  for (const int fd : numbers) {
    std::string link = descriptorLink(dir.get(), std::to_string(fd));
    if (!link.empty()) byLink_[std::move(link)].push_back({pid, fd});
  }
}

}  // namespace kelvane

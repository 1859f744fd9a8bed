#include "kelvane/capture/descriptor_wait.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <set>
#include <string_view>

#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/capture/likely_thread.h"
#include "kelvane/capture/net_tables.h"
#include "kelvane/capture/unix_socket.h"
#include "kelvane/capture/waited_descriptors.h"
#include "kelvane/kernel/kernel_look.h"

namespace kelvane {
namespace {

constexpr std::string_view kEventfd = "anon_inode:[eventfd]";

/// The N of "pipe:[N]"; 0 if `link` does not begin so.
uint64_t inodeOf(std::string_view link, std::string_view kind) {
  uint64_t inode = 0;
  if (link.starts_with(kind)) std::from_chars(link.data() + kind.size(), link.data() + link.size(), inode);
  return inode;
}

std::string fdinfoOf(int dirFd, const std::string& process, int fd) {
  const std::string path = process + "fdinfo/" + std::to_string(fd);
  return readFileAt(dirFd, path.c_str(), kMaxProcFileBytes).text;
}

/// The other end of a descriptor: who has it is who has a descriptor with this link.
struct OtherEnd {
  std::string link{};
  std::string object;       // for people: "a pipe"
  mode_t mode = 0;          // of the descriptor's link; 0: any
  std::string infoName{};   // a line of its fdinfo that it has in common with the waited one; empty: none
  uint64_t infoNumber = 0;  // on that line
  pid_t process = 0;        // instead: the process that a pidfd is about
  bool isNetwork = false;   // it lies on another machine
};

/// The ends of what one party waits at.
class Ends {
 public:
  Ends(pid_t pid, int processDir, std::vector<Omission>& omissions)
      : pid_(pid), dir_(processDir), omissions_(omissions) {}

  std::optional<OtherEnd> of(const WaitedDescriptor& waited, bool isAny) {
    const std::string fd = std::to_string(waited.fd);
    const std::string link = descriptorLink(dir_, "fd/" + fd);
    const mode_t other = waited.writing ? S_IRUSR : S_IWUSR;
    if (link.starts_with("pipe:[")) return OtherEnd{link, "a pipe", other};
    if (const uint64_t inode = inodeOf(link, "socket:[")) return ofSocket(inode, isAny);
    if (link == kEventfd) return ofInfo(waited.fd, link, "an eventfd", "eventfd-id");
    if (link == "anon_inode:[pidfd]") {
      const auto pid = static_cast<pid_t>(parseStatusNumber(fdinfoOf(dir_, "", waited.fd), "Pid"));
      return pid > 0 ? std::optional(OtherEnd{link, "end", 0, "", 0, pid}) : std::nullopt;
    }
    constexpr std::string_view kTerminals = "/dev/pts/";
    if (const uint64_t number = inodeOf(link, kTerminals); number != 0 || link == "/dev/pts/0")
      return OtherEnd{"/dev/ptmx", "a terminal", 0, "tty-index", number};
    // Whether it is a named pipe is known without asking a server.
    struct statx status {};
    const bool isPipe = link.starts_with('/') &&
                        statx(dir_, ("fd/" + fd).c_str(), AT_STATX_DONT_SYNC, STATX_TYPE, &status) == 0 &&
                        S_ISFIFO(status.stx_mode);
    return isPipe ? std::optional(OtherEnd{link, "the pipe " + link, other}) : std::nullopt;
  }

 private:
  std::optional<OtherEnd> ofInfo(int fd, const std::string& link, const char* object, const char* name) {
    const uint64_t number = parseStatusNumber(fdinfoOf(dir_, "", fd), name);
    return OtherEnd{link, object, 0, name, number};
  }

  /// Who watches several sockets waits at one that it has accepted for a request, not for an answer.
  std::optional<OtherEnd> ofSocket(uint64_t inode, bool isAny) {
    uint32_t peer = 0;
    if (!unixSockets_) unixSockets_ = unixSocketsOf(pid_);
    if (const int error = unixSocketPeer(*unixSockets_, dir_, static_cast<uint32_t>(inode), peer)) {
      const bool isKnown = std::any_of(omissions_.begin(), omissions_.end(),
                                       [](const Omission& known) { return known.what == kSocketEnds; });
      if (!isKnown) omissions_.push_back({kSocketEnds, "sock_diag: " + errorText(error)});
    }
    if (peer != 0) {
      if (isAny && !unixTable_) unixTable_ = readFileAt(dir_, "net/unix", kMaxNetTableBytes).text;
      if (isAny && !unixSocketName(*unixTable_, inode).empty()) return std::nullopt;
      return OtherEnd{"socket:[" + std::to_string(peer) + "]", "a Unix socket"};
    }
    return ofTcp(inode, isAny);
  }

  const std::vector<TcpSocket>& tcpSockets() {
    if (tcpSockets_) return *tcpSockets_;
    tcpSockets_.emplace();
    for (const char* table : {"net/tcp", "net/tcp6"}) {
      for (TcpSocket& socket : parseTcpTable(readFileAt(dir_, table, kMaxNetTableBytes).text))
        tcpSockets_->push_back(std::move(socket));
    }
    return *tcpSockets_;
  }

  std::optional<OtherEnd> ofTcp(uint64_t inode, bool isAny) {
    const std::vector<TcpSocket>& sockets = tcpSockets();
    const auto own =
        std::find_if(sockets.begin(), sockets.end(), [&](auto& one) { return one.inode == inode; });
    if (own == sockets.end() || own->state == TcpSocket::kListening) return std::nullopt;
    const auto listener = [&](uint16_t port) {
      return std::find_if(sockets.begin(), sockets.end(), [&](const TcpSocket& one) {
        return one.state == TcpSocket::kListening && one.localPort == port;
      });
    };
    if (isAny && listener(own->localPort) != sockets.end()) return std::nullopt;
    auto other = std::find_if(sockets.begin(), sockets.end(), [&](const TcpSocket& one) {
      return one.localPort == own->remotePort && one.remotePort == own->localPort &&
             one.localAddress == own->remoteAddress && one.remoteAddress == own->localAddress;
    });
    const std::string address = addressText(own->remoteAddress, own->remotePort);
    // What nobody has accepted yet is its listener's.
    const bool isHere = other != sockets.end() || own->remoteAddress == own->localAddress;
    if (isHere && (other == sockets.end() || other->inode == 0)) other = listener(own->remotePort);
    if (other != sockets.end() && other->inode != 0)
      return OtherEnd{"socket:[" + std::to_string(other->inode) + "]", "a TCP connection to " + address};
    std::string state = own->state == TcpSocket::kConnecting ? "not connected yet" : "connected";
    if (own->unacknowledgedBytes > 0)
      state += ", " + std::to_string(own->unacknowledgedBytes) + " bytes unacknowledged";
    if (own->retransmits > 0) state += ", sent again " + std::to_string(own->retransmits) + " times";
    OtherEnd end{"", "the network: " + address + " (" + state + ")"};
    end.isNetwork = true;
    return end;
  }

  static constexpr const char* kSocketEnds = "other end of the socket";

  const pid_t pid_;
  const int dir_;
  std::vector<Omission>& omissions_;
  // Once read, for all that is waited at: the first is a pass over all the files that the process has open.
  std::optional<FileText> unixSockets_;
  std::optional<std::string> unixTable_;
  std::optional<std::vector<TcpSocket>> tcpSockets_;
};

bool has(const DescriptorIndex::Descriptor& descriptor, const OtherEnd& end) {
  const std::string process = "/proc/" + std::to_string(descriptor.pid) + "/";
  if (!end.infoName.empty())
    return parseStatusNumber(fdinfoOf(AT_FDCWD, process, descriptor.fd), end.infoName) == end.infoNumber;
  if (end.mode == 0) return true;
  struct stat status {};
  const std::string path = process + "fd/" + std::to_string(descriptor.fd);
  return fstatat(AT_FDCWD, path.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
         (status.st_mode & end.mode) != 0;
}

/// The process's descriptors that are this end, and the process's thread that is likeliest to be at it.
struct EndHolder {
  pid_t pid = 0;
  std::vector<int> fds;
  LikelyThread thread;
  int rank = 0;  // the lowest comes first
};

class EndSearch {
 public:
  EndSearch(const WaitParty& party, DescriptorIndex& index) : party_(party), index_(index) {}

  /// Those who read or write it first; who merely has inherited it comes last, and the party's own process
  /// after all.
  std::vector<WaitHolder> holdersOf(const OtherEnd& end) {
    if (end.process != 0) return ofProcess(end.process);
    std::vector<EndHolder> found = withEnd(end);
    for (EndHolder& holder : found) addThread(holder);
    std::erase_if(found, [](const EndHolder& holder) { return holder.thread.tid == 0; });
    addRanks(found);
    std::stable_sort(found.begin(), found.end(),
                     [](const EndHolder& a, const EndHolder& b) { return a.rank < b.rank; });
    std::vector<WaitHolder> holders;
    const bool others =
        std::any_of(found.begin(), found.end(), [&](auto& one) { return one.pid != party_.pid; });
    for (const EndHolder& holder : found) {
      // Of its own process any other thread may be the one.
      const bool isAnyOfOwn = holder.pid == party_.pid && holder.thread.isChosen && !holder.thread.isAtIt;
      isAnyOfOwn_ = isAnyOfOwn_ || (isAnyOfOwn && !others);
      if (isAnyOfOwn || (others && holder.pid == party_.pid)) continue;
      // An eventfd is the kernel's to signal, too.
      const bool isSure =
          found.size() == 1 && index_.leftOut() == 0 && holder.thread.isOnly && end.link != kEventfd;
      const bool isLikely = holder.pid != party_.pid || holder.thread.isAtIt;
      holders.push_back({holder.pid, holder.thread.tid,
                         isSure     ? Sureness::certain
                         : isLikely ? Sureness::likely
                                    : Sureness::guess,
                         "it has the other end, as its descriptor " + std::to_string(holder.fds.front())});
    }
    return holders;
  }
  /// Whether an end that was asked for is its own process's alone, any thread of which may be at it.
  bool isAnyOfOwn() const { return isAnyOfOwn_; }

 private:
  static std::vector<WaitHolder> ofProcess(pid_t pid) {
    const auto thread = likelyThread(pid, 0, nullptr);
    if (!thread) return {};
    return {
        {pid, thread->tid, thread->isOnly ? Sureness::certain : Sureness::likely, "the pidfd is about it"}};
  }

  std::vector<EndHolder> withEnd(const OtherEnd& end) {
    std::vector<EndHolder> found;
    for (const auto& descriptor : index_.withLink(end.link)) {
      if (index_.isOver()) break;
      auto known =
          std::find_if(found.begin(), found.end(), [&](auto& one) { return one.pid == descriptor.pid; });
      if (known == found.end() && found.size() == kMaxEndHolders) continue;
      if (!has(descriptor, end)) continue;
      if (known == found.end()) known = found.insert(found.end(), {descriptor.pid, {}, {}});
      known->fds.push_back(descriptor.fd);
    }
    return found;
  }

  void addThread(EndHolder& holder) {
    const bool isOwn = holder.pid == party_.pid;
    const std::string dir = "/proc/" + std::to_string(holder.pid);
    const UniqueFd fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const auto isAtIt = [&](const SystemCall& call) {
      const WaitedDescriptors waited = waitedDescriptors(fd.get(), holder.pid, call);
      return !waited.isAny && !waited.all.empty() &&
             std::find(holder.fds.begin(), holder.fds.end(), waited.all.front().fd) != holder.fds.end();
    };
    auto thread = likelyThread(holder.pid, isOwn ? party_.facts.tid : 0, isAtIt);
    // A process with a single thread that has both ends waits for itself, or for a signal or the kernel.
    if (!thread && isOwn) thread = LikelyThread{party_.facts.tid, false, false, false};
    if (thread) holder.thread = *thread;
  }

  /// Once each, before they are sorted by them: parents change while one looks.
  void addRanks(std::vector<EndHolder>& all) const {
    std::set<pid_t> parents = {parentOf(party_.pid)};
    for (const EndHolder& holder : all) parents.insert(parentOf(holder.pid));
    for (EndHolder& holder : all) {
      const int asOther = parents.contains(holder.pid) ? 2 : 1;
      holder.rank = holder.pid == party_.pid ? 3 : holder.thread.isAtIt ? 0 : asOther;
    }
  }

  const WaitParty& party_;
  DescriptorIndex& index_;
  bool isAnyOfOwn_ = false;
};

/// Of several events just one has to happen: who waits for the party is not whom it waits for.
void keepTheOnlyOther(PartyWait& wait, const WaitParty& party, const std::vector<pid_t>& waiting,
                      size_t watched) {
  std::set<pid_t> others;
  for (const WaitHolder& holder : wait.holders) {
    const bool waits = std::find(waiting.begin(), waiting.end(), holder.pid) != waiting.end();
    if (holder.pid != party.pid && !waits) others.insert(holder.pid);
  }
  std::erase_if(wait.holders,
                [&](const WaitHolder& holder) { return others.size() != 1 || !others.contains(holder.pid); });
  if (wait.holders.empty()) {
    wait.kind = WaitKind::events;
    wait.object = "an event at one of " + std::to_string(watched) + " descriptors";
  }
  for (WaitHolder& holder : wait.holders) {
    if (watched > 1) holder.sureness = Sureness::guess;
  }
}

}  // namespace

std::optional<PartyWait> descriptorWait(int processDir, const WaitParty& party,
                                        const std::vector<pid_t>& waiting, DescriptorIndex& index,
                                        ThreadLists& threads, std::vector<Omission>& omissions) {
  if (!party.facts.syscall) return std::nullopt;
  const WaitedDescriptors waited = waitedDescriptors(processDir, party.pid, *party.facts.syscall);
  if (waited.all.empty()) return std::nullopt;
  PartyWait wait{party.facts.tid, WaitKind::peer, {}, {}};
  Ends ends(party.pid, processDir, omissions);
  EndSearch search(party, index);
  const bool isAny = waited.isAny && waited.all.size() > 1;
  bool isNetwork = false;
  for (const WaitedDescriptor& descriptor : waited.all) {
    if (index.isOver()) break;
    const auto end = ends.of(descriptor, isAny);
    if (!end) continue;
    isNetwork = isNetwork || end->isNetwork;
    for (WaitHolder& holder : search.holdersOf(*end)) {
      if (wait.object.empty() || holder.pid != party.pid) wait.object = end->object;
      wait.kind = end->process != 0 ? WaitKind::child : WaitKind::peer;
      wait.holders.push_back(std::move(holder));
    }
    if (wait.object.empty()) wait.object = end->object;
  }
  if (isAny) keepTheOnlyOther(wait, party, waiting, waited.all.size());
  if (wait.holders.empty() && isNetwork && !isAny) wait.kind = WaitKind::network;
  if (wait.holders.empty() && search.isAnyOfOwn() && !isAny) threads.addCandidates(party, wait);
  const bool isTold = !wait.holders.empty() || wait.kind != WaitKind::peer || !wait.object.empty();
  return isTold ? std::optional(wait) : std::nullopt;
}

}  // namespace kelvane

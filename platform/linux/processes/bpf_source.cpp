#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <system_error>
#include <utility>

#include "platform/linux/base/file_bytes.h"
#include "platform/linux/base/linux_log.h"
#include "platform/linux/base/unique_fd.h"
#include "platform/linux/processes/bpf_loading.h"
#include "platform/linux/processes/process_table_source.h"
#include "platform/linux/processes/procfs_parse.h"

namespace quorveld::linux_platform {

namespace {

/// The array starts with room for this many processes, and grows to what a pass needed and this share more.
constexpr uint32_t kMinCapacity = 512;
constexpr uint32_t kHeadroomShare = 4;
/// An array of which less than this part was used is replaced by a smaller one.
constexpr uint32_t kOversizedFactor = 8;
/// Above any kernel's thread-max: a pass that asks for more is not believed.
constexpr uint32_t kMaxCapacity = 1 << 22;
/// How often a pass is repeated because processes were born faster than the array grew.
constexpr int kMaxPasses = 4;

constexpr size_t kMaxOffsetsBytes = 4096;

/// The inode of the initial PID namespace (include/uapi/linux/nsfs.h): elsewhere the kernel's pids are not
/// ours.
constexpr ino_t kInitialPidNamespace = 0xEFFFFFFC;

/// A BPF array's values, mapped into this process; unmapped on destruction.
class MappedArray {
 public:
  MappedArray() = default;
  /// Null, with errno set, on failure.
  MappedArray(int map, size_t lengthBytes, int protection) : lengthBytes_(lengthBytes) {
    void* address = mmap(nullptr, lengthBytes, protection, MAP_SHARED, map, 0);
    if (address != MAP_FAILED) address_ = address;
  }
  MappedArray(MappedArray&& other) noexcept { *this = std::move(other); }
  MappedArray& operator=(MappedArray&& other) noexcept {
    std::swap(address_, other.address_);
    std::swap(lengthBytes_, other.lengthBytes_);
    return *this;
  }
  ~MappedArray() {
    if (address_) munmap(address_, lengthBytes_);
  }

  explicit operator bool() const { return address_ != nullptr; }
  template <typename Value>
  Value* as() const {
    return static_cast<Value*>(address_);
  }

 private:
  void* address_ = nullptr;
  size_t lengthBytes_ = 0;
};

class BpfSource final : public ProcessSource {
 public:
  explicit BpfSource(BpfPass pass) : pass_(pass) {}

  const char* name() const override {
    return pass_ == BpfPass::taskWalk ? "BPF (task walk)" : "BPF (task iterator)";
  }

  /// Empty on success, else the reason.
  std::string load();

  std::span<const process_sample> read(const ProcessRecords& before) override;

 private:
  bool resize(uint32_t capacity);
  /// 0 or an errno.
  int run();
  int runIterator();

  const BpfPass pass_;
  LoadedBpf loaded_;
  MappedArray shared_;  // one sample_pass
  MappedArray samples_;
  uint32_t capacity_ = 0;
  uint32_t wanted_ = kMinCapacity;
  bool oversized_ = false;
  bool failing_ = false;
};

std::string BpfSource::load() {
  libbpf_set_print(nullptr);  // what goes wrong here has a line of ours
  std::string why;
  std::optional<LoadedBpf> loaded = loadBpf(pass_, why);
  if (!loaded) return why;
  loaded_ = std::move(*loaded);
  shared_ = MappedArray(loaded_.pass.get(), sizeof(sample_pass), PROT_READ | PROT_WRITE);
  if (!shared_) return bpfReason("BPF object", errno);
  const int cpus = libbpf_num_possible_cpus();
  auto* pass = shared_.as<sample_pass>();
  pass->cpu_count = cpus > 0 && cpus <= kSampleMaxCpus ? static_cast<uint32_t>(cpus) : 0;
  std::error_code noTimeNamespaces;  // a kernel that has none has no such file
  const auto offsets = readFile("/proc/self/timens_offsets", kMaxOffsetsBytes, noTimeNamespaces);
  pass->boottime_offset_ns = parseClockOffset(offsets.value_or(""), "boottime");

  if (!resize(kMinCapacity)) return bpfReason("BPF array", errno);
  return {};
}

bool BpfSource::resize(uint32_t capacity) {
  auto options = noOptions<bpf_map_create_opts>();
  options.map_flags = BPF_F_MMAPABLE | BPF_F_INNER_MAP;
  const UniqueFd map(bpf_map_create(BPF_MAP_TYPE_ARRAY, "process_samples", sizeof(uint32_t),
                                    sizeof(process_sample), capacity, &options));
  if (!map) return false;
  MappedArray samples(map.get(), capacity * sizeof(process_sample), PROT_READ);
  const uint32_t zero = 0;
  const int fd = map.get();
  if (!samples || bpf_map_update_elem(loaded_.sampleArrays.get(), &zero, &fd, BPF_ANY) != 0) return false;
  samples_ = std::move(samples);
  capacity_ = capacity;
  return true;
}

int BpfSource::runIterator() {
  const UniqueFd pass(bpf_iter_create(loaded_.link.get()));
  if (!pass) return errno;
  std::array<char, 64> nothing;  // the program writes no text
  ssize_t length = 0;
  do {
    length = ::read(pass.get(), nothing.data(), nothing.size());
  } while (length > 0 || (length < 0 && (errno == EAGAIN || errno == EINTR)));
  return length < 0 ? errno : 0;
}

int BpfSource::run() {
  if (pass_ == BpfPass::taskIterator) return runIterator();
  auto options = noOptions<bpf_test_run_opts>();
  return bpf_prog_test_run_opts(loaded_.program.get(), &options) == 0 ? 0 : errno;
}

std::span<const process_sample> BpfSource::read(const ProcessRecords&) {
  volatile sample_pass& pass = *shared_.as<sample_pass>();  // the program's to write while `run` lasts
  std::string problem = "processes are born too fast";
  if (oversized_) resize(wanted_);  // the old array serves on when there is no other
  for (int attempt = 0; attempt < kMaxPasses; ++attempt) {
    pass.sample_count = 0;
    pass.last_pid = 0;
    const int error = run();
    const uint32_t count = pass.sample_count;
    wanted_ = std::max(count + count / kHeadroomShare, kMinCapacity);
    oversized_ = capacity_ / kOversizedFactor > wanted_;
    if (error == 0 && count > 0 && count <= capacity_) {
      failing_ = false;
      return {samples_.as<const process_sample>(), count};
    }
    if (error != 0 || count == 0 || count > kMaxCapacity || !resize(wanted_)) {
      problem = error != 0 ? std::strerror(error) : count == 0 ? "no process seen" : std::strerror(errno);
      break;
    }
  }
  if (!failing_) logDefault("Process table: %s failed: %s", name(), problem.c_str());
  failing_ = true;
  return {};
}

}  // namespace

std::unique_ptr<ProcessSource> openBpfSource(BpfPass pass, std::string& why) {
  struct stat pidNamespace {};
  if (stat("/proc/self/ns/pid", &pidNamespace) != 0 || pidNamespace.st_ino != kInitialPidNamespace) {
    why = "BPF: not in the initial PID namespace";
    return nullptr;
  }
  auto source = std::make_unique<BpfSource>(pass);
  why = source->load();
  // A kernel may take the program and then not run it.
  if (why.empty() && source->read({}).empty()) why = std::string(source->name()) + ": the first pass failed";
  if (why.empty()) return source;
  return nullptr;
}

}  // namespace quorveld::linux_platform

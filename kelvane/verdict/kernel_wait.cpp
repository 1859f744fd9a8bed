#include "kelvane/verdict/kernel_wait.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace kelvane {
namespace {

struct Sign {
  std::string_view part;  // of a function's name
  KernelWait wait;
};

/// The first that fits decides.
constexpr std::array<Sign, 46> kSigns = {{
    {"do_freezer_trap", KernelWait::frozen},
    {"refrigerator", KernelWait::frozen},
    {"throttle_cfs_rq", KernelWait::quota},
    {"wait_for_vfork_done", KernelWait::child},
    {"vfork_wait", KernelWait::child},
    {"request_wait_answer", KernelWait::server},
    {"fuse_", KernelWait::server},
    {"nfs", KernelWait::server},
    {"rpc_wait", KernelWait::server},
    {"cifs_", KernelWait::server},
    {"smb2_", KernelWait::server},
    {"p9_client", KernelWait::server},
    {"ceph_", KernelWait::server},
    {"mem_cgroup", KernelWait::memory},
    {"try_charge", KernelWait::memory},
    {"try_to_free", KernelWait::memory},
    {"shrink_", KernelWait::memory},
    {"reclaim_throttle", KernelWait::memory},
    {"throttle_direct_reclaim", KernelWait::memory},
    {"swap_page", KernelWait::swap},
    {"swap_read", KernelWait::swap},
    {"swapin_", KernelWait::swap},
    {"zram_", KernelWait::swap},
    {"zswap_", KernelWait::swap},
    {"rwsem_", KernelWait::lock},
    {"mutex_lock", KernelWait::lock},
    {"percpu_down", KernelWait::lock},
    {"folio_wait", KernelWait::page},
    {"folio_lock", KernelWait::page},
    {"wait_on_page", KernelWait::page},
    {"lock_page", KernelWait::page},
    {"io_schedule", KernelWait::disk},
    {"blk_", KernelWait::disk},
    {"rq_qos_wait", KernelWait::disk},
    {"wbt_wait", KernelWait::disk},
    {"submit_bio", KernelWait::disk},
    {"wait_on_buffer", KernelWait::disk},
    {"jbd2_", KernelWait::fileSystem},
    {"iomap_dio", KernelWait::disk},
    {"blkdev_", KernelWait::disk},
    {"balance_dirty_pages", KernelWait::fileSystem},
    {"wb_wait", KernelWait::fileSystem},
    {"ext4_", KernelWait::fileSystem},
    {"xfs_", KernelWait::fileSystem},
    {"btrfs_", KernelWait::fileSystem},
    {"f2fs_", KernelWait::fileSystem},
}};

KernelWait waitIn(std::string_view function) {
  const auto* sign = std::find_if(kSigns.begin(), kSigns.end(), [&](const Sign& one) {
    return function.find(one.part) != std::string_view::npos;
  });
  return sign == kSigns.end() ? KernelWait::unknown : sign->wait;
}

/// Whether the function tells why its callees wait for a page or a disk at all.
bool isReasonForDisk(KernelWait wait) {
  return wait == KernelWait::server || wait == KernelWait::memory || wait == KernelWait::swap;
}

}  // namespace

bool isForDisk(KernelWait wait) {
  return wait == KernelWait::disk || wait == KernelWait::page || wait == KernelWait::fileSystem;
}

KernelWait kernelWait(const ThreadFacts& facts) {
  // The wait for the end of a vfork has no function of its own: as the innermost one it is no other wait.
  if (facts.waitChannel == "kernel_clone" || facts.waitChannel == "_do_fork") return KernelWait::child;
  KernelWait found = waitIn(facts.waitChannel);
  for (const std::string& function : facts.kernelStack) {
    const KernelWait wait = waitIn(function);
    const bool isOpen = found == KernelWait::unknown;
    const bool isForPage = isForDisk(found);
    if (isOpen || (isForPage && isReasonForDisk(wait)) ||
        (found == KernelWait::disk && wait == KernelWait::page))
      found = wait;
  }
  return found;
}

}  // namespace kelvane

#include "client/region.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "client/descriptors.h"

static const struct qv_process_page kNoPage;
static const struct qv_process_page* current_page = &kNoPage;
static int region_fd = -1;

const struct qv_process_page* qv_page(void) {
  return __atomic_load_n(&current_page, __ATOMIC_ACQUIRE);
}

/* A descriptor of zeroed memory of the region's size, or a negative errno. */
static int make_memory(void) {
  const int fd = qv_above_stdio(memfd_create("quorvel-hang-region", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  if (fd < 0) return -errno;
  if (ftruncate(fd, sizeof(QVSharedHangRegion)) < 0 ||
      fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW) < 0) {
    const int error = -errno;
    close(fd);
    return error;
  }
  return fd;
}

static void* map(size_t size, int flags, int fd, int advice) {
  void* address = mmap(NULL, size, PROT_READ | PROT_WRITE, flags, fd, 0);
  if (address == MAP_FAILED) return NULL;
  if (madvise(address, size, advice) == 0) return address;
  const int error = errno;
  munmap(address, size);
  errno = error;
  return NULL;
}

static void fill(struct qv_process_page* page, QVSharedHangRegion* region) {
  region->protocolVersion = QV_HANG_PROTOCOL_VERSION;
  region->slotCount = QV_HANG_SLOT_COUNT;
  page->region = region;
  for (unsigned i = 0; i < QV_HANG_SLOT_COUNT; ++i) {
    region->slots[i].timeoutExempt = 1;
    page->slots[i].event = &region->slots[i];
  }
}

int qv_region_ensure(void) {
  if (region_fd >= 0) return region_fd;
  const int fd = make_memory();
  if (fd < 0) return fd;
  QVSharedHangRegion* region = map(sizeof *region, MAP_SHARED, fd, MADV_DONTFORK);
  struct qv_process_page* page =
      region ? map(sizeof *page, MAP_PRIVATE | MAP_ANONYMOUS, -1, MADV_WIPEONFORK) : NULL;
  if (!page) {
    const int error = -errno;
    if (region) munmap(region, sizeof *region);
    close(fd);
    return error;
  }
  fill(page, region);
  __atomic_store_n(&current_page, page, __ATOMIC_RELEASE);
  region_fd = fd;
  return fd;
}

void qv_region_forget(void) {
  if (region_fd >= 0) close(region_fd);
  region_fd = -1;
}

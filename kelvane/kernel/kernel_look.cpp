#include "kelvane/kernel/kernel_look.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <memory>
#include <string_view>

#include "kelvane/base/limits.h"
#include "kelvane/kernel/addresses_asked.h"

// KELVANE_KERNEL_LOOK: the path of what clang made of the program.
asm(".pushsection .rodata\n"
    ".balign 16\n"
    ".hidden kelvane_kernel_look_begin, kelvane_kernel_look_end\n"
    ".global kelvane_kernel_look_begin, kelvane_kernel_look_end\n"
    "kelvane_kernel_look_begin:\n"
    ".incbin \"" KELVANE_KERNEL_LOOK
    "\"\n"
    "kelvane_kernel_look_end:\n"
    ".byte 0\n"
    ".popsection\n");

extern "C" {
extern const unsigned char kelvane_kernel_look_begin[];
extern const unsigned char kelvane_kernel_look_end[];
}

namespace kelvane {
namespace {

class KernelLook {
 public:
  KernelLook() {
    libbpf_set_print(nullptr);  // what failed becomes an omission
    const auto length = static_cast<size_t>(kelvane_kernel_look_end - kelvane_kernel_look_begin);
    object_.reset(bpf_object__open_mem(kelvane_kernel_look_begin, length, nullptr));
    error_ = object_ ? -bpf_object__load(object_.get()) : errno;
  }

  /// What the program writes while the kernel goes through what `which` says.
  FileText pass(const char* program, bpf_iter_link_info which, size_t maxBytes) const {
    if (error_ != 0) return {{}, error_};
    bpf_link_create_opts options{};
    options.sz = sizeof options;
    options.iter_info = &which;
    options.iter_info_len = sizeof which;
    const int loaded = bpf_program__fd(bpf_object__find_program_by_name(object_.get(), program));
    const UniqueFd link(bpf_link_create(loaded, 0, BPF_TRACE_ITER, &options));
    // There is no such thread any more.
    if (!link) return {{}, errno == ESRCH || errno == ENOENT ? 0 : errno};
    const UniqueFd written(bpf_iter_create(link.get()));
    return written ? readOn(written.get(), maxBytes) : FileText{{}, errno};
  }

  /// An errno value, or 0.
  int ask(std::span<const uint64_t> addresses) const {
    if (error_ != 0) return error_;
    const int map = bpf_object__find_map_fd_by_name(object_.get(), "asked");
    for (uint32_t i = 0; i < KELVANE_ADDRESSES_ASKED; i++) {
      const uint64_t address = i < addresses.size() ? addresses[i] : 0;
      if (bpf_map_update_elem(map, &i, &address, BPF_ANY) != 0) return errno;
      if (address == 0) break;
    }
    return 0;
  }

 private:
  struct Close {
    void operator()(bpf_object* object) const { bpf_object__close(object); }
  };

  std::unique_ptr<bpf_object, Close> object_;
  int error_ = 0;
};

const KernelLook& kernelLook() {
  static const KernelLook look;
  return look;
}

}  // namespace

FileText kernelStackOf(pid_t tid) {
  bpf_iter_link_info which{};
  which.task.tid = static_cast<uint32_t>(tid);
  FileText stack = kernelLook().pass("kernel_stack", which, kMaxProcFileBytes);
  constexpr std::string_view kFailure = "error -";
  if (!stack.text.starts_with(kFailure)) return stack;
  int error = EIO;
  std::from_chars(stack.text.data() + kFailure.size(), stack.text.data() + stack.text.size(), error);
  return {{}, error};
}

FileText kernelFunctionsAt(std::span<const uint64_t> addresses) {
  bpf_iter_link_info which{};
  which.task.tid = static_cast<uint32_t>(gettid());
  FileText functions;
  while (!addresses.empty()) {
    const auto part = addresses.first(std::min<size_t>(addresses.size(), KELVANE_ADDRESSES_ASKED));
    addresses = addresses.subspan(part.size());
    if (const int error = kernelLook().ask(part); error != 0) return {{}, error};
    const FileText named = kernelLook().pass("functions_at", which, kMaxProcFileBytes);
    if (named.error != 0) return named;
    functions.text += named.text;
  }
  return functions;
}

FileText unixSocketsOf(pid_t pid) {
  bpf_iter_link_info which{};
  which.task.pid = static_cast<uint32_t>(pid);
  return kernelLook().pass("unix_sockets", which, kMaxNetTableBytes);
}

}  // namespace kelvane

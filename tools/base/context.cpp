#include "tools/base/context.h"

#include <cstdio>

namespace quorvelctl {

void Context::fail(const std::string& message, int failedStatus) {
  std::fprintf(stderr, "quorvelctl: %s\n", message.c_str());
  status = failedStatus;
}

}  // namespace quorvelctl

#include "platform/linux/processes/process_table_source.h"

namespace quorveld::linux_platform {

std::unique_ptr<ProcessSource> openBpfSource(BpfPass, std::string& why) {
  why = "built without BPF";
  return nullptr;
}

}  // namespace quorveld::linux_platform

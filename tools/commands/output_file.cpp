#include "tools/commands/output_file.h"

#include <filesystem>

#include "tools/base/files.h"

namespace quorvelctl {

void writeOutput(Context& context, const std::string& path, const std::string& bytes) {
  std::error_code error;
  const auto target = std::filesystem::weakly_canonical(std::filesystem::absolute(path), error);
  const auto status = std::filesystem::status(path, error);
  if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status)) {
    context.fail(path + " is no regular file");
  } else if (const auto failure = replaceFile(target, bytes, false)) {
    context.fail("can't write " + path + ": " + failure.message());
  }
}

}  // namespace quorvelctl

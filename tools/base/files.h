#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace quorvelctl {

/// The longest file that is read, in bytes.
inline constexpr size_t kMaxFileBytes = size_t{256} * 1024 * 1024;

/// All of the regular file at `path`; nothing, and the reason, when it can't be read or is longer than
/// `maxBytes`.
std::optional<std::string> readFile(const std::string& path, size_t maxBytes, std::error_code& error);

/// The first `maxBytes` of the regular file at `path`, or all of it; nothing, and the reason, when it can't
/// be read.
std::optional<std::string> readStart(const std::string& path, size_t maxBytes, std::error_code& error);

/// Makes the directories above `path` that are missing.
[[nodiscard]] std::error_code makeFolderOf(const std::string& path);

/// Puts `bytes` in the place of the file at `path` in one step, mode 0644. On an error the old file stays as
/// it was. `synced`: they survive a power cut from then on.
[[nodiscard]] std::error_code replaceFile(const std::string& path, std::string_view bytes, bool synced);

/// Appends `bytes` to the file at `path`, mode 0600 where it is new; they survive a power cut from then on.
/// It is a file of lines: what is behind the last line's end, which a writer who was killed left, goes. Those
/// who append at once wait for each other. On an error the file stays as it was, or as near to that as can
/// be.
[[nodiscard]] std::error_code appendSynced(const std::string& path, std::string_view bytes);

}  // namespace quorvelctl

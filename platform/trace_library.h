#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace quorveld::platform {

/// A library loaded at run time; unloaded on destruction.
class TraceLibrary {
 public:
  virtual ~TraceLibrary() = default;

  /// The address of an exported symbol; null when there is none.
  virtual void* symbol(const char* name) = 0;
};

class TraceLibraryLoader {
 public:
  virtual ~TraceLibraryLoader() = default;

  /// The platform's dynamic-library suffix, dot included.
  virtual std::string_view suffix() const = 0;

  /// Loads the library at `path` with lazy binding; null when that fails, with the linker's `reason`.
  [[nodiscard]] virtual std::unique_ptr<TraceLibrary> open(const std::string& path, std::string& reason) = 0;
};

}  // namespace quorveld::platform

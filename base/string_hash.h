#pragma once

#include <cstdint>
#include <string_view>

namespace quorveld {

/// 32-bit FNV-1a of the text's bytes: stable from run to run, and the only string hash in identifiers.
constexpr uint32_t stringHash(std::string_view text) {
  uint32_t hash = 2166136261u;
  for (const char c : text) hash = (hash ^ static_cast<uint8_t>(c)) * 16777619u;
  return hash;
}

}  // namespace quorveld

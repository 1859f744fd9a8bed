#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "tools/launches/activation.h"

namespace quorvelctl {

/// The activation in words: what it was, then who spent what in its course, who spent most first. Times are
/// local. `pageBytes` is the size of the machine's pages.
std::string activationText(const Activation& activation, uint64_t pageBytes);

/// All that is known of it.
nlohmann::ordered_json activationJson(const Activation& activation);

}  // namespace quorvelctl

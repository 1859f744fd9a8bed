#pragma once

#include <string>
#include <vector>

#include "tools/launches/launches_by_app.h"

namespace quorvelctl {

/// The launches of one application or more, as launchesByApp gave them for the same `now`, as a page that
/// needs nothing else: what changed within the week, each launch over time, and all figures. Nothing of a
/// name becomes markup in it.
std::string launchesPage(const std::vector<AppLaunches>& apps, double now);

}  // namespace quorvelctl

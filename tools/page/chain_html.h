#pragma once

#include "tools/page/html.h"
#include "tools/report/report.h"

namespace quorvelctl {

/// Who waited for whom, as a picture: a box for each thread of the chain, with the functions that it was in
/// and a link to its stack, and an arrow to the next. The page has to have the stacks of all of them that are
/// in the report. Nothing without a chain.
Html chainHtml(const Report& report);

}  // namespace quorvelctl

#pragma once

#include "kelvane/verdict/evidence.h"

namespace kelvane {

/// The look's graph, in which a wait that nobody owns has a holder all the same, as a guess, if one of its
/// candidates stands out: the one who ended the waiting thread's sleeps before, by the recording; else the
/// only one that there is, or the only one that is busy if all were looked at.
WaitGraph withLikelyEnders(const Evidence& evidence);

}  // namespace kelvane

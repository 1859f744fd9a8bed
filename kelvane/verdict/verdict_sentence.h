#pragma once

#include <string>

#include "kelvane/verdict/findings.h"
#include "kelvane/verdict/verdict.h"

namespace kelvane {

/// The verdict in one sentence, for whoever owns the device. Says on how little it rests when that is so.
/// Everything but `verdict.sentence` must be there already.
std::string verdictSentence(const Evidence& evidence, const Findings& findings, const Verdict& verdict);

}  // namespace kelvane

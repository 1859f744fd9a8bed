#pragma once

#include <string>

#include "platform/preferences_store.h"
#include "platform/value.h"

namespace quorveld {

/// A dictionary as people read it in a log line: `{key = value; list = (1, 2); }`. Texts stand as they are.
std::string describe(const platform::Dictionary& dictionary);

/// A preference as people read it in a log line: `true`, `-1`, `"a text"`, `an array`. A long text is cut.
std::string describe(const platform::PreferenceValue& value);

}  // namespace quorveld

#include "base/settings.h"

namespace quorveld {

Settings& settings() {
  static Settings instance;
  return instance;
}

}  // namespace quorveld

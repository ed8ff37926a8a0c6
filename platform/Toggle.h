// Feature toggles by name. A toggle is read once per process from the environment variable
// MVPN_TOGGLE_<name> ("1"/"true" on, "0"/"false" off, any case; unset or anything else: off)
// and cached; toggleOverride() replaces the cached value, for tests. Thread-safe.
#pragma once

#include <string_view>

namespace Oro {

bool toggleEnabled(std::string_view name);
void toggleOverride(std::string_view name, bool enabled);
// Forgets the cached value, so the next toggleEnabled() reads the environment again.
void toggleReset(std::string_view name);

}  // namespace Oro

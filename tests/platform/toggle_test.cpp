// Feature toggles: environment values, caching, overrides.
#include <gtest/gtest.h>

#include <cstdlib>

#include "platform/Toggle.h"

namespace {

TEST(Toggle, ReadsTheEnvironmentOnceAndCachesIt) {
  setenv("MVPN_TOGGLE_ToggleTestOn", "TRUE", 1);
  setenv("MVPN_TOGGLE_ToggleTestOne", "1", 1);
  setenv("MVPN_TOGGLE_ToggleTestOff", "false", 1);
  setenv("MVPN_TOGGLE_ToggleTestJunk", "yes", 1);
  EXPECT_TRUE(Oro::toggleEnabled("ToggleTestOn"));
  EXPECT_TRUE(Oro::toggleEnabled("ToggleTestOne"));
  EXPECT_FALSE(Oro::toggleEnabled("ToggleTestOff"));
  EXPECT_FALSE(Oro::toggleEnabled("ToggleTestJunk"));
  EXPECT_FALSE(Oro::toggleEnabled("ToggleTestUnset"));

  // Later changes of the environment are not seen until the cache is reset.
  setenv("MVPN_TOGGLE_ToggleTestOn", "0", 1);
  setenv("MVPN_TOGGLE_ToggleTestUnset", "1", 1);
  EXPECT_TRUE(Oro::toggleEnabled("ToggleTestOn"));
  EXPECT_FALSE(Oro::toggleEnabled("ToggleTestUnset"));
  Oro::toggleReset("ToggleTestOn");
  Oro::toggleReset("ToggleTestUnset");
  EXPECT_FALSE(Oro::toggleEnabled("ToggleTestOn"));
  EXPECT_TRUE(Oro::toggleEnabled("ToggleTestUnset"));

  for (const char* n : {"On", "One", "Off", "Junk", "Unset"}) {
    unsetenv((std::string("MVPN_TOGGLE_ToggleTest") + n).c_str());
    Oro::toggleReset(std::string("ToggleTest") + n);  // leave no cached value behind
  }
}

TEST(Toggle, OverridesReplaceTheCachedValue) {
  EXPECT_FALSE(Oro::toggleEnabled("MvpnGroupTylModel"));
  Oro::toggleOverride("MvpnGroupTylModel", true);
  EXPECT_TRUE(Oro::toggleEnabled("MvpnGroupTylModel"));
  Oro::toggleOverride("MvpnGroupTylModel", false);
  EXPECT_FALSE(Oro::toggleEnabled("MvpnGroupTylModel"));
  Oro::toggleReset("MvpnGroupTylModel");
}

}  // namespace

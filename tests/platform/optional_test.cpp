// Text form of optional values.
#include <gtest/gtest.h>

#include <string>

#include "platform/runtime/Optional.h"

namespace {

struct WithStrep {
  int v;
  std::string toStrep() const { return "vrf-" + std::to_string(v); }
};

TEST(OptionalStrep, UsesToStrepOrFmtAndPrintsNoneWhenAbsent) {
  EXPECT_EQ(Oro::optionalStrep(std::optional<WithStrep>(WithStrep{5})), "Optional(vrf-5)");
  EXPECT_EQ(Oro::optionalStrep(std::optional<WithStrep>()), "None");
  EXPECT_EQ(Oro::optionalStrep(std::optional<uint32_t>(16777215)), "Optional(16777215)");
  EXPECT_EQ(Oro::optionalStrep(std::optional<std::string>("bgp_")), "Optional(bgp_)");
  EXPECT_EQ(Oro::optionalStrep(std::optional<int>()), "None");
}

}  // namespace

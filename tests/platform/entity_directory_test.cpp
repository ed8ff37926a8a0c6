// The entity directory: creation by type name, arity checks, mounts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/runtime/EntityDirectory.h"
#include "platform/Error.h"

namespace {

struct Named : Oro::Entity {
  Named(std::string n, int* deaths) : name(std::move(n)), deaths_(deaths) {}
  ~Named() override {
    if (deaths_) ++*deaths_;
  }
  std::string_view typeName() const override { return "Test::Named"; }
  std::string name;
  int* deaths_;
};

struct Other : Oro::Entity {
  std::string_view typeName() const override { return "Test::Other"; }
};

class EntityDirectoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir.registerType("Test::Named", 1, [this](const std::vector<std::string>& args) {
      return Oro::Ptr<Oro::Entity>(new Named(args.empty() ? "default" : args[0], &deaths));
    });
    dir.registerType("Test::Other", 0,
                     [](const std::vector<std::string>&) { return Oro::makePtr<Other>(); });
  }
  Oro::EntityDirectory dir;
  int deaths = 0;
};

TEST_F(EntityDirectoryTest, CreatesByTypeNameAndChecksArguments) {
  auto e = dir.create("Test::Named", {"bgp"});
  ASSERT_TRUE(e);
  EXPECT_EQ(static_cast<Named*>(e.get())->name, "bgp");
  EXPECT_EQ(static_cast<Named*>(dir.create("Test::Named", {}).get())->name, "default");
  EXPECT_TRUE(dir.typeRegistered("Test::Other"));
  EXPECT_FALSE(dir.typeRegistered("Test::Missing"));
  using ::testing::StrEq;
  EXPECT_THAT(
      [&] {
        dir.create("Test::Named", {"a", "b"});
      },
      ::testing::ThrowsMessage<Oro::UnexpectedEntityArgumentsException>(
          StrEq("unexpected arguments creating Test::Named: 2 given, 1 expected")));
  EXPECT_THROW(dir.create("Test::Other", {"x"}), Oro::UnexpectedEntityArgumentsException);
  EXPECT_THAT([&] { dir.create("Test::Missing", {}); },
              ::testing::ThrowsMessage<Oro::Exception>(StrEq("unknown entity type Test::Missing")));
}

TEST_F(EntityDirectoryTest, MountsHoldEntitiesUntilUnmounted) {
  const std::string bgp = "routing/multicast/vpn/vrfStatus/bgp";
  const std::string evpn = "routing6/multicast/vpn/vrfStatus/evpn";
  EXPECT_TRUE(dir.mount(bgp, dir.create("Test::Named", {"bgp"})));
  EXPECT_TRUE(dir.mount(evpn, dir.create("Test::Named", {"evpn"})));
  EXPECT_EQ(dir.paths(), (std::vector<std::string>{bgp, evpn}));
  EXPECT_EQ(static_cast<Named*>(dir.lookup(bgp).get())->name, "bgp");
  EXPECT_FALSE(dir.lookup("routing/nothing"));
  EXPECT_EQ(deaths, 0);

  // Replacing a mount drops the directory's reference to the old entity.
  EXPECT_FALSE(dir.mount(bgp, dir.create("Test::Named", {"bgp2"})));
  EXPECT_EQ(deaths, 1);
  EXPECT_TRUE(dir.unmount(bgp));
  EXPECT_FALSE(dir.unmount(bgp));
  EXPECT_EQ(deaths, 2);
  EXPECT_EQ(dir.paths(), (std::vector<std::string>{evpn}));
}

TEST_F(EntityDirectoryTest, MountNewReusesAnEntityOfTheSameType) {
  const std::string path = "routing/multicast/vpn/intfStatus";
  auto first = dir.mountNew(path, "Test::Named", {"intf"});
  auto second = dir.mountNew(path, "Test::Named", {"ignored"});
  EXPECT_EQ(first, second);
  EXPECT_EQ(static_cast<Named*>(second.get())->name, "intf");
  EXPECT_THROW(dir.mountNew(path, "Test::Other", {}), Oro::Exception);
  EXPECT_THROW(dir.mountNew("routing/x", "Test::Missing", {}), Oro::Exception);
  EXPECT_FALSE(dir.lookup("routing/x"));
}

}  // namespace

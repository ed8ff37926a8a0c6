// Statistics counters: increments, rebinding of storage, registry listing.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>

#include "platform/Counter.h"

namespace {

std::vector<Oro::CounterSample> samplesNamed(const std::string& name) {
  auto all = Oro::CounterRegistry::global().list();
  std::vector<Oro::CounterSample> out;
  std::copy_if(all.begin(), all.end(), std::back_inserter(out),
               [&](const auto& s) { return s.name == name; });
  return out;
}

TEST(Counter, IncrementsAndKeepsTheValueAcrossStorageRebinding) {
  Oro::Counter c("mvpnVrfIs");
  EXPECT_EQ(c.value(), 0u);
  c.inc();
  c.inc(41);
  EXPECT_EQ(c.value(), 42u);

  // Storage in a "table header": the value is copied over and further increments land there.
  std::atomic<uint64_t> slot{999};
  c.storageIs(&slot);
  EXPECT_EQ(slot.load(), 42u);
  c.inc(uint64_t{1} << 40);
  EXPECT_EQ(slot.load(), 42u + (uint64_t{1} << 40));
  EXPECT_EQ(c.value(), slot.load());

  // Back to its own member: the value follows, the old slot keeps its last value.
  c.storageIs(nullptr);
  c.inc();
  EXPECT_EQ(c.value(), 43u + (uint64_t{1} << 40));
  EXPECT_EQ(slot.load(), 42u + (uint64_t{1} << 40));
}

TEST(CounterRegistry, ListsLiveCountersInConstructionOrderWithOwners) {
  const size_t before = Oro::CounterRegistry::global().size();
  auto a = std::make_unique<Oro::Counter>("regTestDel", "vrfStatus/bgp");
  auto b = std::make_unique<Oro::Counter>("regTestDel", "vrfStatus/evpn");
  auto c = std::make_unique<Oro::Counter>("regTestNotify");
  a->inc(3);
  b->inc(4);
  c->ownerIs("merged");
  EXPECT_EQ(Oro::CounterRegistry::global().size(), before + 3);
  EXPECT_EQ(samplesNamed("regTestDel"),
            (std::vector<Oro::CounterSample>{{"regTestDel", "vrfStatus/bgp", 3},
                                             {"regTestDel", "vrfStatus/evpn", 4}}));
  EXPECT_EQ(Oro::CounterRegistry::global().total("regTestDel"), 7u);
  EXPECT_EQ(samplesNamed("regTestNotify"),
            (std::vector<Oro::CounterSample>{{"regTestNotify", "merged", 0}}));

  // Removal from the middle, the head and the tail of the list.
  b.reset();
  EXPECT_EQ(samplesNamed("regTestDel"),
            (std::vector<Oro::CounterSample>{{"regTestDel", "vrfStatus/bgp", 3}}));
  a.reset();
  c.reset();
  EXPECT_TRUE(samplesNamed("regTestDel").empty());
  EXPECT_TRUE(samplesNamed("regTestNotify").empty());
  EXPECT_EQ(Oro::CounterRegistry::global().size(), before);
  Oro::Counter d("regTestAfter");
  EXPECT_EQ(samplesNamed("regTestAfter").size(), 1u);
}

TEST(CounterRegistry, PrintsOneLinePerCounter) {
  Oro::Counter a("printTestIs", "vrfStatus/bgp");
  Oro::Counter b("printTestNotify");
  a.inc(12);
  b.inc(7);
  char* buf = nullptr;
  size_t len = 0;
  FILE* f = open_memstream(&buf, &len);
  ASSERT_NE(f, nullptr);
  Oro::CounterRegistry::global().print(f);
  std::fclose(f);
  std::string text(buf, len);
  std::free(buf);
  EXPECT_NE(text.find("printTestIs [vrfStatus/bgp] 12\nprintTestNotify 7\n"), std::string::npos)
      << text;
}

// One writer, one reader on another thread: the reader sees monotonically growing values.
TEST(Counter, ReaderOnAnotherThreadSeesWholeValues) {
  Oro::Counter c("threadTest");
  std::atomic<bool> done{false};
  std::thread reader([&] {
    uint64_t last = 0;
    while (!done.load()) {
      uint64_t v = Oro::CounterRegistry::global().total("threadTest");
      EXPECT_GE(v, last);
      last = v;
    }
  });
  for (int i = 0; i < 100000; ++i) c.inc();
  done = true;
  reader.join();
  EXPECT_EQ(c.value(), 100000u);
}

}  // namespace

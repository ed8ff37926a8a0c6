// What the system tells about itself: trace levels, settings, sinks and start-up configuration
// from the environment; the dump printer (formatted lines, newline repair, duplicate and null
// reports); statistics counters (increments, rebinding of storage, registry listing).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/Counter.h"
#include "platform/DumpContext.h"
#include "platform/Error.h"
#include "platform/Trace.h"

namespace {

using ::testing::HasSubstr;

// A handle built during static initialisation, before main() runs.
Oro::TraceHandle gStaticHandle("StaticComp");

// Counts how often it is formatted, to prove disabled trace points format nothing.
struct Probe {
  int* formats;
};

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  return {std::istreambuf_iterator<char>(in), {}};
}

class TraceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Oro::traceDisableAll();
    sink.install();
  }
  void TearDown() override {
    sink.uninstall();
    Oro::traceDisableAll();
  }
  Oro::TraceMemorySink sink;
};

}  // namespace

template <>
struct fmt::formatter<Probe> : fmt::formatter<int> {
  auto format(const Probe& p, fmt::format_context& ctx) const {
    ++*p.formats;
    return fmt::formatter<int>::format(*p.formats, ctx);
  }
};

namespace {

TEST_F(TraceTest, LevelsFormatOnlyWhenEnabledByComponentStarOrSettingsString) {
  Oro::TraceHandle h("MergedMvpnVrfStatusSm");
  int formats = 0;
  ORO_TRACE(h, 3, "probe {}", Probe{&formats});
  EXPECT_EQ(formats, 0);
  EXPECT_TRUE(sink.lines().empty());

  Oro::traceEnable("MergedMvpnVrfStatusSm", 3, true);
  ORO_TRACE(h, 3, "probe {}", Probe{&formats});
  ORO_TRACE(h, 4, "other level {}", Probe{&formats});
  EXPECT_EQ(formats, 1);
  ASSERT_EQ(sink.lines().size(), 1u);
  EXPECT_EQ(sink.lines()[0], (Oro::TraceMemorySink::Line{"MergedMvpnVrfStatusSm", 3, "probe 1"}));

  Oro::traceEnable("MergedMvpnVrfStatusSm", 3, false);
  ORO_TRACE(h, 3, "probe {}", Probe{&formats});
  EXPECT_EQ(formats, 1);

  // The star applies to existing and future handles; later settings win.
  Oro::TraceHandle a("A");
  Oro::traceEnable("*", 5, true);
  Oro::TraceHandle b("B");
  EXPECT_TRUE(a.enabled(5));
  EXPECT_TRUE(b.enabled(5));
  EXPECT_TRUE(gStaticHandle.enabled(5));

  // A component setting overrides the star for that component only...
  Oro::traceEnable("A", 5, false);
  EXPECT_FALSE(a.enabled(5));
  EXPECT_TRUE(b.enabled(5));
  Oro::TraceHandle a2("A");
  EXPECT_FALSE(a2.enabled(5));
  // ...until a later star setting for the same level.
  Oro::traceEnable("*", 5, true);
  EXPECT_TRUE(a.enabled(5));
  Oro::traceEnable("B", 1, true);
  Oro::traceEnable("*", 5, false);
  EXPECT_FALSE(b.enabled(5));
  EXPECT_TRUE(b.enabled(1));
  EXPECT_FALSE(a.enabled(1));

  // Settings strings enable components, levels and ranges.
  Oro::TraceHandle c1("Comp1"), c2("Comp2"), other("Other");
  EXPECT_TRUE(Oro::traceSettingsApply("Comp1/0-3,Comp2/5,*/0"));
  for (int l = 0; l <= 3; ++l) EXPECT_TRUE(c1.enabled(l)) << l;
  EXPECT_FALSE(c1.enabled(4));
  EXPECT_TRUE(c2.enabled(5));
  EXPECT_TRUE(c2.enabled(0));
  EXPECT_FALSE(c2.enabled(4));
  EXPECT_TRUE(other.enabled(0));
  EXPECT_FALSE(other.enabled(1));

  // A bare level list continues the previous entry; bad entries are skipped, good ones kept.
  Oro::traceDisableAll();
  EXPECT_FALSE(Oro::traceSettingsApply("Comp1/7,9, Comp2/x ,/3,Comp2/4-2,Other/6, 12"));
  EXPECT_TRUE(c1.enabled(7));
  EXPECT_TRUE(c1.enabled(9));
  EXPECT_FALSE(c2.enabled(3));
  EXPECT_FALSE(c2.enabled(4));
  EXPECT_TRUE(other.enabled(6));
}

TEST_F(TraceTest, MemorySinksStackAndUnlinkInAnyOrderAndAFileSinkWritesLines) {
  Oro::TraceHandle h("Comp");
  Oro::traceEnable("Comp", 2, true);
  {
    Oro::TraceMemorySink inner, innermost;
    inner.install();
    innermost.install();
    ORO_TRACE(h, 2, "one {}", 1);
    inner.uninstall();  // not the top one: the chain stays intact
    ORO_TRACE(h, 2, "two");
    innermost.uninstall();
    EXPECT_EQ(innermost.messages(), (std::vector<std::string>{"one 1", "two"}));
    EXPECT_TRUE(inner.messages().empty());
  }
  ORO_TRACE(h, 2, "three");
  EXPECT_EQ(sink.messages(), (std::vector<std::string>{"three"}));
  sink.clear();
  EXPECT_TRUE(sink.lines().empty());

  // A file sink writes component, level and message lines.
  sink.uninstall();
  std::string path = ::testing::TempDir() + "trace_file_test.txt";
  std::remove(path.c_str());
  Oro::TraceHandle fh("FileComp");
  Oro::traceEnable("FileComp", 7, true);
  Oro::traceFileIs(path);
  ORO_TRACE(fh, 7, "Line {}: vrf {}", 15, 5);
  Oro::traceFileIs("");
  ORO_TRACE(fh, 7, "to stderr");
  EXPECT_EQ(readFile(path), "FileComp/7: Line 15: vrf 5\n");
  EXPECT_THROW(Oro::traceFileIs("/nonexistent-dir/x/trace.txt"), Oro::Exception);
}

// The environment is read once, at the first use of the facility: check it in a fresh
// process that starts with the variables set.
TEST(TraceEnvDeathTest, SettingsAndFileComeFromTheEnvironmentAtStartup) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  std::string path = ::testing::TempDir() + "trace_env_test.txt";
  // The child re-runs this body with the file already open: only the parent clears it.
  if (!std::getenv("MVPN_TRACE")) std::remove(path.c_str());
  setenv("MVPN_TRACE", "EnvComp/2-3,*/8", 1);
  setenv("MVPN_TRACE_FILE", path.c_str(), 1);
  EXPECT_EXIT(
      {
        Oro::TraceHandle h("EnvComp");
        bool ok = h.enabled(2) && h.enabled(3) && h.enabled(8) && !h.enabled(4) &&
                  gStaticHandle.enabled(8) && !gStaticHandle.enabled(2);
        ORO_TRACE(h, 3, "from {}", "env");
        std::exit(ok ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
  unsetenv("MVPN_TRACE");
  unsetenv("MVPN_TRACE_FILE");
  EXPECT_EQ(readFile(path), "EnvComp/3: from env\n");
}

TEST(DumpContext, PrintsLinesAndReportsDuplicatesAndNullsInMemoryAndToAFile) {
  Oro::DumpContext dc;
  dc.print("MvpnVrfStatus #%u:\n", 2u);
  dc.print("%*cVRF %s\n", 2, ' ', "5");
  dc.print("%*cVRF %s\n", 4, ' ', "16777215");
  EXPECT_EQ(dc.str(), "MvpnVrfStatus #2:\n  VRF 5\n    VRF 16777215\n");

  // Lines longer than the formatting fast path come out whole.
  const std::string longText(1000, 'a');
  Oro::DumpContext big;
  big.print("%*c%s|\n", 3, ' ', longText.c_str());
  EXPECT_EQ(big.str(), "   " + longText + "|\n");

  // ensureNewline completes an unfinished line only.
  Oro::DumpContext line;
  line.ensureNewline();
  EXPECT_EQ(line.str(), "");
  line.print("%s", "");
  line.ensureNewline();
  EXPECT_EQ(line.str(), "");
  line.print("partial");
  line.ensureNewline();
  line.ensureNewline();
  EXPECT_EQ(line.str(), "partial\n");

  // Duplicates and null children are reported.
  Oro::DumpContext marks;
  int a = 0, b = 0;
  EXPECT_TRUE(marks.markPrinted(&a, 2, "MvpnVrfRouteStatus"));
  EXPECT_TRUE(marks.markPrinted(&b, 2, "MvpnVrfRouteStatus"));
  EXPECT_EQ(marks.str(), "");
  EXPECT_FALSE(marks.markPrinted(&a, 4, "MvpnGroup"));
  EXPECT_FALSE(marks.markPrinted(&a, 0, "MvpnRouteStatus"));
  marks.reportNull(2, "MvpnVrfRouteStatus");
  marks.reportNull(0, "MvpnRouteStatus");
  EXPECT_EQ(marks.str(),
            "    MvpnGroup (already printed)\n"
            "MvpnRouteStatus (already printed)\n"
            "  MvpnVrfRouteStatus (null)\n"
            "MvpnRouteStatus (null)\n");
  // Marks belong to one dump: a new context prints the object again.
  Oro::DumpContext next;
  EXPECT_TRUE(next.markPrinted(&a, 0, "MvpnGroup"));

  char* buf = nullptr;
  size_t len = 0;
  FILE* f = open_memstream(&buf, &len);
  ASSERT_NE(f, nullptr);
  {
    Oro::DumpContext file(f);
    file.print("%*cVRF ID: %u", 2, ' ', 5u);
    file.ensureNewline();
    file.reportNull(4, "MvpnGroup");
    EXPECT_EQ(file.str(), "");
    EXPECT_EQ(file.size(), 33u);
  }
  std::fclose(f);
  EXPECT_EQ(std::string(buf, len), "  VRF ID: 5\n    MvpnGroup (null)\n");
  std::free(buf);
}

std::vector<Oro::CounterSample> samplesNamed(const std::string& name) {
  auto all = Oro::CounterRegistry::global().list();
  std::erase_if(all, [&](const auto& s) { return s.name != name; });
  return all;
}

TEST(Counter, IncrementsKeepsItsValueAcrossRebindingAndIsReadWholeElsewhere) {
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

  // One writer, one reader on another thread: the reader sees monotonically growing values.
  Oro::Counter threaded("threadTest");
  std::atomic<bool> done{false};
  std::thread reader([&] {
    uint64_t last = 0;
    while (!done.load()) {
      uint64_t v = Oro::CounterRegistry::global().total("threadTest");
      EXPECT_GE(v, last);
      last = v;
    }
  });
  for (int i = 0; i < 100000; ++i) threaded.inc();
  done = true;
  reader.join();
  EXPECT_EQ(threaded.value(), 100000u);
}

TEST(CounterRegistry, ListsLiveCountersInConstructionOrderWithOwnersAndPrintsThem) {
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

  // Printed one line per counter.
  Oro::Counter is("printTestIs", "vrfStatus/bgp");
  Oro::Counter notify("printTestNotify");
  is.inc(12);
  notify.inc(7);
  char* buf = nullptr;
  size_t len = 0;
  FILE* f = open_memstream(&buf, &len);
  ASSERT_NE(f, nullptr);
  Oro::CounterRegistry::global().print(f);
  std::fclose(f);
  std::string text(buf, len);
  std::free(buf);
  EXPECT_THAT(text, HasSubstr("printTestIs [vrfStatus/bgp] 12\nprintTestNotify 7\n"));
}

}  // namespace

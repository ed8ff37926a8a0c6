// The dump printer: formatted lines, newline repair, duplicate and null reports.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/DumpContext.h"

namespace {

TEST(DumpContext, PrintsIndentedLinesIntoAString) {
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
}

TEST(DumpContext, EnsureNewlineOnlyCompletesAnUnfinishedLine) {
  Oro::DumpContext dc;
  dc.ensureNewline();
  EXPECT_EQ(dc.str(), "");
  dc.print("%s", "");
  dc.ensureNewline();
  EXPECT_EQ(dc.str(), "");
  dc.print("partial");
  dc.ensureNewline();
  dc.ensureNewline();
  EXPECT_EQ(dc.str(), "partial\n");
}

TEST(DumpContext, ReportsDuplicatesAndNullChildren) {
  Oro::DumpContext dc;
  int a = 0, b = 0;
  EXPECT_TRUE(dc.markPrinted(&a, 2, "MvpnVrfRouteStatus"));
  EXPECT_TRUE(dc.markPrinted(&b, 2, "MvpnVrfRouteStatus"));
  EXPECT_EQ(dc.str(), "");
  EXPECT_FALSE(dc.markPrinted(&a, 4, "MvpnGroup"));
  EXPECT_FALSE(dc.markPrinted(&a, 0, "MvpnRouteStatus"));
  dc.reportNull(2, "MvpnVrfRouteStatus");
  dc.reportNull(0, "MvpnRouteStatus");
  EXPECT_EQ(dc.str(),
            "    MvpnGroup (already printed)\n"
            "MvpnRouteStatus (already printed)\n"
            "  MvpnVrfRouteStatus (null)\n"
            "MvpnRouteStatus (null)\n");
  // Marks belong to one dump: a new context prints the object again.
  Oro::DumpContext next;
  EXPECT_TRUE(next.markPrinted(&a, 0, "MvpnGroup"));
}

TEST(DumpContext, WritesToAFile) {
  char* buf = nullptr;
  size_t len = 0;
  FILE* f = open_memstream(&buf, &len);
  ASSERT_NE(f, nullptr);
  {
    Oro::DumpContext dc(f);
    dc.print("%*cVRF ID: %u", 2, ' ', 5u);
    dc.ensureNewline();
    dc.reportNull(4, "MvpnGroup");
    EXPECT_EQ(dc.str(), "");
    EXPECT_EQ(dc.size(), 33u);
  }
  std::fclose(f);
  EXPECT_EQ(std::string(buf, len), "  VRF ID: 5\n    MvpnGroup (null)\n");
  std::free(buf);
}

}  // namespace

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "hds/common/HDSArrayModels.h"
#include "hds/common/HDSRecords.h"
#include "hds/common/HDSText.h"

namespace {

using hds::text::LastLine;
using hds::text::Separator;
using Strings = std::vector<std::string>;

Strings strings(const std::vector<std::string_view>& views) { return {views.begin(), views.end()}; }

TEST(Text, LinesHandleCrLfAndTheUnterminatedLastLine) {
  EXPECT_EQ(strings(hds::text::splitLines("")), Strings{});
  EXPECT_EQ(strings(hds::text::splitLines("a\r\n\nb")), (Strings{"a", "", "b"}));
  EXPECT_EQ(strings(hds::text::splitLines("a\rb\n")), Strings{"a\rb"});
  EXPECT_EQ(strings(hds::text::splitLines("a\nb", LastLine::Drop)), Strings{"a"});
  EXPECT_EQ(strings(hds::text::splitLines("a\nb\r\n", LastLine::Drop)), (Strings{"a", "b"}));
}

TEST(Text, ColumnsSplitAtWhiteSpaceOrAtBlanksOnly) {
  const std::string line = "  CL1-A \t 0  412345\r";
  EXPECT_EQ(strings(hds::text::splitColumns(line)), (Strings{"CL1-A", "0", "412345"}));
  EXPECT_EQ(hds::text::column(line, 2), "412345");
  EXPECT_EQ(hds::text::column(line, 3), "");
  EXPECT_EQ(hds::text::skipColumns(line, 1), "0  412345\r");
  EXPECT_EQ(hds::text::skipColumns(line, 5), "");
  EXPECT_EQ(hds::text::trim(line), "CL1-A \t 0  412345");
  EXPECT_EQ(strings(hds::text::splitColumns("a\tb  c\nd", Separator::Blank)),
            (Strings{"a\tb", "c\nd"}));
  const char* p = hds::text::skipValue(hds::text::skipSeparators(" ab\tcd"));
  EXPECT_STREQ(p, "\tcd");
  EXPECT_EQ(hds::text::skipSeparators(static_cast<const char*>(nullptr)), nullptr);
}

TEST(Records, DefaultsAndInitialize) {
  hdsCopyGroup_t copyGroup;
  EXPECT_EQ(copyGroup.mirrorUnit, -1);
  EXPECT_EQ(copyGroup.journalId, -1);

  hdsLdev_t ldev;
  ldev.serialNumber = ldev.label = ldev.deviceName = ldev.virtualLdevId = ldev.remoteSerial = "x";
  ldev.capacity = 1u << 30;
  ldev.lunPaths.push_back(hdsLun_t{"CL1-A", "3", "0", "hg", "4660"});
  ldev.callerList = {"x"};
  ldev.mpBladeId = 3;
  ldev.isCloneTarget = true;
  const hdsLdev_t copy = ldev;
  ldev.initialize();
  EXPECT_EQ(
      ldev.serialNumber + ldev.label + ldev.deviceName + ldev.virtualLdevId + ldev.remoteSerial,
      "");
  EXPECT_EQ(ldev.capacity, 0u);
  EXPECT_TRUE(ldev.lunPaths.empty() && ldev.callerList.empty());
  EXPECT_EQ(ldev.mpBladeId, 0);
  EXPECT_FALSE(ldev.isCloneTarget);
  EXPECT_EQ(copy.lunPaths.at(0).ldevId, "4660");

  hdsPort_t port;
  port.hostGroups.push_back(hdsHostGroup_t{"3", "hg", "", {"10000000c9aabbcc"}});
  const hdsPort_t portCopy = port;
  port.hostGroups[0].wwns[0] = "changed";
  EXPECT_EQ(portCopy.hostGroups.at(0).wwns.at(0), "10000000c9aabbcc");
}

TEST(ArrayModels, ExactCaseSensitiveLookupWithTheLargestRangeAsFallback) {
  EXPECT_EQ(getMaxLdevIdForArrayType("M850S2F"), 32767);
  EXPECT_EQ(getMaxLdevIdForArrayType("M8S"), 2047);
  EXPECT_EQ(getMaxLdevIdForArrayType("M850M3"), 49151);
  EXPECT_EQ(getMaxLdevIdForArrayType("R9"), 65279);
  for (const char* unknown : {"r9", "M850S", "", "XYZ"}) {
    EXPECT_EQ(getMaxLdevIdForArrayType(unknown), 65279) << unknown;
  }
  for (const HDSArrayTypes& row : HDSArrayMaxLdevTable) {
    EXPECT_EQ(getMaxLdevIdForArrayType(row.typeCode), row.maxLdevId) << row.typeCode;
  }
}

}  // namespace

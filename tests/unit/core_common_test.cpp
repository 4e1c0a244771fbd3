#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "hds/common/HDSArrayModels.h"
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

// Nothing, or a header alone, is an empty table; a line of garbage or a message is not.
TEST(Text, OnlyNothingOrAHeaderAloneIsAnEmptyTable) {
  EXPECT_TRUE(hds::text::isEmptyTable("", "PORT"));
  EXPECT_TRUE(hds::text::isEmptyTable(" \r\n\n", "PORT"));
  EXPECT_TRUE(hds::text::isEmptyTable("\nLDEV_GROUP   Serial#\n", "ldev_group"));
  EXPECT_FALSE(hds::text::isEmptyTable("garbage\n", "PORT"));
  EXPECT_FALSE(hds::text::isEmptyTable("PORTS\n", "PORT"));
  EXPECT_FALSE(hds::text::isEmptyTable("PORT GID\nnot a row\n", "PORT"));
}

TEST(ArrayModels, ExactCaseSensitiveLookupWithTheLargestRangeAsFallback) {
  EXPECT_EQ(getMaxLdevIdForArrayType("M850S2F"), 32767);
  EXPECT_EQ(getMaxLdevIdForArrayType("M8S"), 2047);
  EXPECT_EQ(getMaxLdevIdForArrayType("M850M3"), 49151);
  EXPECT_EQ(getMaxLdevIdForArrayType("R9"), 65279);
  for (const char* unknown : {"r9", "M850S", "", "XYZ"}) {
    EXPECT_EQ(getMaxLdevIdForArrayType(unknown), 65279) << unknown;
  }
}

}  // namespace

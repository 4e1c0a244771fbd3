#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "hds/common/HDSArrayModels.h"
#include "hds/common/internal/HDSText.h"

namespace {

using hds::text::LastLine;
using hds::text::Separator;
using Strings = std::vector<std::string>;

Strings strings(const std::vector<std::string_view>& views) { return {views.begin(), views.end()}; }

TEST(Text, LinesAndColumnsHandleCrLfTabsAndTheUnterminatedLastLine) {
  EXPECT_EQ(strings(hds::text::splitLines("")), Strings{});
  EXPECT_EQ(strings(hds::text::splitLines("a\r\n\nb")), (Strings{"a", "", "b"}));
  EXPECT_EQ(strings(hds::text::splitLines("a\rb\n")), Strings{"a\rb"});
  EXPECT_EQ(strings(hds::text::splitLines("a\nb", LastLine::Drop)), Strings{"a"});
  EXPECT_EQ(strings(hds::text::splitLines("a\nb\r\n", LastLine::Drop)), (Strings{"a", "b"}));
  EXPECT_EQ(strings(hds::text::dataLines("header")), Strings{});
  EXPECT_EQ(strings(hds::text::dataLines("header\r\n\nb\r\nc")), (Strings{"", "b", "c"}));
  EXPECT_EQ(strings(hds::text::dataLines("header\nb\nc", LastLine::Drop)), Strings{"b"});
  // Columns split at white space, or at blanks only.
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

// Listings are fed from anywhere: a number column holding garbage, a sign or more digits than any
// integer has reads as atoi would read it, but never overflows.
TEST(Text, NumbersReadLikeAtoiWithoutOverflow) {
  EXPECT_EQ(hds::text::toInt(" \t-42abc"), -42);
  EXPECT_EQ(hds::text::toInt("+7"), 7);
  EXPECT_EQ(hds::text::toInt("x1"), 0);
  EXPECT_EQ(hds::text::toInt(""), 0);
  EXPECT_EQ(hds::text::toInt64("4294967296"), 4294967296);
  EXPECT_EQ(hds::text::toInt("4294967296"), INT32_MAX);
  EXPECT_EQ(hds::text::toInt("-4294967296"), INT32_MIN);
  const int64_t huge = hds::text::toInt64(std::string(400, '9'));
  EXPECT_GT(huge, int64_t{1} << 59);
  EXPECT_EQ(hds::text::toInt64("-" + std::string(400, '9')), -huge);
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
  for (const char* unknown : {"r9", "M850S", "", "XYZ"}) {
    EXPECT_EQ(getMaxLdevIdForArrayType(unknown), 65279) << unknown;
  }
}

}  // namespace

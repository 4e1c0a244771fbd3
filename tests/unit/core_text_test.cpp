#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "hds/common/HDSText.h"
#include "hds/handler/CommandHandler.h"
#include "tests/support/RecordingSnapInfo.h"
#include "tests/support/TestEnv.h"

using hds::text::LastLine;
using hds::text::Separator;

namespace {

std::vector<std::string> strings(const std::vector<std::string_view>& views) {
  return std::vector<std::string>(views.begin(), views.end());
}

using Lines = std::vector<std::string>;

TEST(TextLines, EndingsAndTheLastLine) {
  EXPECT_EQ(strings(hds::text::splitLines("")), Lines{});
  EXPECT_EQ(strings(hds::text::splitLines("\n")), Lines{""});
  EXPECT_EQ(strings(hds::text::splitLines("a\nb\n")), (Lines{"a", "b"}));
  EXPECT_EQ(strings(hds::text::splitLines("a\r\nb\r\n")), (Lines{"a", "b"}));
  EXPECT_EQ(strings(hds::text::splitLines("a\n\nb")), (Lines{"a", "", "b"}));
  EXPECT_EQ(strings(hds::text::splitLines("a\nb")), (Lines{"a", "b"}));
  EXPECT_EQ(strings(hds::text::splitLines("a\nb", LastLine::Drop)), Lines{"a"});
  EXPECT_EQ(strings(hds::text::splitLines("a\nb\r\n", LastLine::Drop)), (Lines{"a", "b"}));
  EXPECT_EQ(strings(hds::text::splitLines("only", LastLine::Drop)), Lines{});
  // A lone \r inside a line is data, not an ending.
  EXPECT_EQ(strings(hds::text::splitLines("a\rb\n")), Lines{"a\rb"});
}

TEST(TextColumns, SplitPickAndSkip) {
  const std::string line = "  CL1-A \t 0  412345\tOPEN-V \r";
  EXPECT_EQ(strings(hds::text::splitColumns(line)), (Lines{"CL1-A", "0", "412345", "OPEN-V"}));
  EXPECT_EQ(strings(hds::text::splitColumns("")), Lines{});
  EXPECT_EQ(strings(hds::text::splitColumns(" \t ")), Lines{});

  EXPECT_EQ(hds::text::column(line, 0), "CL1-A");
  EXPECT_EQ(hds::text::column(line, 2), "412345");
  EXPECT_EQ(hds::text::column(line, 4), "");

  EXPECT_EQ(hds::text::skipColumns(line, 0), "CL1-A \t 0  412345\tOPEN-V \r");
  EXPECT_EQ(hds::text::skipColumns(line, 2), "412345\tOPEN-V \r");
  EXPECT_EQ(hds::text::skipColumns(line, 9), "");
  EXPECT_EQ(hds::text::trim(line), "CL1-A \t 0  412345\tOPEN-V");
}

TEST(TextColumns, BlankOnlySeparatorKeepsTabsAndNewlinesInValues) {
  const std::string text = "a\tb  c\nd";
  EXPECT_EQ(strings(hds::text::splitColumns(text, Separator::Blank)), (Lines{"a\tb", "c\nd"}));
  size_t pos = 0;
  EXPECT_EQ(hds::text::nextColumn(text, pos, Separator::Blank), "a\tb");
  EXPECT_EQ(pos, 3u);
  EXPECT_EQ(hds::text::nextColumn(text, pos, Separator::Blank), "c\nd");
  EXPECT_EQ(pos, text.size());
  EXPECT_EQ(hds::text::nextColumn(text, pos, Separator::Blank), "");
}

TEST(TextColumns, PointerScansStopAtTheEnd) {
  const char* text = " ab\tcd";
  const char* p = hds::text::skipSeparators(text);
  EXPECT_EQ(p, text + 1);
  p = hds::text::skipValue(p);
  EXPECT_EQ(p, text + 3);
  p = hds::text::skipValue(hds::text::skipSeparators(p));
  EXPECT_EQ(*p, '\0');
  EXPECT_EQ(hds::text::skipSeparators(static_cast<const char*>(nullptr)), nullptr);
}

// The handler's own scanners, on a handler whose initialisation fails at once (no CCI directory):
// they need no tools and touch no per-process cache.
class HandlerScanners : public ::testing::Test {
 protected:
  void SetUp() override {
    env.writeSettings("[iHarbor]\nsVTHDSHorcmDirectory=" + env.root() + "/missing\n");
    handler = std::make_unique<CommandHandler>(log, HDSCLIInitParam{});
  }
  hdstest::TestEnv env;
  hdstest::RecordingSnapInfo log;
  std::unique_ptr<CommandHandler> handler;
};

TEST_F(HandlerScanners, NextValueSplitsAtBlanksOnly) {
  const std::string output = "  ab  cd";
  unsigned long pos = 0;
  std::string value;
  ASSERT_TRUE(handler->getNextValueFromOutput(output, pos, value, "TEST "));
  EXPECT_EQ(value, "ab");
  EXPECT_EQ(pos, 4u);
  ASSERT_TRUE(handler->getNextValueFromOutput(output, pos, value, "TEST "));
  EXPECT_EQ(value, "cd");
  EXPECT_EQ(pos, 8u);
  EXPECT_FALSE(handler->getNextValueFromOutput(output, pos, value, "TEST "));
  EXPECT_TRUE(log.contains("Reached end of output [  ab  cd]. Index [8].", 2));

  pos = std::string::npos;
  EXPECT_FALSE(handler->getNextValueFromOutput(output, pos, value, "TEST "));

  const std::string tabbed = "x\ty z";
  pos = 0;
  ASSERT_TRUE(handler->getNextValueFromOutput(tabbed, pos, value, "TEST "));
  EXPECT_EQ(value, "x\ty");
}

TEST_F(HandlerScanners, ColumnSkippingOverAnyWhiteSpace) {
  const char* line = " \tcol1  col2\tcol3\n";
  const char* p = line;
  CommandHandler::skipColumns(p, 0);
  EXPECT_STREQ(p, "col1  col2\tcol3\n");
  CommandHandler::skipColumns(p, 2);
  EXPECT_STREQ(p, "col3\n");
  EXPECT_EQ(CommandHandler::skipToSpace(p), "col3");
  CommandHandler::skipSpace(p);
  EXPECT_EQ(*p, '\0');
  CommandHandler::skipColumns(p, 3);
  EXPECT_EQ(*p, '\0');

  char buffer[] = "a b";
  char* q = buffer;
  EXPECT_EQ(CommandHandler::skipToSpace(q), "a");
  CommandHandler::skipSpace(q);
  EXPECT_EQ(q, buffer + 2);

  const char* none = nullptr;
  CommandHandler::skipSpace(none);
  EXPECT_EQ(none, nullptr);
}

}  // namespace

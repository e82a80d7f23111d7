// formatDump: the layout of a state dump, and that it changes nothing but whitespace outside
// quoted text. The command-line tests lay out the dump of a whole simulated DAL tree.
#include "DumpFormat.h"

#include <gtest/gtest.h>

#include <string>

namespace simtool {
namespace {

struct LayoutCase {
  const char* what;
  const char* dump;
  const char* laidOut;
};

// Names the case in test listings, instead of its bytes.
void PrintTo(const LayoutCase& c, std::ostream* os) { *os << c.what; }

class DumpFormatTest : public ::testing::TestWithParam<LayoutCase> {};

// Each expected layout differs from its dump only by blanks outside quoted text.
TEST_P(DumpFormatTest, LaysOutOneKeyPerLineAndKeepsTheText) {
  EXPECT_EQ(formatDump(GetParam().dump), GetParam().laidOut);
}

INSTANTIATE_TEST_SUITE_P(
    Dumps, DumpFormatTest,
    ::testing::Values(LayoutCase{"QuotedTextKeepsItsBracesCommasAndQuotes",
                                 "'e':'x, {y}','f':\"it's }\",'g':'a\\', {',",
                                 "'e':'x, {y}',\n'f':\"it's }\",\n'g':'a\\', {',\n"},
                      LayoutCase{"CallsStayOnOneLine",
                                 "'t':Value('Zorvek::CmdIndexTuple', ** {'startingCmdIndex': 1, "
                                 "'endingCmdIndex': 5}),'u':2,",
                                 "'t':Value('Zorvek::CmdIndexTuple', ** {'startingCmdIndex': 1, "
                                 "'endingCmdIndex': 5}),\n'u':2,\n"},
                      LayoutCase{"BlanksAtLineStartsAndEndsGo", "'a': {  'b':1,  }, 'c':[1, 2],",
                                 "'a': {\n  'b':1,\n},\n'c':[\n  1,\n  2\n],\n"}),
    [](const auto& info) { return std::string(info.param.what); });

}  // namespace
}  // namespace simtool

// formatDump: the layout of a state dump, and that it changes nothing but whitespace outside
// quoted text, on hand-written dumps and on the dump of a whole simulated DAL tree.
#include "DumpFormat.h"

#include <gtest/gtest.h>

#include "sim/SimSwitch.h"

namespace simtool {
namespace {

// The dump with every blank outside quoted text removed: what a reader of the dictionary
// body sees, whatever the layout.
std::string withoutLayout(const std::string& dump) {
  std::string s;
  char quote = 0;
  bool escaped = false;
  for (char c : dump) {
    if (quote) {
      if (escaped)
        escaped = false;
      else if (c == '\\')
        escaped = true;
      else if (c == quote)
        quote = 0;
    } else if (c == '\'' || c == '"') {
      quote = c;
    } else if (std::isspace(static_cast<unsigned char>(c))) {
      continue;
    }
    s += c;
  }
  return s;
}

struct LayoutCase {
  const char* what;
  const char* dump;
  const char* laidOut;
};

// Names the case in test listings, instead of its bytes.
void PrintTo(const LayoutCase& c, std::ostream* os) { *os << c.what; }

class DumpFormatTest : public ::testing::TestWithParam<LayoutCase> {};

TEST_P(DumpFormatTest, LaysOutOneKeyPerLineAndKeepsTheText) {
  const std::string laidOut = formatDump(GetParam().dump);
  EXPECT_EQ(laidOut, GetParam().laidOut);
  EXPECT_EQ(withoutLayout(laidOut), withoutLayout(GetParam().dump));
}

INSTANTIATE_TEST_SUITE_P(
    Dumps, DumpFormatTest,
    ::testing::Values(LayoutCase{"NestedGroups", "'a':1,'b': {'c':True,'d': {},},",
                                 "'a':1,\n'b': {\n  'c':True,\n  'd': {},\n},\n"},
                      LayoutCase{"QuotedTextKeepsItsBracesCommasAndQuotes",
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

TEST(DumpFormatSwitchTest, DumpOfASimulatedDalTreeKeepsItsText) {
  sim::SimSwitch sw(sim::Topology::embeddedDefault());
  const Kel::Ptr<Zorvek::DemuxDal> dal = sw.buildDal();
  const std::string dump = stateDump(*dal);
  ASSERT_NE(dump.find("'remoteDals': {"), std::string::npos);
  const std::string laidOut = formatDump(dump);
  EXPECT_EQ(withoutLayout(laidOut), withoutLayout(dump));
  EXPECT_NE(laidOut.find("\n'remoteDals': {\n  '"), std::string::npos);
  EXPECT_NE(laidOut.find("\n  'name':'SchanRequesterDal',\n"), std::string::npos);
}

}  // namespace
}  // namespace simtool

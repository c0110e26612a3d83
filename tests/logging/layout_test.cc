// The log line of SimpleLayout and the priority filter chain.
#include <thread>

#include "log_test_util.h"
#include "logging/priority_filter.h"
#include "logging/simple_layout.h"

namespace glidewell {
namespace {

using testing_log::makeTime;
using testing_log::ScopedEnv;
using testing_log::TestEnv;

SimpleLayout* configured(SimpleLayout* layout, const LogSettings& settings) {
  for (const auto& s : settings) layout->setSetting(s.first, s.second);
  layout->configure();
  return layout;
}

class SimpleLayoutTest : public ::testing::Test {
 protected:
  SimpleLayoutTest() : scoped_(&env_) { env_.fixedTime = makeTime(7, 3, 9, 4); }

  std::string line(const SimpleLayout& layout, LogPriority p, const std::string& text,
                   const LogPropertyList* properties = nullptr) {
    return layout.format(LoggingEvent(&root_, text, p, properties));
  }

  TestEnv env_;
  ScopedEnv scoped_;
  Logger root_{Logger::kRoot, "R"};
};

TEST_F(SimpleLayoutTest, EachColumnHasItsExactForm) {
  SimpleLayout none;
  EXPECT_EQ(line(none, 700, "T"), "R: -> T");  // never configured: path and text only

  SimpleLayout priorities;
  configured(&priorities, {{"includePriorities", "true"}});
  EXPECT_EQ(line(priorities, 700, "T"), "(Error) R: -> T");
  EXPECT_EQ(line(priorities, 503, "T"), "(Alert+3) R: -> T");

  SimpleLayout time;
  configured(&time, {{"includeTime", "1"}, {"includeTime/timeformat", "%ms"}});
  EXPECT_EQ(line(time, 700, "T"), "(07:03:09.4)R: -> T");
  env_.fixedTime = makeTime(23, 59, 0, 50);
  EXPECT_EQ(line(time, 700, "T"), "(23:59:00.50)R: -> T");
}

TEST_F(SimpleLayoutTest, AllColumnsTogetherGiveTheStartBannerLine) {
  env_.fixedTime = makeTime(9, 45, 2, 17);
  SimpleLayout all;
  configured(&all, {{"includeTime", "true"},
                    {"includeTime/timeformat", "%ms"},
                    {"includeThread", "true"},
                    {"includePriorities", "true"},
                    {"includeProperties", "true"}});
  LogPropertyList props{LogProperty("Version", "1.06m")};
  std::string text;
  std::thread t([&] {
    Logger main(Logger::kRoot, "main");
    setThreadName("MainThread");
    text = all.format(LoggingEvent(&main, "Log started", 500, &props));
  });
  t.join();
  EXPECT_EQ(text, "(09:45:02.17)(MainThread)(Alert) main: -> Log started\nVersion: 1.06m\n");
}

TEST_F(SimpleLayoutTest, PropertiesFollowIndentedOneSpacePerLevel) {
  SimpleLayout layout;
  configured(&layout, {{"includeProperties", "true"}});
  LogProperty b("B", 2);
  b << (LogProperty("D", 3) << LogProperty("E", "deep"));
  LogPropertyList props{LogProperty("A", 1), b};
  EXPECT_EQ(line(layout, 200, "T", &props), "R: -> T\nA: 1\nB: 2\n D: 3\n  E: deep\n");
  LogPropertyList empty;
  EXPECT_EQ(line(layout, 200, "T", &empty), "R: -> T");
  EXPECT_EQ(line(layout, 200, "T", nullptr), "R: -> T");

  SimpleLayout without;
  configured(&without, {{"includeProperties", "false"}});
  EXPECT_EQ(line(without, 200, "T", &props), "R: -> T");
}

TEST_F(SimpleLayoutTest, AThreadThatNeverRegisteredHasNoThreadColumn) {
  SimpleLayout layout;
  configured(&layout, {{"includeThread", "true"}});
  std::string text;
  std::thread t([&] { text = line(layout, 100, "T"); });
  t.join();
  EXPECT_EQ(text, "R: -> T");
}

TEST_F(SimpleLayoutTest, TimeFormatIsReadOnlyWhenTimeIsOn) {
  SimpleLayout layout;
  configured(&layout, {{"includeTime", "yes"}, {"includeTime/timeformat", "%ms"}});
  EXPECT_EQ(line(layout, 100, "T"), "R: -> T");
  EXPECT_EQ(layout.settings().count("includeTime/timeformat"), 1u);

  SimpleLayout defaults;
  configured(&defaults, {{"includeTime", "true"}});
  EXPECT_EQ(defaults.settings().at("includeTime/timeformat"), "%X");  // the default is recorded
  EXPECT_EQ(line(defaults, 100, "T"), "(07:03:09)R: -> T");
}

TEST(SimpleLayoutTimeTest, StrftimeFormatsAndUnknownConversions) {
  SYSTEMTIME t = makeTime(7, 3, 9, 4, 2024, 2, 29);
  EXPECT_EQ(SimpleLayout::timeText("%Y-%m-%d %H:%M:%S", t), "2024-02-29 07:03:09");
  EXPECT_EQ(SimpleLayout::timeText("%j", t), "060");
  EXPECT_EQ(SimpleLayout::timeText("%ms", makeTime(0, 0, 0, 999)), "00:00:00.999");
  EXPECT_EQ(SimpleLayout::timeText("%ms", makeTime(0, 0, 0, 0)), "00:00:00.0");
  // Not every runtime knows these; they are printed as they stand.
  EXPECT_EQ(SimpleLayout::timeText("%Q %H%", t), "%Q 07%");
  EXPECT_EQ(SimpleLayout::timeText("100%%", t), "100%");
  EXPECT_EQ(SimpleLayout::timeText("", t), "");
  // A time that does not fit the 2048-character buffer gives no time text.
  EXPECT_EQ(SimpleLayout::timeText(std::string(3000, 'x'), t), "");
}

TEST_F(SimpleLayoutTest, BriefFormIsTimeAndText) {
  SimpleLayout layout;
  EXPECT_EQ(layout.formatBrief(LoggingEvent(&root_, "T", 100, nullptr)), "T");
  configured(&layout, {{"includeTime", "true"}, {"includeTime/timeformat", "%ms"}, {"includePriorities", "1"}});
  EXPECT_EQ(layout.formatBrief(LoggingEvent(&root_, "T", 100, nullptr)), "(07:03:09.4): T");
}

// --- Filters ---

PriorityFilter* filter(PriorityFilter* f, const LogSettings& settings) {
  for (const auto& s : settings) f->setSetting(s.first, s.second);
  f->configure();
  return f;
}

class FilterChainTest : public ::testing::Test {
 protected:
  int run(const Filter& first, LogPriority p) {
    return runFilterChain(&first, LoggingEvent(&root_, "T", p, nullptr));
  }
  Logger root_{Logger::kRoot, "R"};
};

TEST_F(FilterChainTest, AnUnconfiguredFilterDropsExactly200) {
  PriorityFilter f;
  EXPECT_EQ(run(f, 200), kFilterDrop);
  EXPECT_EQ(run(f, 205), kFilterNoOpinion);
  EXPECT_EQ(run(f, 100), kFilterNoOpinion);
}

TEST_F(FilterChainTest, CompleteMatchesAWholeBandInBothModes) {
  PriorityFilter deny;
  filter(&deny, {{"priority", "ERR"}, {"complete", "true"}, {"mode", "deny"}});
  PriorityFilter allow;
  filter(&allow, {{"priority", "ERR+42"}, {"complete", "1"}, {"mode", "allow"}});
  for (LogPriority p : {100, 699, 700, 750, 799, 800, 1000}) {
    bool inBand = p >= 700 && p <= 799;
    EXPECT_EQ(run(deny, p), inBand ? kFilterDrop : kFilterNoOpinion) << p;
    EXPECT_EQ(run(allow, p), inBand ? kFilterNoOpinion : kFilterDrop) << p;
  }
}

TEST_F(FilterChainTest, DefaultsAreWrittenIntoTheSettings) {
  PriorityFilter f;
  filter(&f, {{"complete", "false"}});
  EXPECT_EQ(f.settings().at("priority"), "DBG");
  EXPECT_EQ(f.settings().at("mode"), "deny");
  EXPECT_EQ(f.priority(), 200);
}

TEST_F(FilterChainTest, AChainAsksEachFilterUntilOneHasAnOpinion) {
  PriorityFilter first, second;
  filter(&first, {{"priority", "DBG"}});
  filter(&second, {{"priority", "WARNING"}});
  first.setNext(&second);
  EXPECT_EQ(run(first, 200), kFilterDrop);
  EXPECT_EQ(run(first, 800), kFilterDrop);
  EXPECT_EQ(run(first, 700), kFilterNoOpinion);
  EXPECT_EQ(run(first, 205), kFilterNoOpinion);  // exact match without "complete"
}

// A filter that keeps everything ends the chain: later filters are not asked.
class KeepAll : public Filter {
 public:
  int decide(const LoggingEvent&) const override { return 1; }
};

TEST_F(FilterChainTest, AKeepVoteEndsTheChain) {
  KeepAll keep;
  PriorityFilter dropAll;
  filter(&dropAll, {{"priority", "ERR"}, {"mode", "only-this-one"}});
  keep.setNext(&dropAll);
  EXPECT_EQ(run(keep, 100), 1);
  EXPECT_EQ(run(dropAll, 100), kFilterDrop);
}

}  // namespace
}  // namespace glidewell

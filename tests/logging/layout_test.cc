// The log line of SimpleLayout and the priority filter chain.
#include <thread>

#include "log_test_util.h"
#include "logging/priority_filter.h"
#include "logging/simple_layout.h"

namespace glidewell {
namespace {

using testing_log::makeTime;

template <typename T>
T* configured(T* object, const LogSettings& settings) {
  for (const auto& s : settings) object->setSetting(s.first, s.second);
  object->configure();
  return object;
}

TEST(SimpleLayoutTest, EachColumnHasItsExactForm) {
  testing_log::TestEnv env;
  ScopedEnv scoped(&env);
  env.setLocalTime(makeTime(7, 3, 9, 4));
  Logger root(Logger::kRoot, "R");
  LogProperty b("B", 2);
  b << (LogProperty("D", 3) << LogProperty("E", "deep"));
  const LogPropertyList props{LogProperty("A", 1), b};
  const LogPropertyList none;
  const LogSettings timeMs{{"includeTime", "1"}, {"includeTime/timeformat", "%ms"}};
  struct Case {
    LogSettings settings;
    LogPriority priority;
    const LogPropertyList* properties;
    const char* line;
  } cases[] = {
      {{}, 700, &props, "R: -> T"},  // never configured: path and text only
      {{{"includePriorities", "true"}}, 503, nullptr, "(Alert+3) R: -> T"},
      {timeMs, 700, nullptr, "(07:03:09.4)R: -> T"},
      {{{"includeTime", "true"}}, 700, nullptr, "(07:03:09)R: -> T"},  // the default format is %X
      // The format is read only when the time is on ("yes" is not).
      {{{"includeTime", "yes"}, {"includeTime/timeformat", "%ms"}}, 700, nullptr, "R: -> T"},
      {{{"includeProperties", "true"}}, 200, &props, "R: -> T\nA: 1\nB: 2\n D: 3\n  E: deep\n"},
      {{{"includeProperties", "true"}}, 200, &none, "R: -> T"},
      {{{"includeProperties", "false"}}, 200, &props, "R: -> T"},
      // A thread that never registered has no thread column.
      {{{"includeThread", "true"}}, 100, nullptr, "R: -> T"},
  };
  for (const Case& c : cases) {
    SimpleLayout layout;
    configured(&layout, c.settings);
    std::string text;
    std::thread t([&] { text = layout.format(LoggingEvent(&root, "T", c.priority, c.properties)); });
    t.join();
    EXPECT_EQ(text, c.line);
  }
  SimpleLayout brief;
  EXPECT_EQ(brief.formatBrief(LoggingEvent(&root, "T", 100, nullptr)), "T");
  LogSettings briefSettings = timeMs;
  briefSettings["includePriorities"] = "1";
  configured(&brief, briefSettings);
  EXPECT_EQ(brief.formatBrief(LoggingEvent(&root, "T", 100, nullptr)), "(07:03:09.4): T");
}

TEST(SimpleLayoutTest, TimeFormats) {
  SYSTEMTIME t = makeTime(7, 3, 9, 4, 2024, 2, 29);
  std::pair<std::string, const char*> cases[] = {
      {"%Y-%m-%d %H:%M:%S", "2024-02-29 07:03:09"}, {"%j", "060"}, {"%ms", "07:03:09.4"},
      // Not every runtime knows these; they are printed as they stand.
      {"%Q %H%", "%Q 07%"}, {"100%%", "100%"}, {"", ""},
      // A time that does not fit the 2048-character buffer gives no time text.
      {std::string(3000, 'x'), ""}};
  for (const auto& c : cases) EXPECT_EQ(SimpleLayout::timeText(c.first, t), c.second) << c.first;
  EXPECT_EQ(SimpleLayout::timeText("%ms", makeTime(0, 0, 0, 999)), "00:00:00.999");
}

TEST(FilterChainTest, PriorityFiltersAloneAndChained) {
  Logger root(Logger::kRoot, "R");
  auto run = [&root](const Filter& first, LogPriority p) {
    return runFilterChain(&first, LoggingEvent(&root, "T", p, nullptr));
  };
  PriorityFilter unconfigured;  // drops exactly 200
  PriorityFilter deny, allow, warning;
  configured(&deny, {{"priority", "ERR"}, {"complete", "true"}, {"mode", "deny"}});
  configured(&allow, {{"priority", "ERR+42"}, {"complete", "1"}, {"mode", "allow"}});
  for (LogPriority p : {100, 200, 205, 699, 700, 750, 799, 800, 1000}) {
    bool inBand = p >= 700 && p <= 799;
    EXPECT_EQ(run(unconfigured, p), p == 200 ? kFilterDrop : kFilterNoOpinion) << p;
    EXPECT_EQ(run(deny, p), inBand ? kFilterDrop : kFilterNoOpinion) << p;
    EXPECT_EQ(run(allow, p), inBand ? kFilterNoOpinion : kFilterDrop) << p;
  }
  // A chain asks each filter until one has an opinion.
  configured(&warning, {{"priority", "WARNING"}});
  unconfigured.setNext(&warning);
  EXPECT_EQ(run(unconfigured, 800), kFilterDrop);
  EXPECT_EQ(run(unconfigured, 805), kFilterNoOpinion);  // exact match without "complete"
  // A filter that keeps everything ends the chain: later filters are not asked.
  struct KeepAll : Filter {
    int decide(const LoggingEvent&) const override { return 1; }
  } keep;
  keep.setNext(&deny);
  EXPECT_EQ(run(keep, 700), 1);
}

}  // namespace
}  // namespace glidewell

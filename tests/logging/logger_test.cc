// The logger core: priority conversions, how a statement becomes a message,
// the per-thread chain of current loggers, thread names, and the rule that
// every message reaches every configured output exactly once.
#include <thread>

#include "log_test_util.h"
#include "logging/logger.h"

namespace glidewell {
namespace {

using testing_log::LogTest;
using testing_log::RecordingAppender;

TEST(PriorityTest, ParsePriorityMatchesKeywordsByPrefixAndAddsTheOffset) {
  struct Case {
    const char* text;
    LogPriority expected;
  } cases[] = {
      {"ERROR", 700},      {"ERR", 700},          {"WARNING+5", 805},   {"DBG+250", 299}, {"DEBUG", 1000},
      {"", 1000},          {"INFO", 1000},        {"NOTSET+3", 1003},   {"bogus+7", 1000}, {"err", 1000},
      {"ALERT+", 500},     {"ALERT+x", 500},      {"FATAL+ 7", 407},    {"DB", 1000},     {"NOTICE+99", 999},
      {"DBG+-100", 100},   {"EMERGENCYX", 300},   {"CRITICAL+1+2", 601}, {"+5", 1000},
      // Offsets beyond an int must not overflow.
      {"DBG+99999999999999999999", 299},
  };
  for (const Case& c : cases) EXPECT_EQ(parsePriority(c.text), c.expected) << '"' << c.text << '"';
}

TEST(PriorityTest, PriorityNameGivesTheBandAndAnOffset) {
  EXPECT_EQ(priorityName(100), "Informal");
  EXPECT_EQ(priorityName(199), "Informal+99");
  EXPECT_EQ(priorityName(500), "Alert");
  EXPECT_EQ(priorityName(503), "Alert+3");
  EXPECT_EQ(priorityName(705), "Error+5");
  EXPECT_EQ(priorityName(999), "Notice+99");
  EXPECT_EQ(priorityName(99), "Invalid(99)");
  EXPECT_EQ(priorityName(1000), "Invalid(1000)");
  EXPECT_EQ(priorityName(-5), "Invalid(-5)");
}

TEST(PriorityTest, PriorityBandIsTheBaseInsideTheScaleAnd1000Outside) {
  EXPECT_EQ(priorityBand(250), 200);
  EXPECT_EQ(priorityBand(100), 100);
  EXPECT_EQ(priorityBand(999), 900);
  EXPECT_EQ(priorityBand(50), 1000);
  EXPECT_EQ(priorityBand(1000), 1000);
  EXPECT_EQ(priorityBand(1500), 1000);
  EXPECT_EQ(priorityBand(-100), 1000);
}

class LogRecordTest : public LogTest {};

TEST_F(LogRecordTest, OneStatementSendsOneMessageWithItsTextAndProperties) {
  RecordingAppender* out = addRecorder();
  Logger log("processFile");
  log.log(700) << "Error " << 5 << " in " << std::wstring(L"C:\\x") << LogProperty("Error", 5)
               << LogProperty("FileName", L"C:\\x");
  auto seen = out->seen();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].message, "Error 5 in C:\\x");
  EXPECT_EQ(seen[0].priority, 700);
  ASSERT_EQ(seen[0].properties.size(), 2u);
  EXPECT_EQ(seen[0].properties[0].name(), "Error");
  EXPECT_EQ(seen[0].properties[1].value(), "C:\\x");
}

TEST_F(LogRecordTest, PropertiesWithoutTextAndPriority1000SendNothing) {
  RecordingAppender* out = addRecorder();
  Logger log("f");
  log.log(500) << LogProperty("Volume", "C:");
  log.log(1000) << "switched off" << LogProperty("A", 1);
  { LogRecord unused = log.log(200); }
  EXPECT_TRUE(out->seen().empty());
}

TEST_F(LogRecordTest, ExplicitSendSendsAtOnceAndKeepsTheProperties) {
  RecordingAppender* out = addRecorder();
  Logger log("f");
  {
    LogRecord r = log.log(500);
    r << "first" << LogProperty("A", 1) << logSend;
    EXPECT_EQ(out->seen().size(), 1u);
    r << "second";
  }
  auto seen = out->seen();
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].message, "first");
  EXPECT_EQ(seen[1].message, "second");
  EXPECT_EQ(seen[1].properties.size(), 1u);

  log.log(500) << "only once" << logSend;
  EXPECT_EQ(out->seen().size(), 3u);
}

TEST(LogPropertyTest, CopiesAreDeepTrees) {
  LogProperty b("B", 2);
  b << LogProperty("D", 3);
  LogProperty copy = b;
  b << LogProperty("E", 4);
  ASSERT_EQ(copy.children().size(), 1u);
  EXPECT_EQ(copy.children()[0].name(), "D");
  EXPECT_EQ(copy.children()[0].value(), "3");
  EXPECT_EQ(b.children().size(), 2u);
  EXPECT_EQ(LogProperty("N", static_cast<const char*>(nullptr)).value(), "");
}

class LoggerScopeTest : public LogTest {};

TEST_F(LoggerScopeTest, NestedScopesChainToTheInnermostAndRestoreTheCurrentLogger) {
  Logger root(Logger::kRoot, "scopes");
  EXPECT_EQ(currentLogger(), &root);
  {
    Logger outer("outer");
    EXPECT_EQ(outer.parent(), &root);
    {
      Logger inner("inner");
      EXPECT_EQ(inner.parent(), &outer);
      Logger innermost("innermost");
      EXPECT_EQ(innermost.parent(), &inner);
      EXPECT_EQ(currentLogger(), &innermost);
      EXPECT_EQ(SimpleLayout::loggerPath(&innermost), "scopes.outer.inner.innermost");
    }
    EXPECT_EQ(currentLogger(), &outer);
  }
  EXPECT_EQ(currentLogger(), &root);
}

TEST_F(LoggerScopeTest, AnExplicitParentWinsOverTheCurrentLogger) {
  Logger root(Logger::kRoot, "explicit");
  Logger a("a");
  Logger b("b", &root);
  EXPECT_EQ(b.parent(), &root);
  Logger c("c");
  EXPECT_EQ(c.parent(), &b);
}

TEST_F(LoggerScopeTest, ARootOnAThreadThatHadALoggerRestoresItWhenDestroyed) {
  Logger first(Logger::kRoot, "first");
  {
    Logger child("child");
    Logger second(Logger::kRoot, "second");
    EXPECT_EQ(second.parent(), nullptr);
    EXPECT_EQ(currentLogger(), &second);
  }
  EXPECT_EQ(currentLogger(), &first);
}

TEST_F(LoggerScopeTest, ScopesOfOneThreadDoNotReachAnother) {
  Logger root(Logger::kRoot, "host");
  Logger scope("hostScope");
  const Logger* parentSeen = &root;
  const Logger* currentAfter = &root;
  std::thread worker([&] {
    { Logger workerRoot(Logger::kRoot, "runthread"); }
    currentAfter = currentLogger();
    Logger child("orphan");
    parentSeen = child.parent();
  });
  worker.join();
  EXPECT_EQ(parentSeen, nullptr);
  EXPECT_EQ(currentAfter, nullptr);  // the root had no predecessor on that thread
  EXPECT_EQ(currentLogger(), &scope);
}

// The main root's own appender list is copied into roots of other threads
// and into every child, so an appender there would be written twice per
// message together with the configuration's list; the engine keeps the
// per-logger lists empty. Here the copy rules themselves are checked.
TEST_F(LoggerScopeTest, LoggersCopyTheirParentsAppendersAtConstruction) {
  RecordingAppender own;
  Logger root(Logger::kRoot, "copies");
  root.addAppender(&own, false);
  root.addAppender(nullptr, false);
  Logger child("child");
  ASSERT_EQ(child.appenders().size(), 1u);
  child.log(500) << "to the own list";
  EXPECT_EQ(own.seen().size(), 1u);
  child.addAppender(nullptr, true);
  EXPECT_TRUE(child.appenders().empty());
}

TEST(ThreadNameTest, SetThreadNameRegistersThenRenames) {
  std::string before, after;
  bool unknownAtStart = false;
  std::thread t([&] {
    unknownAtStart = currentLogThread() == nullptr;
    setThreadName("WorkThread");
    before = currentLogThread()->name;
    setThreadName("Renamed");
    after = currentLogThread()->name;
  });
  t.join();
  EXPECT_TRUE(unknownAtStart);
  EXPECT_EQ(before, "WorkThread");
  EXPECT_EQ(after, "Renamed");
}

TEST(ThreadNameTest, ARootRegistersItsThreadUnderItsOwnName) {
  std::string name;
  uint32_t id = 0, self = 0;
  std::thread t([&] {
    Logger root(Logger::kRoot, "runthread");
    name = currentLogThread()->name;
    id = currentLogThread()->id;
    self = currentThreadId();
  });
  t.join();
  EXPECT_EQ(name, "runthread");
  EXPECT_EQ(id, self);
}

class DeliveryTest : public LogTest {};

TEST_F(DeliveryTest, EveryMessageOfEveryThreadReachesEveryOutputOnce) {
  RecordingAppender* a = addRecorder();
  RecordingAppender* b = addRecorder();
  ASSERT_EQ(configuredAppenders().size(), 2u);
  {
    Logger root(Logger::kRoot, "main");
    Logger scope("engine::start");
    std::thread worker([] {
      Logger workerRoot(Logger::kRoot, "runthread");
      Logger scope("checkState");
      for (int i = 0; i < 10; ++i) scope.log(100) << "worker " << i;
    });
    for (int i = 0; i < 10; ++i) scope.log(100) << "host " << i;
    worker.join();
  }
  for (RecordingAppender* out : {a, b}) {
    auto seen = out->seen();
    ASSERT_EQ(seen.size(), 20u);
    int host = 0, worker = 0;
    for (const auto& e : seen) {
      if (e.path == "main.engine::start") ++host;
      if (e.path == "runthread.checkState") ++worker;
    }
    EXPECT_EQ(host, 10);
    EXPECT_EQ(worker, 10);
  }
}

TEST_F(DeliveryTest, WithoutAConfigurationMessagesGoNowhere) {
  EXPECT_EQ(LogManager::existing(), nullptr);
  Logger log("nowhere");
  log.log(700) << "dropped";
  EXPECT_TRUE(configuredAppenders().empty());
  EXPECT_EQ(LogManager::existing(), nullptr);  // logging never creates the manager
}

}  // namespace
}  // namespace glidewell

namespace glidewell {
namespace {

TEST(LogMuteTest, MutedThreadReachesNoOutputAndOtherThreadsStillDo) {
  LogManager::release();
  LogManager* m = LogManager::instance();
  m->setGenericFactory(LogObjectFactory{testing_log::createTestLogObject, destroyLogObject});
  auto* recorder = dynamic_cast<testing_log::RecordingAppender*>(m->createAppender("Recording"));
  Logger log("muted");
  {
    ScopedLogMute quiet;
    log.log(kLogError) << "dropped";
    std::thread other([] {
      Logger l("other");
      l.log(kLogError) << "kept";
    });
    other.join();
  }
  log.log(kLogError) << "after";
  std::vector<std::string> messages;
  for (auto& e : recorder->seen()) messages.push_back(e.message);
  EXPECT_EQ(messages, (std::vector<std::string>{"kept", "after"}));
  LogManager::release();
}

}  // namespace
}  // namespace glidewell

// The logger core: priority conversions, how a statement becomes a message,
// the per-thread chain of current loggers, thread names, and the rule that
// every message reaches every configured output exactly once.
#include <map>
#include <thread>

#include "log_test_util.h"
#include "logging/logger.h"

namespace glidewell {
namespace {

using testing_log::LogTest;
using testing_log::RecordingAppender;

TEST(PriorityTest, NamesAndNumbers) {
  std::pair<const char*, LogPriority> parsed[] = {
      {"ERROR", 700},    {"ERR", 700},       {"WARNING+5", 805}, {"DBG+250", 299},      {"DEBUG", 1000},
      {"", 1000},        {"INFO", 1000},     {"NOTSET+3", 1003}, {"bogus+7", 1000},     {"err", 1000},
      {"ALERT+", 500},   {"ALERT+x", 500},   {"FATAL+ 7", 407},  {"DB", 1000},          {"NOTICE+99", 999},
      {"DBG+-100", 100}, {"EMERGENCYX", 300}, {"CRITICAL+1+2", 601}, {"+5", 1000},
      {"DBG+99999999999999999999", 299},  // offsets beyond an int must not overflow
  };
  for (const auto& c : parsed) EXPECT_EQ(parsePriority(c.first), c.second) << '"' << c.first << '"';
  std::tuple<LogPriority, const char*, LogPriority> named[] = {
      {100, "Informal", 100},     {199, "Informal+99", 100}, {503, "Alert+3", 500},     {999, "Notice+99", 900},
      {99, "Invalid(99)", 1000},  {1000, "Invalid(1000)", 1000}, {-5, "Invalid(-5)", 1000}};
  for (const auto& c : named) {
    EXPECT_EQ(priorityName(std::get<0>(c)), std::get<1>(c));
    EXPECT_EQ(priorityBand(std::get<0>(c)), std::get<2>(c)) << std::get<0>(c);
  }
}

class LoggerTest : public LogTest {};

TEST_F(LoggerTest, OneStatementSendsOneMessageAndOnlyWithText) {
  RecordingAppender* out = addRecorder();
  Logger log("processFile");
  log.log(700) << "Error " << 5 << " in " << std::wstring(L"C:\\x") << LogProperty("Error", 5)
               << LogProperty("FileName", L"C:\\x");
  // Properties without text, priority 1000 and an empty record send nothing.
  log.log(500) << LogProperty("Volume", "C:");
  log.log(1000) << "switched off" << LogProperty("A", 1);
  { LogRecord unused = log.log(200); }
  {
    LogRecord r = log.log(500);
    r << "first" << LogProperty("A", 1) << logSend;  // sent at once, properties kept
    EXPECT_EQ(out->seen().size(), 2u);
    r << "second";
  }
  auto seen = out->seen();
  ASSERT_EQ(seen.size(), 3u);
  EXPECT_EQ(seen[0].message, "Error 5 in C:\\x");
  EXPECT_EQ(seen[0].priority, 700);
  ASSERT_EQ(seen[0].properties.size(), 2u);
  EXPECT_EQ(seen[0].properties[0].name(), "Error");
  EXPECT_EQ(seen[0].properties[1].value(), "C:\\x");
  EXPECT_EQ(seen[2].message, "second");
  EXPECT_EQ(seen[2].properties.size(), 1u);
}

TEST_F(LoggerTest, ScopesChainToTheInnermostAndRestoreTheCurrentLogger) {
  Logger root(Logger::kRoot, "scopes");
  {
    Logger outer("outer");
    EXPECT_EQ(outer.parent(), &root);
    {
      Logger inner("inner");
      Logger innermost("innermost");
      EXPECT_EQ(innermost.parent(), &inner);
      EXPECT_EQ(SimpleLayout::loggerPath(&innermost), "scopes.outer.inner.innermost");
      Logger explicitParent("b", &root);  // an explicit parent wins over the current logger
      EXPECT_EQ(explicitParent.parent(), &root);
      EXPECT_EQ(currentLogger(), &explicitParent);
      // A second root on the same thread restores what was current before it.
      {
        Logger second(Logger::kRoot, "second");
        EXPECT_EQ(second.parent(), nullptr);
      }
      EXPECT_EQ(currentLogger(), &explicitParent);
    }
    EXPECT_EQ(currentLogger(), &outer);
  }
  EXPECT_EQ(currentLogger(), &root);
}

TEST_F(LoggerTest, ScopesAndNamesBelongToTheirThread) {
  Logger root(Logger::kRoot, "host");
  Logger scope("hostScope");
  const Logger* parentSeen = &root;
  const Logger* currentAfter = &root;
  bool unknownAtStart = false;
  std::string named, renamed;
  std::thread worker([&] {
    unknownAtStart = currentLogThread() == nullptr;
    { Logger workerRoot(Logger::kRoot, "runthread"); named = currentLogThread()->name; }
    currentAfter = currentLogger();
    Logger child("orphan");
    parentSeen = child.parent();
    setThreadName("WorkThread");
    renamed = currentLogThread()->name;
  });
  worker.join();
  EXPECT_TRUE(unknownAtStart);
  EXPECT_EQ(named, "runthread");  // a root registers its thread under its own name
  EXPECT_EQ(renamed, "WorkThread");
  EXPECT_EQ(parentSeen, nullptr);
  EXPECT_EQ(currentAfter, nullptr);  // the root had no predecessor on that thread
  EXPECT_EQ(currentLogger(), &scope);
}

TEST_F(LoggerTest, EveryMessageOfEveryThreadReachesEveryOutputOnce) {
  Logger("nowhere").log(700) << "dropped";  // no configuration: nowhere, and no manager made
  EXPECT_EQ(LogManager::existing(), nullptr);

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
    std::map<std::string, int> perPath;
    for (const auto& e : out->seen()) ++perPath[e.path];
    EXPECT_EQ(perPath, (std::map<std::string, int>{{"main.engine::start", 10}, {"runthread.checkState", 10}}));
  }
}

TEST_F(LoggerTest, AMutedThreadReachesNoOutputAndOtherThreadsStillDo) {
  RecordingAppender* recorder = addRecorder();
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
}

}  // namespace
}  // namespace glidewell

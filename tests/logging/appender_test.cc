// The file and standard-output appenders: file names, line ends, replacing
// the previous run's log, silence when the file cannot be made, and the
// hand-over through the filter chain.
#include "log_test_util.h"
#include "logging/file_appender.h"
#include "logging/priority_filter.h"
#include "logging/std_appender.h"

namespace glidewell {
namespace {

using testing_log::fileExists;
using testing_log::readFile;
using testing_log::ScopedEnv;
using testing_log::TempDir;
using testing_log::TestEnv;

void configure(Configurable* object, const LogSettings& settings) {
  for (const auto& s : settings) object->setSetting(s.first, s.second);
  object->configure();
}

class FileAppenderTest : public ::testing::Test {
 protected:
  void log(Appender* a, const std::string& text, const LogPropertyList* props = nullptr, LogPriority p = 500) {
    appendThroughFilters(a, LoggingEvent(&root_, text, p, props));
  }
  TempDir dir_;
  Logger root_{Logger::kRoot, "R"};
};

TEST(FileNameTest, PostfixGoesBeforeTheLastDot) {
  EXPECT_EQ(FileAppender::withPostfix("log.txt", "_svc"), "log_svc.txt");
  EXPECT_EQ(FileAppender::withPostfix("logs\\run.txt", "_a"), "logs\\run_a.txt");
  EXPECT_EQ(FileAppender::withPostfix("a.b.c", "_x"), "a.b_x.c");
  EXPECT_EQ(FileAppender::withPostfix("run", "_a"), "run");
  EXPECT_EQ(FileAppender::withPostfix("log.txt", ""), "log.txt");
}

TEST_F(FileAppenderTest, WritesLinesEndedByCrLfAndFlushesEachOne) {
  FileAppender a;
  std::string name = dir_.file("run.txt");
  configure(&a, {{"filename", name}, {"postfix", "_a"}});
  EXPECT_EQ(a.fileName(), dir_.file("run_a.txt"));
  ASSERT_TRUE(a.isOpen());
  log(&a, "one");
  EXPECT_EQ(readFile(a.fileName()), "one\r\n");  // on disk when append returns
  log(&a, "two");
  EXPECT_EQ(readFile(a.fileName()), "one\r\ntwo\r\n");
  EXPECT_FALSE(fileExists(name));
}

TEST_F(FileAppenderTest, AMessageWithPropertiesEndsWithAnEmptyLine) {
  SimpleLayout layout;
  configure(&layout, {{"includePriorities", "true"}, {"includeProperties", "true"}});
  FileAppender a;
  a.setLayout(&layout);
  configure(&a, {{"filename", dir_.file("p.log")}});
  LogPropertyList props{LogProperty("Version", "1.06m")};
  log(&a, "Log started", &props);
  log(&a, "next");
  EXPECT_EQ(readFile(dir_.file("p.log")), "(Alert) R: -> Log started\nVersion: 1.06m\n\r\n(Alert) R: -> next\r\n");
}

TEST_F(FileAppenderTest, ARelativeNameIsBelowTheCurrentDirectory) {
  std::string previous = std::filesystem::current_path().string();
  std::filesystem::current_path(dir_.path());
  {
    FileAppender a;
    configure(&a, {{"filename", "logs\\rel.txt"}});
    EXPECT_FALSE(a.isOpen());  // the folder is not made
    std::filesystem::create_directory(dir_.file("logs"));
    FileAppender b;
    configure(&b, {{"filename", "logs\\rel.txt"}});
    log(&b, "here");
  }
  std::filesystem::current_path(previous);
  EXPECT_EQ(readFile(dir_.file("logs/rel.txt")), "here\r\n");
}

TEST_F(FileAppenderTest, TheNextRunReplacesTheLog) {
  std::string name = dir_.file("same.log");
  {
    FileAppender first;
    configure(&first, {{"filename", name}});
    log(&first, "first run, a longer line");
  }
  FileAppender second;
  configure(&second, {{"filename", name}});
  log(&second, "second");
  EXPECT_EQ(readFile(name), "second\r\n");
}

TEST_F(FileAppenderTest, AFileThatCannotBeCreatedLeavesTheAppenderSilent) {
  TestEnv env;
  env.failOpen = true;
  FileAppender a;
  {
    ScopedEnv scoped(&env);
    configure(&a, {{"filename", dir_.file("denied.log")}});
  }
  EXPECT_FALSE(a.isOpen());
  EXPECT_EQ(a.fileName(), dir_.file("denied.log"));
  log(&a, "lost");
  log(&a, "lost too");
  EXPECT_FALSE(fileExists(dir_.file("denied.log")));
}

TEST_F(FileAppenderTest, UnconfiguredItHasNoFileAndWritesNothing) {
  FileAppender a;
  EXPECT_EQ(a.fileName(), "");
  EXPECT_FALSE(a.isOpen());
  log(&a, "nothing");
}

TEST_F(FileAppenderTest, DefaultsAreLogTxtWithoutLock) {
  std::string previous = std::filesystem::current_path().string();
  std::filesystem::current_path(dir_.path());
  FileAppender a;
  configure(&a, {{"postfix", ""}});
  std::filesystem::current_path(previous);
  EXPECT_EQ(a.fileName(), "log.txt");
  EXPECT_TRUE(fileExists(dir_.file("log.txt")));
  EXPECT_FALSE(a.multithreading());
  EXPECT_EQ(a.settings().at("multithreading"), "false");
}

TEST_F(FileAppenderTest, MultithreadingIsTrueOnlyForTrueOrOne) {
  for (const char* text : {"true", "1", "TRUE", "yes", "0"}) {
    FileAppender a;
    configure(&a, {{"filename", dir_.file("m.log")}, {"multithreading", text}});
    bool expected = std::string(text) == "true" || std::string(text) == "1";
    EXPECT_EQ(a.multithreading(), expected) << text;
  }
}

TEST_F(FileAppenderTest, TheFilterChainDecidesBeforeAppend) {
  PriorityFilter denyDebug;
  configure(&denyDebug, {{"priority", "DBG"}, {"complete", "true"}});
  FileAppender a;
  a.setFilter(&denyDebug);
  configure(&a, {{"filename", dir_.file("f.log")}});
  log(&a, "debug", nullptr, 250);
  log(&a, "alert", nullptr, 500);
  EXPECT_EQ(readFile(dir_.file("f.log")), "alert\r\n");
}

TEST(StdAppenderTest, WritesOneLineFeedEndedLinePerMessage) {
  std::ostringstream out;
  StdAppender a(out);
  Logger root(Logger::kRoot, "R");
  appendThroughFilters(&a, LoggingEvent(&root, "plain", 100, nullptr));
  SimpleLayout layout;
  configure(&layout, {{"includePriorities", "true"}});
  a.setLayout(&layout);
  appendThroughFilters(&a, LoggingEvent(&root, "laid out", 800, nullptr));
  EXPECT_EQ(out.str(), "plain\n(Warning) R: -> laid out\n");

  configure(&a, {{"multithreading", "1"}});
  EXPECT_TRUE(a.multithreading());
  configure(&a, {{"multithreading", "false"}});
  EXPECT_FALSE(a.multithreading());
}

TEST(StdAppenderTest, ABrokenStreamSwallowsTheLineAndRecovers) {
  std::ostringstream out;
  StdAppender a(out);
  Logger root(Logger::kRoot, "R");
  out.setstate(std::ios::badbit);
  appendThroughFilters(&a, LoggingEvent(&root, "lost", 100, nullptr));
  appendThroughFilters(&a, LoggingEvent(&root, "kept", 100, nullptr));
  EXPECT_EQ(out.str(), "kept\n");
}

}  // namespace
}  // namespace glidewell

// The file and standard-output appenders: file names, line ends, silence
// when the file cannot be made, and a broken stream. What they write with a
// layout and filters is checked end to end in log_setup_test.
#include "log_test_util.h"
#include "logging/file_appender.h"
#include "logging/std_appender.h"

namespace glidewell {
namespace {

using testing_log::readFile;

void configure(Configurable* object, const LogSettings& settings) {
  for (const auto& s : settings) object->setSetting(s.first, s.second);
  object->configure();
}

class FileAppenderTest : public ::testing::Test {
 protected:
  void log(Appender* a, const std::string& text) { appendThroughFilters(a, LoggingEvent(&root_, text, 500, nullptr)); }
  TempDir dir_;
  Logger root_{Logger::kRoot, "R"};
};

TEST(FileNameTest, PostfixGoesBeforeTheLastDot) {
  EXPECT_EQ(FileAppender::withPostfix("logs\\run.txt", "_a"), "logs\\run_a.txt");
  EXPECT_EQ(FileAppender::withPostfix("a.b.c", "_x"), "a.b_x.c");
  EXPECT_EQ(FileAppender::withPostfix("run", "_a"), "run");
}

TEST_F(FileAppenderTest, WritesLinesEndedByCrLfAndFlushesEachOne) {
  FileAppender a;
  log(&a, "unconfigured: no file, nothing written");
  configure(&a, {{"filename", dir_.file("run.txt")}, {"postfix", "_a"}});
  EXPECT_EQ(a.fileName(), dir_.file("run_a.txt"));
  log(&a, "one");
  EXPECT_EQ(readFile(a.fileName()), "one\r\n");  // on disk when append returns
  log(&a, "two");
  EXPECT_EQ(readFile(a.fileName()), "one\r\ntwo\r\n");
  EXPECT_FALSE(std::filesystem::exists(dir_.file("run.txt")));
}

TEST_F(FileAppenderTest, NamesAreBelowTheCurrentDirectoryAndFoldersAreNotMade) {
  std::string previous = std::filesystem::current_path().string();
  std::filesystem::current_path(dir_.native());
  FileAppender missing, relative, defaults;
  configure(&missing, {{"filename", "logs\\rel.txt"}});
  std::filesystem::create_directory(dir_.file("logs"));
  configure(&relative, {{"filename", "logs\\rel.txt"}});
  configure(&defaults, {{"postfix", ""}});
  std::filesystem::current_path(previous);
  EXPECT_FALSE(missing.isOpen());
  log(&relative, "here");
  EXPECT_EQ(readFile(dir_.file("logs/rel.txt")), "here\r\n");
  EXPECT_EQ(defaults.fileName(), "log.txt");
  EXPECT_TRUE(std::filesystem::exists(dir_.file("log.txt")));
  EXPECT_EQ(defaults.settings().at("multithreading"), "false");
}

TEST_F(FileAppenderTest, AFileThatCannotBeCreatedLeavesTheAppenderSilent) {
  testing_log::TestEnv env;
  env.failOpen = true;
  FileAppender a;
  {
    ScopedEnv scoped(&env);
    configure(&a, {{"filename", dir_.file("denied.log")}});
  }
  EXPECT_FALSE(a.isOpen());
  EXPECT_EQ(a.fileName(), dir_.file("denied.log"));
  log(&a, "lost");
  EXPECT_FALSE(std::filesystem::exists(dir_.file("denied.log")));
}

TEST_F(FileAppenderTest, MultithreadingIsTrueOnlyForTrueOrOne) {
  for (const char* text : {"true", "1", "TRUE", "yes", "0"}) {
    FileAppender a;
    configure(&a, {{"filename", dir_.file("m.log")}, {"multithreading", text}});
    EXPECT_EQ(a.multithreading(), std::string(text) == "true" || std::string(text) == "1") << text;
  }
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

// initLogging / deinitLogging, and the default configuration file shipped in
// logging/logconfig.xml.
#include "log_test_util.h"
#include "logging/file_appender.h"
#include "logging/std_appender.h"

namespace glidewell {
namespace {

using testing_log::LogTest;
using testing_log::makeTime;
using testing_log::readFile;
using testing_log::writeFile;

const char kFileConfig[] =
    "<cfg><appender name=\"FileAppender\"><settings><filename value=\"%s\"/></settings>"
    "<layout name=\"SimpleLayout\"><settings><includeTime value=\"true\"><timeformat value=\"%%ms\"/></includeTime>"
    "<includeThread value=\"true\"/><includePriorities value=\"true\"/><includeProperties value=\"true\"/>"
    "</settings></layout></appender></cfg>";

class LogSetupTest : public LogTest {
 protected:
  LogSetupTest() : scoped_(&env_) { env_.setLocalTime(makeTime(9, 45, 2, 17)); }
  void TearDown() override {
    if (loggingInitialised()) deinitLogging();
    LogTest::TearDown();
  }
  void writeConfig(const std::string& xml) { writeFile(dir_.file("config/logconfig.xml"), xml); }
  std::string fileConfig(const std::string& logName) {
    char buf[1024];
    std::snprintf(buf, sizeof(buf), kFileConfig, dir_.file(logName).c_str());
    return buf;
  }
  std::wstring installDir() { return dir_.path(); }

  testing_log::TestEnv env_;
  ScopedEnv scoped_;
  TempDir dir_;
};

TEST_F(LogSetupTest, InitialisationWritesTheStartBannerAndNamesTheThread) {
  writeConfig(fileConfig("run.log"));
  Logger* before = currentLogger();
  EXPECT_FALSE(loggingInitialised());
  initLogging(installDir());
  EXPECT_TRUE(loggingInitialised());
  EXPECT_EQ(readFile(dir_.file("run.log")),
            "(09:45:02.17)(MainThread)(Alert) main: -> Log started\nVersion: 1.06m\n\r\n");
  ASSERT_NE(currentLogger(), nullptr);
  EXPECT_EQ(currentLogger()->name(), "main");
  EXPECT_EQ(currentLogThread()->name, "MainThread");
  {
    Logger log("engine::start");
    log.log(100) << "starting";
  }
  deinitLogging();
  EXPECT_FALSE(loggingInitialised());
  EXPECT_EQ(LogManager::existing(), nullptr);
  EXPECT_EQ(currentLogger(), before);
  EXPECT_NE(readFile(dir_.file("run.log")).find("(Informal) main.engine::start: -> starting\r\n"), std::string::npos);
}

TEST_F(LogSetupTest, WithoutAConfigurationTheEngineRunsSilentlyAndASecondRunReplacesTheLog) {
  initLogging(installDir());
  EXPECT_TRUE(configuredAppenders().empty());
  Logger("quiet").log(700) << "goes nowhere";
  deinitLogging();

  writeConfig(fileConfig("again.log"));
  initLogging(installDir());
  { Logger("first").log(500) << "from the first run"; }
  deinitLogging();
  initLogging(installDir());
  deinitLogging();
  std::string text = readFile(dir_.file("again.log"));
  EXPECT_EQ(text.find("first run"), std::string::npos);
  EXPECT_NE(text.find("Log started"), std::string::npos);
}

TEST_F(LogSetupTest, TheFactoryKnowsTheEngineTypesOnly) {
  std::pair<const char*, bool> types[] = {{"SimpleLayout", true}, {"priority", true},      {"StdAppender", true},
                                          {"FileAppender", true}, {"fileappender", false}, {"", false}};
  for (const auto& t : types) {
    Configurable* object = createLogObject(t.first);
    EXPECT_EQ(object != nullptr, t.second) << t.first;
    // A file appender comes with an empty postfix, and nothing more.
    if (std::string(t.first) == "FileAppender") EXPECT_EQ(object->settings(), (LogSettings{{"postfix", ""}}));
    destroyLogObject(object);
  }
}

// The shipped configuration: everything to glidewell.log in the current
// directory with every column, and the console without the trace band.
TEST_F(LogSetupTest, TheDefaultConfigurationDropsTraceOnTheConsoleOnly) {
  writeConfig(readFile(std::string(GLIDEWELL_SOURCE_DIR) + "/logging/logconfig.xml"));
  std::string previous = std::filesystem::current_path().string();
  std::filesystem::current_path(dir_.native());
  ::testing::internal::CaptureStdout();
  initLogging(installDir());
  {
    Logger log("processFile");
    log.log(100) << "trace line";
    log.log(199) << "trace detail";
    log.log(200) << "debug line";
    log.log(700) << "error line" << LogProperty("FileName", "C:\\a.txt");
  }
  deinitLogging();
  std::string console = ::testing::internal::GetCapturedStdout();
  std::filesystem::current_path(previous);

  EXPECT_EQ(console,
            "(MainThread)(Alert) main: -> Log started\n"
            "(MainThread)(Debug) main.processFile: -> debug line\n"
            "(MainThread)(Error) main.processFile: -> error line\n");
  std::string file = readFile(dir_.file("glidewell.log"));
  EXPECT_EQ(file,
            "(09:45:02.17)(MainThread)(Alert) main: -> Log started\nVersion: 1.06m\n\r\n"
            "(09:45:02.17)(MainThread)(Informal) main.processFile: -> trace line\r\n"
            "(09:45:02.17)(MainThread)(Informal+99) main.processFile: -> trace detail\r\n"
            "(09:45:02.17)(MainThread)(Debug) main.processFile: -> debug line\r\n"
            "(09:45:02.17)(MainThread)(Error) main.processFile: -> error line\nFileName: C:\\a.txt\n\r\n");
}

}  // namespace
}  // namespace glidewell

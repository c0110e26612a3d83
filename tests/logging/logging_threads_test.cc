// Two threads logging at once through shared appenders with
// "multithreading" on: every line arrives whole. The test names start with
// "Threads", so they also run under ThreadSanitizer (label "threads").
#include <atomic>
#include <regex>
#include <thread>

#include "log_test_util.h"
#include "logging/file_appender.h"
#include "logging/std_appender.h"

namespace glidewell {
namespace {

using testing_log::LogTest;
using testing_log::readFile;

const std::string kPadding(300, 'x');

// Both threads start logging together, so that their messages overlap.
struct StartGate {
  std::atomic<int> waiting{2};
  void pass() {
    waiting.fetch_sub(1);
    while (waiting.load() > 0) std::this_thread::yield();
  }
};

void logMany(StartGate* gate, int count, const char* rootName, const char* threadName, const char* word) {
  Logger root(Logger::kRoot, rootName);
  setThreadName(threadName);
  Logger scope("loop");
  gate->pass();
  for (int i = 0; i < count; ++i) {
    scope.log(100 + i % 900) << word << ' ' << i << ' ' << kPadding << LogProperty("Index", i);
  }
}

// Splits on the file appender's line end and checks each message is one of
// the forms the two threads write, in order per thread.
void expectWholeLines(const std::string& text, const std::string& end, int perThread) {
  std::regex form("\\((Host|Worker)\\)\\([A-Za-z]+(\\+[0-9]+)?\\) (host|work)\\.loop: -> (host|work) ([0-9]+) " +
                  kPadding + "\nIndex: ([0-9]+)\n?");
  int next[2] = {0, 0};
  size_t start = 0;
  int count = 0;
  while (start < text.size()) {
    size_t stop = text.find(end, start);
    ASSERT_NE(stop, std::string::npos) << "unterminated tail";
    std::string message = text.substr(start, stop - start);
    std::smatch m;
    ASSERT_TRUE(std::regex_match(message, m, form)) << "interleaved or torn: " << message.substr(0, 200);
    int who = m[1].str() == "Host" ? 0 : 1;
    EXPECT_EQ(m[3].str(), who == 0 ? "host" : "work");
    EXPECT_EQ(m[4].str(), m[3].str());
    EXPECT_EQ(m[5].str(), m[6].str());
    EXPECT_EQ(std::stoi(m[5].str()), next[who]++);
    ++count;
    start = stop + end.size();
  }
  EXPECT_EQ(count, 2 * perThread);
}

class ThreadsLogging : public LogTest {};

TEST_F(ThreadsLogging, HostAndWorkerLinesNeverInterleave) {
  TempDir dir;
  ASSERT_TRUE(testing_log::loadText(
      manager(), dir,
      "<c><appender name=\"FileAppender\"><settings><filename value=\"" + dir.file("both.log") +
          "\"/><multithreading value=\"true\"/></settings><layout name=\"SimpleLayout\"><settings>"
          "<includeThread value=\"true\"/><includePriorities value=\"true\"/><includeProperties value=\"true\"/>"
          "</settings></layout></appender></c>"));
  StartGate gate;
  const int count = 200;  // each line is flushed to disk
  std::thread worker(logMany, &gate, count, "work", "Worker", "work");
  logMany(&gate, count, "host", "Host", "host");
  worker.join();
  expectWholeLines(readFile(dir.file("both.log")), "\r\n", count);
}

TEST_F(ThreadsLogging, StandardOutputLinesNeverInterleaveEither) {
  std::ostringstream out;
  auto* appender = new StdAppender(out);
  LogManager* m = LogManager::instance();
  m->setGenericFactory(LogObjectFactory{[appender](const std::string&) -> Configurable* { return appender; },
                                        destroyLogObject});
  ASSERT_EQ(m->createAppender("StdAppender"), appender);
  SimpleLayout* layout = dynamic_cast<SimpleLayout*>(createLogObject("SimpleLayout"));
  std::unique_ptr<Configurable> owner(layout);
  for (const char* key : {"includeThread", "includePriorities", "includeProperties"}) layout->setSetting(key, "1");
  layout->configure();
  appender->setLayout(layout);
  appender->setSetting("multithreading", "true");
  appender->configure();

  StartGate gate;
  const int count = 3000;
  std::thread worker(logMany, &gate, count, "work", "Worker", "work");
  logMany(&gate, count, "host", "Host", "host");
  worker.join();
  LogManager::release();
  // The layout's lines end in "\n" and the appender adds one more.
  expectWholeLines(out.str(), "\n\n", count);
}

}  // namespace
}  // namespace glidewell

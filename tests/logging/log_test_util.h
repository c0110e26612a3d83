// Helpers for the logging tests: an environment with a fixed local time and
// injectable file faults, an appender that records what it receives, and a
// LogManager that is reset around each test.
#ifndef GLIDEWELL_TESTS_LOGGING_LOG_TEST_UTIL_H_
#define GLIDEWELL_TESTS_LOGGING_LOG_TEST_UTIL_H_

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "logging/appender.h"
#include "logging/log_manager.h"
#include "logging/log_setup.h"
#include "logging/simple_layout.h"
#include "platform/text.h"
#include "support/fake_env.h"
#include "support/temp_dir.h"

namespace glidewell {
namespace testing_log {

// FakeEnv (for its fixed local time) whose file opens, or reads, fail on request.
class TestEnv : public FakeEnv {
 public:
  bool failOpen = false;
  bool failReads = false;

  std::unique_ptr<File> openFile(const std::wstring& path, FileOpen how, DWORD* error) override {
    if (failOpen) {
      if (error != nullptr) *error = ERROR_ACCESS_DENIED;
      return nullptr;
    }
    std::unique_ptr<File> file = FakeEnv::openFile(path, how, error);
    if (file != nullptr && failReads) return std::make_unique<FailingReads>(std::move(file));
    return file;
  }

 private:
  struct FailingReads : File {
    explicit FailingReads(std::unique_ptr<File> f) : f(std::move(f)) {}
    bool read(void*, uint32_t, uint32_t* done) override { return *done = 0, false; }
    bool write(const void* b, uint32_t n, uint32_t* done) override { return f->write(b, n, done); }
    bool flush() override { return f->flush(); }
    bool size(uint64_t* s) override { return f->size(s); }
    std::unique_ptr<File> f;
  };
};

inline SYSTEMTIME makeTime(WORD h, WORD m, WORD s, WORD ms, WORD year = 2024, WORD month = 1, WORD day = 31) {
  return SYSTEMTIME{year, month, 3, day, h, m, s, ms};
}

// One message as an appender saw it.
struct SeenEvent {
  std::string path;
  std::string message;
  LogPriority priority;
  LogPropertyList properties;
};

// Records every message it is handed ("Recording" in a configuration).
class RecordingAppender : public Appender {
 public:
  void append(const LoggingEvent& event) override {
    std::lock_guard<std::mutex> g(mutex_);
    seen_.push_back({SimpleLayout::loggerPath(event.logger), event.message, event.priority,
                     event.properties != nullptr ? *event.properties : LogPropertyList()});
  }
  void configure() override { ++configureCalls; }
  std::vector<SeenEvent> seen() const {
    std::lock_guard<std::mutex> g(mutex_);
    return seen_;
  }
  int configureCalls = 0;

 private:
  mutable std::mutex mutex_;
  std::vector<SeenEvent> seen_;
};

// The engine's factory plus "Recording".
inline Configurable* createTestLogObject(const std::string& type) {
  if (type == "Recording") return new RecordingAppender;
  return createLogObject(type);
}

// Every test starts and ends without a LogManager, so that objects of one
// test never receive the messages of another.
class LogTest : public ::testing::Test {
 protected:
  void SetUp() override { LogManager::release(); }
  void TearDown() override { LogManager::release(); }

  // A manager with the engine's factory and "Recording".
  static LogManager* manager() {
    LogManager* m = LogManager::instance();
    m->setGenericFactory(LogObjectFactory{createTestLogObject, destroyLogObject});
    return m;
  }
  static RecordingAppender* addRecorder() {
    return dynamic_cast<RecordingAppender*>(manager()->createAppender("Recording"));
  }
};

inline void writeFile(const std::string& path, const std::string& content) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
}

inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// Loads a configuration text through a file in dir.
inline bool loadText(LogManager* m, const TempDir& dir, const std::string& xml) {
  writeFile(dir.file("logconfig.xml"), xml);
  return m->loadConfig(widen(dir.file("logconfig.xml")));
}

}  // namespace testing_log
}  // namespace glidewell

#endif  // GLIDEWELL_TESTS_LOGGING_LOG_TEST_UTIL_H_

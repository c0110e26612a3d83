// Helpers for the logging tests: an environment with a settable clock and
// injectable file faults, an appender that records what it receives, a
// scratch directory, and a LogManager that is reset around each test.
#ifndef GLIDEWELL_TESTS_LOGGING_LOG_TEST_UTIL_H_
#define GLIDEWELL_TESTS_LOGGING_LOG_TEST_UTIL_H_

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "logging/appender.h"
#include "logging/log_manager.h"
#include "logging/log_setup.h"
#include "logging/simple_layout.h"
#include "platform/env.h"
#include "platform/text.h"
#include "volume/volume_system.h"

namespace glidewell {
namespace testing_log {

// The system environment with two seams opened: the local time can be
// fixed, and opening files can be made to fail, or reads to fail.
class TestEnv : public Env {
 public:
  TestEnv() : base_(Env::system()) {}

  std::optional<SYSTEMTIME> fixedTime;
  bool failOpen = false;
  bool failReads = false;

  void setInstallDirectory(const std::wstring& dir) override { base_->setInstallDirectory(dir); }
  std::wstring installDirectory() override { return base_->installDirectory(); }
  uint32_t timeGetTime() override { return base_->timeGetTime(); }
  uint32_t tickCount() override { return base_->tickCount(); }
  SYSTEMTIME localTime() override { return fixedTime ? *fixedTime : base_->localTime(); }
  bool systemTimeToFileTime(const SYSTEMTIME& t, uint64_t* ft) override { return base_->systemTimeToFileTime(t, ft); }
  uint64_t fileTimeNow() override { return base_->fileTimeNow(); }
  void sleep(uint32_t ms) override { base_->sleep(ms); }
  std::unique_ptr<File> openFile(const std::wstring& path, FileOpen how, DWORD* error) override {
    if (failOpen) {
      if (error != nullptr) *error = ERROR_ACCESS_DENIED;
      return nullptr;
    }
    std::unique_ptr<File> file = base_->openFile(path, how, error);
    if (file != nullptr && failReads) return std::make_unique<FailingReads>(std::move(file));
    return file;
  }
  bool createDirectory(const std::wstring& path) override { return base_->createDirectory(path); }
  bool deleteFile(const std::wstring& path) override { return base_->deleteFile(path); }
  std::wstring currentDirectory() override { return base_->currentDirectory(); }
  DWORD logicalDrives() override { return base_->logicalDrives(); }
  UINT driveType(const std::wstring& root) override { return base_->driveType(root); }
  bool volumeLabel(const std::wstring& root, std::wstring* label) override { return base_->volumeLabel(root, label); }
  std::unique_ptr<CVolumeSystem> openVolume(wchar_t letter) override { return base_->openVolume(letter); }
  std::unique_ptr<OsHandle> openPipeClient(const std::wstring& name, DWORD* error) override {
    return base_->openPipeClient(name, error);
  }
  bool waitNamedPipe(const std::wstring& name, uint32_t ms) override { return base_->waitNamedPipe(name, ms); }
  void exitProcess(int status) override { base_->exitProcess(status); }

 private:
  class FailingReads : public File {
   public:
    explicit FailingReads(std::unique_ptr<File> f) : f_(std::move(f)) {}
    bool read(void*, uint32_t, uint32_t* done) override {
      *done = 0;
      return false;
    }
    bool write(const void* b, uint32_t n, uint32_t* done) override { return f_->write(b, n, done); }
    bool flush() override { return f_->flush(); }
    bool size(uint64_t* s) override { return f_->size(s); }

   private:
    std::unique_ptr<File> f_;
  };
  Env* base_;
};

// Installs an environment for the length of a scope.
class ScopedEnv {
 public:
  explicit ScopedEnv(Env* env) { Env::setCurrent(env); }
  ~ScopedEnv() { Env::setCurrent(nullptr); }
};

inline SYSTEMTIME makeTime(int h, int m, int s, int ms, int year = 2024, int month = 1, int day = 31) {
  SYSTEMTIME t{};
  t.wYear = static_cast<WORD>(year);
  t.wMonth = static_cast<WORD>(month);
  t.wDay = static_cast<WORD>(day);
  t.wDayOfWeek = 3;
  t.wHour = static_cast<WORD>(h);
  t.wMinute = static_cast<WORD>(m);
  t.wSecond = static_cast<WORD>(s);
  t.wMilliseconds = static_cast<WORD>(ms);
  return t;
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

// A fresh directory below the system's temporary directory, removed again
// at the end of the scope.
class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "glidewell-log-XXXXXX").string();
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    if (::mkdtemp(buf.data()) != nullptr) path_ = buf.data();
  }
  ~TempDir() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
  }
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
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

inline bool fileExists(const std::string& path) { return std::filesystem::exists(path); }

// Loads a configuration text through a file in dir.
inline bool loadText(LogManager* m, const TempDir& dir, const std::string& xml) {
  std::string path = dir.file("logconfig.xml");
  writeFile(path, xml);
  return m->loadConfig(widen(path));
}

}  // namespace testing_log
}  // namespace glidewell

#endif  // GLIDEWELL_TESTS_LOGGING_LOG_TEST_UTIL_H_

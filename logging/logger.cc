#include "logging/logger.h"

#include <cstdlib>
#include <map>
#include <mutex>

#include "platform/sync.h"
#include "platform/text.h"

namespace glidewell {

namespace {

// Process-wide tables. They are created on first use and never destroyed, so
// a logger that outlives static destruction (a detached thread) stays safe.
struct Tables {
  std::recursive_mutex lock;  // current-logger table, logger construction and destruction
  std::map<uint32_t, Logger*> current;
  std::mutex threadsLock;
  std::map<uint32_t, std::unique_ptr<LogThread>> threads;
  LogThread* mainThread = nullptr;
};

Tables& tables() {
  static Tables* t = new Tables;
  return *t;
}

LogThread* findThread(Tables& t, uint32_t id) {
  std::lock_guard<std::mutex> g(t.threadsLock);
  auto it = t.threads.find(id);
  return it == t.threads.end() ? nullptr : it->second.get();
}

LogThread* addThread(Tables& t, const std::string& name, uint32_t id) {
  std::lock_guard<std::mutex> g(t.threadsLock);
  auto entry = std::make_unique<LogThread>();
  entry->name = name;
  entry->id = id;
  entry->root = nullptr;
  LogThread* raw = entry.get();
  t.threads[id] = std::move(entry);
  if (t.mainThread == nullptr) t.mainThread = raw;
  return raw;
}

struct Band {
  const char* keyword;
  LogPriority value;
};
const Band kBands[] = {{"DBG", 200},      {"EMERGENCY", 300}, {"FATAL", 400},   {"ALERT", 500}, {"CRITICAL", 600},
                       {"ERR", 700},      {"WARNING", 800},   {"NOTICE", 900},  {"NOTSET", 1000}};
const char* const kDisplayNames[] = {"Informal", "Debug",  "Emergency", "Fatal", "Alert",
                                     "Critical", "Error",  "Warning",   "Notice"};

}  // namespace

std::string narrowForLog(const std::wstring& text) { return narrow(text); }

LogPriority parsePriority(const std::string& text) {
  std::string name = text;
  int offset = 0;
  size_t plus = text.find('+');
  if (plus != std::string::npos) {
    name = text.substr(0, plus);
    // Read like atoi (leading digits only, none gives 0), but without its
    // undefined behaviour on values that do not fit an int.
    long value = std::strtol(text.c_str() + plus + 1, nullptr, 10);
    if (value >= 100) value = 99;
    if (value < -100000) value = -100000;
    offset = static_cast<int>(value);
  }
  for (const Band& b : kBands) {
    std::string kw = b.keyword;
    if (name.compare(0, kw.size(), kw) == 0) return b.value + offset;
  }
  return kLogNotSet;
}

std::string priorityName(LogPriority p) {
  if (p >= 100 && p < 1000) {
    int band = p / 100;
    int offset = p - band * 100;
    std::string name = kDisplayNames[band - 1];
    if (offset > 0) name += "+" + std::to_string(offset);
    return name;
  }
  return "Invalid(" + std::to_string(p) + ")";
}

LogPriority priorityBand(LogPriority p) { return (p >= 100 && p < 1000) ? (p / 100) * 100 : kLogNotSet; }

LogRecord::LogRecord(LogRecord&& other) noexcept
    : logger_(other.logger_),
      priority_(other.priority_),
      text_(std::move(other.text_)),
      properties_(std::move(other.properties_)) {}

LogRecord::~LogRecord() { send(); }

LogRecord& LogRecord::operator<<(const std::wstring& value) {
  if (priority_ == kLogNotSet) return *this;
  buffer() << narrow(value);
  return *this;
}

LogRecord& LogRecord::operator<<(const wchar_t* value) {
  return *this << std::wstring(value != nullptr ? value : L"");
}

void LogRecord::send() {
  if (!text_) return;
  std::string text = text_->str();
  text_.reset();
  if (logger_ != nullptr) logger_->write(priority_, text, properties_);
}

Logger::Logger(Root, const std::string& name) : name_(name) {
  Tables& t = tables();
  std::lock_guard<std::recursive_mutex> g(t.lock);
  uint32_t id = currentThreadId();
  Logger*& slot = t.current[id];
  savedCurrent_ = slot;
  slot = this;
  LogThread* thread = findThread(t, id);
  if (thread == nullptr) thread = addThread(t, name, id);
  thread->root = this;
  LogThread* mainThread = t.mainThread;
  if (thread != mainThread && mainThread != nullptr && mainThread->root != nullptr) {
    for (Appender* a : mainThread->root->appenders_) addAppender(a, false);
  }
}

Logger::Logger(const std::string& name, Logger* parent) {
  Tables& t = tables();
  std::lock_guard<std::recursive_mutex> g(t.lock);
  uint32_t id = currentThreadId();
  Logger* current = nullptr;
  auto it = t.current.find(id);
  if (it != t.current.end()) current = it->second;
  if (parent != nullptr) {
    parent_ = parent;
  } else if (current != this) {
    parent_ = current;
  }
  if (parent_ != nullptr) {
    for (Appender* a : parent_->appenders_) addAppender(a, false);
  }
  name_ = name;
  t.current[id] = this;
}

Logger::~Logger() {
  Tables& t = tables();
  std::lock_guard<std::recursive_mutex> g(t.lock);
  uint32_t id = currentThreadId();
  t.current[id] = savedCurrent_ != nullptr ? savedCurrent_ : parent_;
  // A root that goes away must not be read again through its thread entry.
  std::lock_guard<std::mutex> tg(t.threadsLock);
  for (auto& entry : t.threads) {
    if (entry.second->root == this) entry.second->root = nullptr;
  }
}

namespace {
thread_local int muteDepth = 0;
}

ScopedLogMute::ScopedLogMute() { ++muteDepth; }
ScopedLogMute::~ScopedLogMute() { --muteDepth; }
bool ScopedLogMute::active() { return muteDepth > 0; }

void Logger::write(LogPriority priority, const std::string& text, const LogPropertyList& properties) const {
  if (muteDepth > 0) return;
  LoggingEvent event{this, text, priority, &properties};
  for (Appender* a : configuredAppenders()) appendThroughFilters(a, event);
  for (Appender* a : appenders_) appendThroughFilters(a, event);
}

void Logger::addAppender(Appender* appender, bool clearFirst) {
  if (clearFirst) appenders_.clear();
  if (appender != nullptr) appenders_.push_back(appender);
}

void setThreadName(const std::string& name) {
  Tables& t = tables();
  uint32_t id = currentThreadId();
  LogThread* thread = findThread(t, id);
  if (thread == nullptr) {
    addThread(t, name, id);
  } else {
    std::lock_guard<std::mutex> g(t.threadsLock);
    thread->name = name;
  }
}

const LogThread* currentLogThread() { return findThread(tables(), currentThreadId()); }

Logger* currentLogger() {
  Tables& t = tables();
  std::lock_guard<std::recursive_mutex> g(t.lock);
  auto it = t.current.find(currentThreadId());
  return it == t.current.end() ? nullptr : it->second;
}

}  // namespace glidewell

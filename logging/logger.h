// The core of the engine's logging library: priorities, named logging contexts
// (Logger), the statement-shaped message builder (LogRecord) with structured
// fields (LogProperty), and the per-thread bookkeeping.
//
// A call site reads as one statement:
//
//   Logger log("processFile");
//   log.log(700) << "Error during processFile." << LogProperty("Error", code)
//                << LogProperty("FileName", path);
//
// The temporary record sends exactly one message when the statement ends.
// There is no threshold here: every message is handed to every output, and
// only the outputs' filters drop messages. Priority 1000 ("not set") switches
// a message off before anything is built.
#ifndef GLIDEWELL_LOGGING_LOGGER_H_
#define GLIDEWELL_LOGGING_LOGGER_H_

#include <cstdint>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace glidewell {

using LogPriority = int32_t;

enum : LogPriority {
  kLogInformal = 100,
  kLogDebug = 200,
  kLogEmergency = 300,
  kLogFatal = 400,
  kLogAlert = 500,
  kLogCritical = 600,
  kLogError = 700,
  kLogWarning = 800,
  kLogNotice = 900,
  kLogNotSet = 1000,
};

// "ERR" -> 700, "WARNING+5" -> 805, "DBG+250" -> 299; unknown names -> 1000.
LogPriority parsePriority(const std::string& text);
// 100 -> "Informal", 705 -> "Error+5", 99 -> "Invalid(99)".
std::string priorityName(LogPriority p);
// The band base (100..900) for 100 <= p < 1000, else 1000.
LogPriority priorityBand(LogPriority p);

std::string narrowForLog(const std::wstring& text);

// A named value with child values, attached to a message. Copies are deep.
class LogProperty {
 public:
  LogProperty(std::string name, std::string value) : name_(std::move(name)), value_(std::move(value)) {}
  LogProperty(std::string name, const char* value) : name_(std::move(name)), value_(value != nullptr ? value : "") {}
  LogProperty(std::string name, const std::wstring& value) : name_(std::move(name)), value_(narrowForLog(value)) {}
  LogProperty(std::string name, const wchar_t* value)
      : name_(std::move(name)), value_(narrowForLog(value != nullptr ? value : L"")) {}
  template <typename T>
  LogProperty(std::string name, const T& value) : name_(std::move(name)) {
    std::ostringstream s;
    s << value;
    value_ = s.str();
  }
  virtual ~LogProperty() = default;

  LogProperty& operator<<(const LogProperty& child) {
    children_.push_back(child);
    return *this;
  }

  const std::string& name() const { return name_; }
  const std::string& value() const { return value_; }
  const std::vector<LogProperty>& children() const { return children_; }

 private:
  std::string name_;
  std::string value_;
  std::vector<LogProperty> children_;
};

using LogPropertyList = std::vector<LogProperty>;

class Logger;
class Appender;

// What a Logger hands to each output. The property list is valid only during
// the hand-over. It carries no time and no thread: the layout reads both when
// it formats.
struct LoggingEvent {
  LoggingEvent(const Logger* logger, std::string message, LogPriority priority, const LogPropertyList* properties)
      : logger(logger), message(std::move(message)), priority(priority), properties(properties) {}
  const Logger* logger;
  std::string message;
  LogPriority priority;
  const LogPropertyList* properties;
  virtual ~LoggingEvent() = default;
};

// One thread known to the logging library.
struct LogThread {
  std::string name;
  uint32_t id;
  Logger* root;
  virtual ~LogThread() = default;
};

// The explicit send marker: `log.log(500) << "Log started" << logSend;`
struct LogSend {};
constexpr LogSend logSend{};

// One message being built. Sends itself when destroyed (or on logSend) if any
// text was written.
class LogRecord {
 public:
  LogRecord(const Logger* logger, LogPriority priority) : logger_(logger), priority_(priority) {}
  LogRecord(LogRecord&& other) noexcept;
  LogRecord(const LogRecord&) = delete;
  LogRecord& operator=(const LogRecord&) = delete;
  virtual ~LogRecord();

  template <typename T>
  LogRecord& operator<<(const T& value) {
    if (priority_ == kLogNotSet) return *this;
    buffer() << value;
    return *this;
  }
  LogRecord& operator<<(const std::wstring& value);
  LogRecord& operator<<(const wchar_t* value);
  LogRecord& operator<<(const LogProperty& property) {
    properties_.push_back(property);
    return *this;
  }
  LogRecord& operator<<(const LogSend&) {
    send();
    return *this;
  }

  LogPriority priority() const { return priority_; }
  const LogPropertyList& properties() const { return properties_; }

 private:
  std::ostringstream& buffer() {
    if (!text_) text_ = std::make_unique<std::ostringstream>();
    return *text_;
  }
  void send();

  const Logger* logger_;
  LogPriority priority_;
  std::unique_ptr<std::ostringstream> text_;
  LogPropertyList properties_;
};

// A named logging context. Child loggers are made on the stack for the length
// of a function ("engine::start", "processFile"); root loggers once per thread
// ("main", "runthread"). A Logger is used only by the thread that made it, and
// loggers of one thread are destroyed in reverse order of construction.
class Logger {
 public:
  struct Root {};
  static constexpr Root kRoot{};

  // A root for the calling thread.
  Logger(Root, const std::string& name);
  // A scope logger; its parent is the given one or the thread's current logger.
  explicit Logger(const std::string& name, Logger* parent = nullptr);
  virtual ~Logger();
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  LogRecord log(LogPriority priority) const { return LogRecord(this, priority); }
  virtual void write(LogPriority priority, const std::string& text, const LogPropertyList& properties) const;
  void addAppender(Appender* appender, bool clearFirst);

  const std::string& name() const { return name_; }
  const Logger* parent() const { return parent_; }
  const std::vector<Appender*>& appenders() const { return appenders_; }

 private:
  std::vector<Appender*> appenders_;
  Logger* parent_ = nullptr;
  Logger* savedCurrent_ = nullptr;
  std::string name_;
};

// While one exists on a thread, nothing that thread logs reaches any output.
// For work that runs engine code but is not the engine's own business, such
// as writing a simulated disk back to its image file.
class ScopedLogMute {
 public:
  ScopedLogMute();
  ~ScopedLogMute();
  ScopedLogMute(const ScopedLogMute&) = delete;
  ScopedLogMute& operator=(const ScopedLogMute&) = delete;
  static bool active();
};

// Registers the calling thread under a name, or renames it.
void setThreadName(const std::string& name);
// The calling thread's entry, or null when it never registered.
const LogThread* currentLogThread();
// The calling thread's innermost open logger, or null.
Logger* currentLogger();

// Provided by the outputs (logging/log_manager.cc, logging/appender.cc):
// the configuration's appenders in creation order, and the hand-over of one
// event to one appender through its filter chain.
const std::vector<Appender*>& configuredAppenders();
void appendThroughFilters(Appender* appender, const LoggingEvent& event);

}  // namespace glidewell

#endif  // GLIDEWELL_LOGGING_LOGGER_H_

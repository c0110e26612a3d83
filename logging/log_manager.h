// LogManager: the process-wide owner of the logging configuration. It creates
// the appenders, filters and layouts that logconfig.xml describes through
// factory functions, keeps them in lists, links them, and deletes them when it
// is itself deleted at de-initialisation. Its appender list is the list to
// which every message is handed (Logger::write).
//
// The configuration is loaded once, on the initialising thread, before any
// other thread logs; while messages flow it is read-only, and it is released
// only after every other thread has stopped logging. Nothing here is locked.
#ifndef GLIDEWELL_LOGGING_LOG_MANAGER_H_
#define GLIDEWELL_LOGGING_LOG_MANAGER_H_

#include <functional>
#include <string>
#include <vector>

#include "logging/appender.h"
#include "logging/configurable.h"
#include "logging/filter.h"
#include "logging/layout.h"

namespace glidewell {

// A factory pair: make an object from a type name ("FileAppender", "priority",
// "SimpleLayout"), or null for a name it does not know; and delete an object
// it made.
struct LogObjectFactory {
  std::function<Configurable*(const std::string& type)> create;
  std::function<void(Configurable*)> destroy;
};

class LogManager {
 public:
  // The process-wide manager, created (with no factories and empty lists) on
  // first use.
  static LogManager* instance();
  // The manager if one exists, else null; never creates one.
  static LogManager* existing();
  // Deletes the manager and every object it owns; the next instance() makes
  // a fresh one.
  static void release();

  virtual ~LogManager();
  LogManager(const LogManager&) = delete;
  LogManager& operator=(const LogManager&) = delete;

  // The engine registers only the generic pair, which serves every kind.
  // A kind's own pair is asked first when it is set.
  void setGenericFactory(LogObjectFactory factory) { generic_ = std::move(factory); }
  void setAppenderFactory(LogObjectFactory factory) { appenderFactory_ = std::move(factory); }
  void setFilterFactory(LogObjectFactory factory) { filterFactory_ = std::move(factory); }
  void setLayoutFactory(LogObjectFactory factory) { layoutFactory_ = std::move(factory); }

  // Reads the configuration file (a Windows path) and creates, configures and
  // links every object it describes. True when the file was read and parsed.
  // A missing, empty, unreadable or malformed file gives false and no
  // objects; objects made before a later failure stay and are released with
  // the manager. Defined in log_config.cc.
  bool loadConfig(const std::wstring& path);

  // Appenders in creation order (= their order in the file).
  const std::vector<Appender*>& appenders() const { return appenders_; }
  // Filters and layouts made by their kinds' own factories, and those made
  // by the generic one.
  const std::vector<Filter*>& filters() const { return filters_; }
  const std::vector<Layout*>& layouts() const { return layouts_; }
  const std::vector<Configurable*>& genericObjects() const { return genericObjects_; }

  // Make one object of a kind through the kind's pair, then the generic pair,
  // and take ownership of it. Null when no factory knows the type, or when it
  // made an object of another kind (which is deleted again).
  Appender* createAppender(const std::string& type);
  Filter* createFilter(const std::string& type);
  Layout* createLayout(const std::string& type);

 private:
  LogManager() = default;

  // Asks the kind's pair, then the generic pair; *byKind tells which made it.
  Configurable* make(const LogObjectFactory& kindFactory, const std::string& type, bool* byKind);
  // The object as the wanted kind, or null after deleting an object of
  // another kind through the pair that made it.
  template <typename Kind>
  Kind* adopt(Configurable* made, const LogObjectFactory& maker);
  // A filter or layout: kept in the kind's list when the kind's pair made it,
  // in the generic list otherwise.
  template <typename Kind>
  Kind* createPart(const LogObjectFactory& kindFactory, const std::string& type, std::vector<Kind*>* kindList);

  LogObjectFactory appenderFactory_;
  LogObjectFactory filterFactory_;
  LogObjectFactory layoutFactory_;
  LogObjectFactory generic_;
  std::vector<Appender*> appenders_;
  std::vector<Filter*> filters_;
  std::vector<Layout*> layouts_;
  std::vector<Configurable*> genericObjects_;
};

}  // namespace glidewell

#endif  // GLIDEWELL_LOGGING_LOG_MANAGER_H_

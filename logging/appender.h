// Appender: one output of the logging library (a log file, standard output).
// Every message of every thread is handed to every configured appender; the
// appender's filter chain may drop it, and its layout (if any) shapes the line.
#ifndef GLIDEWELL_LOGGING_APPENDER_H_
#define GLIDEWELL_LOGGING_APPENDER_H_

#include <memory>
#include <string>

#include "logging/configurable.h"
#include "logging/filter.h"
#include "logging/layout.h"
#include "logging/logger.h"
#include "platform/sync.h"

namespace glidewell {

class Appender : public Configurable {
 public:
  // Writes one message. Never reports a failure: an output that cannot
  // write loses the message and carries on.
  virtual void append(const LoggingEvent& event) = 0;

  // Not owned: the LogManager owns layouts and filters.
  Layout* layout() const { return layout_; }
  void setLayout(Layout* layout) { layout_ = layout; }
  Filter* filter() const { return filter_; }
  void setFilter(Filter* filter) { filter_ = filter; }

 protected:
  // The layout's line, or the bare message text when there is no layout.
  std::string render(const LoggingEvent& event) const {
    return layout_ != nullptr ? layout_->format(event) : event.message;
  }

 private:
  Layout* layout_ = nullptr;
  Filter* filter_ = nullptr;
};

// The "multithreading" setting of an appender: when on, formatting and writing
// of one message happen under the appender's own lock, so that lines from
// different threads never interleave. When off, no lock exists and the
// configuration must not share the appender between threads that log at once.
class AppenderSerializer {
 public:
  // Creates the lock when turned on; deletes it when turned off.
  void enable(bool on);
  bool enabled() const { return lock_ != nullptr; }

  // Holds the lock (when there is one) for the length of a scope.
  class Scope {
   public:
    explicit Scope(const AppenderSerializer& s) : lock_(s.lock_.get()) {
      if (lock_ != nullptr) lock_->lock();
    }
    ~Scope() {
      if (lock_ != nullptr) lock_->unlock();
    }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    RecursiveLock* lock_;
  };

 private:
  std::unique_ptr<RecursiveLock> lock_;
};

}  // namespace glidewell

#endif  // GLIDEWELL_LOGGING_APPENDER_H_

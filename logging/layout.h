// Layout: turns a message into the text of one log line.
#ifndef GLIDEWELL_LOGGING_LAYOUT_H_
#define GLIDEWELL_LOGGING_LAYOUT_H_

#include <string>

#include "logging/configurable.h"
#include "logging/logger.h"

namespace glidewell {

class Layout : public Configurable {
 public:
  // The full line (the appender adds the line end).
  virtual std::string format(const LoggingEvent& event) const = 0;
  // A short form: time and text only.
  virtual std::string formatBrief(const LoggingEvent& event) const = 0;
};

}  // namespace glidewell

#endif  // GLIDEWELL_LOGGING_LAYOUT_H_

// StdAppender ("StdAppender" in logconfig.xml): writes each message as one
// line to the process's standard output and flushes it.
#ifndef GLIDEWELL_LOGGING_STD_APPENDER_H_
#define GLIDEWELL_LOGGING_STD_APPENDER_H_

#include <iosfwd>

#include "logging/appender.h"

namespace glidewell {

class StdAppender : public Appender {
 public:
  StdAppender();
  // Writes to another stream instead (tests). The stream must outlive the appender.
  explicit StdAppender(std::ostream& out) : out_(out) {}

  // Setting: "multithreading" (default "false").
  void configure() override;
  void append(const LoggingEvent& event) override;

  bool multithreading() const { return serializer_.enabled(); }

 private:
  std::ostream& out_;
  AppenderSerializer serializer_;
};

}  // namespace glidewell

#endif  // GLIDEWELL_LOGGING_STD_APPENDER_H_

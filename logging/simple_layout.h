// SimpleLayout ("SimpleLayout" in logconfig.xml): the engine's log line.
//
//   (09:45:02.17)(MainThread)(Alert) main: -> Log started
//   Version: 1.06m
//
// Time, thread and priority columns are optional; the path is the names of
// the message's logger and its ancestors, root first, joined by "."; the
// message's properties follow on lines of their own, indented one space per
// nesting level.
#ifndef GLIDEWELL_LOGGING_SIMPLE_LAYOUT_H_
#define GLIDEWELL_LOGGING_SIMPLE_LAYOUT_H_

#include <string>

#include "logging/layout.h"
#include "platform/wintypes.h"

namespace glidewell {

class SimpleLayout : public Layout {
 public:
  // Settings: "includeTime", "includeTime/timeformat" (default "%X", read
  // only when includeTime is on), "includeThread", "includePriorities",
  // "includeProperties" (booleans, default "false").
  void configure() override;
  std::string format(const LoggingEvent& event) const override;
  std::string formatBrief(const LoggingEvent& event) const override;

  // The time column for a moment: "%ms" gives hh:mm:ss.<milliseconds without
  // leading zeros>; any other text is a strftime format. Conversions that not
  // every C runtime knows are printed literally rather than handed to
  // strftime (some runtimes end the process on an unknown conversion).
  static std::string timeText(const std::string& format, const SYSTEMTIME& now);
  // The logger path: "runthread.engine::start".
  static std::string loggerPath(const Logger* logger);
  // The property lines: "A: 1\n B: 2\n" (one leading space per level).
  static void renderProperties(const LogPropertyList& properties, int depth, std::string* out);

 private:
  bool includePriorities_ = false;
  bool includeProperties_ = false;
  bool includeTime_ = false;
  bool includeThread_ = false;
  std::string timeFormat_;
};

}  // namespace glidewell

#endif  // GLIDEWELL_LOGGING_SIMPLE_LAYOUT_H_

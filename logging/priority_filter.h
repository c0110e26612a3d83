// PriorityFilter ("priority" in logconfig.xml): matches one priority value,
// or one band of 100 with "complete", never a range. In "deny" mode it drops
// the matching messages; in any other mode it drops all the others.
#ifndef GLIDEWELL_LOGGING_PRIORITY_FILTER_H_
#define GLIDEWELL_LOGGING_PRIORITY_FILTER_H_

#include "logging/filter.h"

namespace glidewell {

class PriorityFilter : public Filter {
 public:
  // Settings: "priority" (default "DBG", read with parsePriority),
  // "complete" (default "false"), "mode" (default "deny").
  void configure() override;
  // -1 or 0, never "keep": a later filter may still drop the message.
  int decide(const LoggingEvent& event) const override;

  bool complete() const { return complete_; }
  LogPriority priority() const { return priority_; }
  bool deny() const { return deny_; }

 private:
  bool complete_ = false;
  LogPriority priority_ = kLogDebug;
  bool deny_ = true;
};

}  // namespace glidewell

#endif  // GLIDEWELL_LOGGING_PRIORITY_FILTER_H_

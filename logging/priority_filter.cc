#include "logging/priority_filter.h"

namespace glidewell {

void PriorityFilter::configure() {
  std::string priorityText = setting("priority", "DBG");
  std::string completeText = setting("complete", "false");
  std::string modeText = setting("mode", "deny");
  priority_ = parsePriority(priorityText);
  complete_ = settingIsTrue(completeText);
  if (complete_) priority_ = priorityBand(priority_);
  deny_ = modeText == "deny";
}

int PriorityFilter::decide(const LoggingEvent& event) const {
  LogPriority p = complete_ ? priorityBand(event.priority) : event.priority;
  bool matches = p == priority_;
  if (deny_) return matches ? kFilterDrop : kFilterNoOpinion;
  return matches ? kFilterNoOpinion : kFilterDrop;
}

}  // namespace glidewell

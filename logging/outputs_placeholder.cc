// Until the configured outputs exist, messages go nowhere.
#include "logging/logger.h"

namespace glidewell {

const std::vector<Appender*>& configuredAppenders() {
  static const std::vector<Appender*> none;
  return none;
}

void appendThroughFilters(Appender*, const LoggingEvent&) {}

}  // namespace glidewell

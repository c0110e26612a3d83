#include "logging/appender.h"

namespace glidewell {

void appendThroughFilters(Appender* appender, const LoggingEvent& event) {
  if (appender == nullptr) return;
  if (appender->filter() != nullptr && runFilterChain(appender->filter(), event) == kFilterDrop) return;
  appender->append(event);
}

void AppenderSerializer::enable(bool on) {
  if (on && lock_ == nullptr) lock_ = std::make_unique<RecursiveLock>();
  if (!on) lock_.reset();
}

}  // namespace glidewell

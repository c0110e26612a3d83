// Filter: one link of an appender's filter chain. A filter looks at a message
// and votes: drop it, keep it, or no opinion (ask the next filter).
#ifndef GLIDEWELL_LOGGING_FILTER_H_
#define GLIDEWELL_LOGGING_FILTER_H_

#include "logging/configurable.h"
#include "logging/logger.h"

namespace glidewell {

enum : int {
  kFilterDrop = -1,
  kFilterNoOpinion = 0,
  // Any other value keeps the message without asking further filters.
};

class Filter : public Configurable {
 public:
  virtual int decide(const LoggingEvent& event) const = 0;

  // The next filter of the chain (not owned: the LogManager owns filters).
  Filter* next() const { return next_; }
  void setNext(Filter* next) { next_ = next; }

 private:
  Filter* next_ = nullptr;
};

// Runs the chain from first: the first vote that is not "no opinion" wins;
// when every filter abstains the result is 0.
int runFilterChain(const Filter* first, const LoggingEvent& event);

}  // namespace glidewell

#endif  // GLIDEWELL_LOGGING_FILTER_H_

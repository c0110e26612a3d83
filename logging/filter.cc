#include "logging/filter.h"

namespace glidewell {

int runFilterChain(const Filter* first, const LoggingEvent& event) {
  int vote = kFilterNoOpinion;
  for (const Filter* f = first; f != nullptr; f = f->next()) {
    vote = f->decide(event);
    if (vote != kFilterNoOpinion) break;
  }
  return vote;
}

}  // namespace glidewell

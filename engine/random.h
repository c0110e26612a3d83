// The process-wide MT19937 generator from which the smart driver picks volumes.
#ifndef GLIDEWELL_ENGINE_RANDOM_H_
#define GLIDEWELL_ENGINE_RANDOM_H_

#include <cstdint>

namespace glidewell {

void seedEngineRandom(uint32_t seed);
uint32_t nextEngineRandom();

}  // namespace glidewell

#endif  // GLIDEWELL_ENGINE_RANDOM_H_

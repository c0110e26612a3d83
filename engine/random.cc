#include "engine/random.h"

#include <mutex>
#include <random>

namespace glidewell {

namespace {
std::mutex randomLock;  // seeded from host threads, drawn from workers
std::mt19937& generator() {
  static std::mt19937 g;
  return g;
}
}  // namespace

void seedEngineRandom(uint32_t seed) {
  std::lock_guard<std::mutex> guard(randomLock);
  generator().seed(seed);
}

uint32_t nextEngineRandom() {
  std::lock_guard<std::mutex> guard(randomLock);
  return static_cast<uint32_t>(generator()());
}

}  // namespace glidewell

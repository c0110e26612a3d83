#include "platform/env.h"

#include <atomic>

#include "volume/volume_system.h"

namespace glidewell {

namespace {
std::atomic<Env*> installed{nullptr};
}

Env* Env::current() {
  Env* env = installed.load(std::memory_order_acquire);
  return env != nullptr ? env : system();
}

void Env::setCurrent(Env* env) { installed.store(env, std::memory_order_release); }

std::unique_ptr<CVolumeSystem> EnvWrapper::openVolume(wchar_t driveLetter) {
  return target_->openVolume(driveLetter);
}

}  // namespace glidewell

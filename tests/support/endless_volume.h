// EndlessVolume: a volume on which a worker keeps running until it is
// stopped. Its root holds one file; building the free-space snapshot for it
// reads a bitmap that never ends (every reply says there is more), and the
// worker checks for pause and stop after every reply. The reply count shows
// whether the worker is making progress.
#ifndef GLIDEWELL_TESTS_SUPPORT_ENDLESS_VOLUME_H_
#define GLIDEWELL_TESTS_SUPPORT_ENDLESS_VOLUME_H_

#include <atomic>
#include <functional>
#include <memory>

#include "volume/volume_system.h"

namespace glidewell {

struct EndlessVolumeProbe {
  std::atomic<long> bitmapReplies{0};
  std::atomic<long> listings{0};
  // When set, runs at the start of every directory listing (it may throw).
  std::function<void()> onListing;
};

std::unique_ptr<CVolumeSystem> makeEndlessVolume(wchar_t letter, std::shared_ptr<EndlessVolumeProbe> probe);

}  // namespace glidewell

#endif  // GLIDEWELL_TESTS_SUPPORT_ENDLESS_VOLUME_H_

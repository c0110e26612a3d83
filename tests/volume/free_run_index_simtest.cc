// A pass over a cloned aged disk with the free-run index and without it must
// leave byte-identical disks: the index answers every search as the walks do,
// so every mover makes the same choice.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "config/dfrg_config.h"
#include "engine/dfrg_context.h"
#include "engine/dfrg_thread.h"
#include "platform/env.h"
#include "sim/sim_aging.h"
#include "sim/sim_volume_system.h"
#include "support/fake_env.h"
#include "volume/extent_snapshot.h"
#include "volume/free_run_index.h"

namespace glidewell {
namespace {

// A clock that stands still: no incremental update ever looks slower than a
// full build, so both passes take the same decisions whatever the machine's load.
class FrozenClockEnv : public EnvWrapper {
 public:
  FrozenClockEnv() : EnvWrapper(Env::system()) {}
  uint32_t timeGetTime() override { return 1000000; }
};

struct Outcome {
  std::vector<SimFileInfo> files;
  std::vector<uint8_t> bitmap;
  int64_t counters[5];
  std::string verify;
};

Outcome passOver(const SimDisk& aged, bool indexed, DWORD maxExtentListSize, bool moveLeft) {
  setFreeRunIndexEnabled(indexed);
  auto config = CDfrgConfig::detached();
  config->overrideMaxExtentListSize(maxExtentListSize);
  std::shared_ptr<SimDisk> disk = aged.clone();
  DfrgThread thread("");
  thread.setConfig(config.get());
  {
    CDfrgContext ctx(std::make_unique<SimVolumeSystem>(disk, L'C'), 0, config.get());
    config->setDoMoveBetterPlace(true);
    config->setDoMoveLeft(moveLeft);
    int changed = 0;
    thread.walkDirectory(ctx, L"C:", L"", false, false, false, &changed);
    EXPECT_EQ(ctx.snapshot->freeExtents.index() != nullptr, indexed);
    updateSnapshotRange(ctx, 0, kNoCluster);
  }
  setFreeRunIndexEnabled(true);
  return Outcome{disk->listAll(),
                 disk->bitmapBytes(),
                 {thread.passCounters().processed, thread.passCounters().defragged, thread.passCounters().moved, thread.passCounters().errors,
                  thread.passCounters().nonDefraggable},
                 disk->verify()};
}

bool sameFiles(const std::vector<SimFileInfo>& a, const std::vector<SimFileInfo>& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (a[i].path != b[i].path || a[i].attributes != b[i].attributes || a[i].size != b[i].size ||
        !(a[i].runs == b[i].runs)) {
      return false;
    }
  }
  return true;
}

TEST(FreeRunIndexSimTest, PassesWithAndWithoutTheIndexLeaveIdenticalDisks) {
  FrozenClockEnv clock;
  ScopedEnv env(&clock);
  SimAgingOptions options;
  options.seed = 31;
  options.totalClusters = 4000 * 48;
  options.maxFiles = 4000;
  std::string error;
  std::unique_ptr<SimDisk> aged = ageDisk(options, &error);
  ASSERT_TRUE(aged) << error;
  const std::vector<uint8_t> before = aged->bitmapBytes();

  // The pass loop's settings, the left-border move as the smart driver has
  // it, and a list cap that keeps evicting runs.
  struct Case {
    DWORD cap;
    bool moveLeft;
  };
  for (Case c : {Case{CDfrgConfig::kDefaultMaxExtentListSize, false}, Case{CDfrgConfig::kDefaultMaxExtentListSize, true},
                 Case{40, false}, Case{40, true}}) {
    SCOPED_TRACE("cap " + std::to_string(c.cap) + (c.moveLeft ? ", moving left" : ""));
    Outcome linear = passOver(*aged, false, c.cap, c.moveLeft);
    Outcome indexed = passOver(*aged, true, c.cap, c.moveLeft);
    EXPECT_EQ(linear.verify, "");
    EXPECT_EQ(indexed.verify, "");
    EXPECT_NE(indexed.bitmap, before);  // the pass did move files
    EXPECT_TRUE(sameFiles(linear.files, indexed.files));
    EXPECT_EQ(linear.bitmap, indexed.bitmap);
    for (int k = 0; k < 5; ++k) EXPECT_EQ(linear.counters[k], indexed.counters[k]) << "counter " << k;
  }
}

}  // namespace
}  // namespace glidewell

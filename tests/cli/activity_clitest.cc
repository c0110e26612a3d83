// User activity on simulated drives: catches a kind of change that never
// happens, changes that break a disk, choices that do not follow the seed,
// and names that clash with an earlier run's files.
#include <gtest/gtest.h>

#include "cli/activity.h"
#include "sim/sim_aging.h"

namespace glidewell {
namespace {

std::shared_ptr<SimDisk> aged(uint64_t seed) {
  SimAgingOptions o;
  o.seed = seed;
  o.totalClusters = 8192;
  o.fillRatio = 0.5;
  std::string error;
  std::shared_ptr<SimDisk> disk = ageDisk(o, &error);
  EXPECT_NE(disk, nullptr) << error;
  return disk;
}

std::vector<std::wstring> paths(const SimDisk& disk) {
  std::vector<std::wstring> out;
  for (const SimFileInfo& f : disk.listAll()) out.push_back(f.path);
  return out;
}

TEST(UserActivity, EveryKindOfChangeFollowsTheSeedAndKeepsTheDisksWhole) {
  auto a = aged(1), b = aged(1), other = aged(1);
  UserActivity first({a}, 100, 42), second({b}, 100, 42), third({other}, 100, 43);
  for (int i = 0; i < 3000; ++i) {
    first.step();
    second.step();
    third.step();
  }
  ActivityCounts c = first.counts();
  EXPECT_GT(c.created, 0u);
  EXPECT_GT(c.extended, 0u);
  EXPECT_GT(c.truncated, 0u);
  EXPECT_GT(c.renamed, 0u);
  EXPECT_GT(c.deleted, 0u);
  EXPECT_EQ(c.refused, 0u);
  EXPECT_EQ(a->verify(), "");
  EXPECT_EQ(paths(*a), paths(*b));
  EXPECT_NE(paths(*a), paths(*other));

  // A second run with the same seed on the changed disk makes new names.
  UserActivity again({a}, 100, 42);
  for (int i = 0; i < 500; ++i) again.step();
  EXPECT_EQ(again.counts().refused, 0u);
  EXPECT_EQ(a->verify(), "");
}

}  // namespace
}  // namespace glidewell

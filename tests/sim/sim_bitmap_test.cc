// The bitmap and the allocator of the simulated disk, against a plain model.
#include "sim/sim_bitmap.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "sim/sim_allocator.h"

namespace glidewell {
namespace {

TEST(SimBitmapTest, AgreesWithABoolModelUnderRandomRangeOperations) {
  for (uint64_t seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 rng(seed);
    uint64_t size = 1 + rng() % 700;  // rarely a multiple of 64
    SimBitmap bitmap(size);
    std::vector<bool> model(size, false);
    for (int step = 0; step < 300; ++step) {
      uint64_t a = rng() % size, n = 1 + rng() % (size - a);
      if (rng() % 2) {
        bitmap.set(a, n);
        for (uint64_t i = a; i < a + n; ++i) model[i] = true;
      } else {
        bitmap.clear(a, n);
        for (uint64_t i = a; i < a + n; ++i) model[i] = false;
      }
      uint64_t q = rng() % size, m = 1 + rng() % (size - q);
      bool free = true, used = true;
      for (uint64_t i = q; i < q + m; ++i) (model[i] ? free : used) = false;
      ASSERT_EQ(bitmap.allFree(q, m), free);
      ASSERT_EQ(bitmap.allUsed(q, m), used);
      uint64_t nextFree = q, nextUsed = q, count = 0;
      while (nextFree < size && model[nextFree]) ++nextFree;
      while (nextUsed < size && !model[nextUsed]) ++nextUsed;
      for (bool b : model) count += b;
      ASSERT_EQ(bitmap.nextFree(q), nextFree);
      ASSERT_EQ(bitmap.nextUsed(q), nextUsed);
      ASSERT_EQ(bitmap.usedCount(), count);
    }
    std::vector<uint8_t> bytes((size + 7) / 8 + 2, 0xEE);
    bitmap.copyBytes(0, bytes.data(), bytes.size());
    for (uint64_t i = 0; i < size; ++i) ASSERT_EQ((bytes[i / 8] >> (i % 8)) & 1, model[i] ? 1 : 0) << i;
    EXPECT_EQ(bytes.back(), 0);  // past the end: nothing in use
    EXPECT_FALSE(bitmap.allFree(size - 1, 2));  // ranges that leave the volume
  }
}

TEST(SimBitmapTest, LoadingBytesIgnoresBitsPastTheLastCluster) {
  SimBitmap bitmap(13);
  const uint8_t bytes[] = {0xFF, 0xFF};
  bitmap.loadBytes(bytes, 2);
  EXPECT_EQ(bitmap.usedCount(), 13u);
  EXPECT_EQ(bitmap.nextFree(0), 13u);
  const uint8_t some[] = {0x0F};
  bitmap.loadBytes(some, 1);
  EXPECT_EQ(bitmap.usedCount(), 4u + 5u);
  EXPECT_EQ(bitmap.nextFree(0), 4u);
}

class SimAllocatorTest : public ::testing::Test {
 protected:
  SimAllocatorTest() : bitmap(1000), allocator(bitmap) {}
  std::vector<SimPiece> allocate(uint64_t n, uint64_t hint = ~uint64_t{0}) {
    std::vector<SimPiece> pieces;
    EXPECT_TRUE(allocator.allocate(n, hint, &pieces));
    return pieces;
  }
  SimBitmap bitmap;
  SimAllocator allocator;
};

TEST_F(SimAllocatorTest, NextFitSkipsHolesThatAreTooSmallAndMovesThePointer) {
  bitmap.set(0, 1000);
  bitmap.clear(10, 5);    // too small
  bitmap.clear(100, 50);  // fits
  bitmap.clear(300, 50);
  auto pieces = allocate(20);
  ASSERT_EQ(pieces.size(), 1u);
  EXPECT_EQ(pieces[0].lcn, 100u);
  EXPECT_EQ(allocator.pointer(), 120u);
  // The next request continues after the pointer, not at the start.
  EXPECT_EQ(allocate(5)[0].lcn, 120u);
}

TEST_F(SimAllocatorTest, AGrowingFileTakesTheClustersAfterItThenFragments) {
  bitmap.set(0, 1000);
  bitmap.clear(50, 4);
  bitmap.clear(400, 100);
  allocator.setPointer(300);
  auto pieces = allocate(10, 50);
  ASSERT_EQ(pieces.size(), 2u);
  EXPECT_EQ(pieces[0].lcn, 50u);
  EXPECT_EQ(pieces[0].length, 4u);
  EXPECT_EQ(pieces[1].lcn, 400u);
  EXPECT_EQ(pieces[1].length, 6u);
}

TEST_F(SimAllocatorTest, WithoutAFittingRunItTakesFreeRunsInOrderFromThePointer) {
  bitmap.set(0, 1000);
  for (uint64_t lcn = 100; lcn < 200; lcn += 10) bitmap.clear(lcn, 3);  // 10 holes of 3
  bitmap.clear(20, 3);  // before the pointer: used last
  allocator.setPointer(150);
  auto pieces = allocate(20);
  std::vector<uint64_t> starts;
  uint64_t total = 0;
  for (const auto& p : pieces) {
    starts.push_back(p.lcn);
    total += p.length;
  }
  EXPECT_EQ(total, 20u);
  EXPECT_EQ(starts, (std::vector<uint64_t>{150, 160, 170, 180, 190, 20, 100}));
  EXPECT_EQ(bitmap.usedCount(), 1000u - 33u + 20u);
}

TEST_F(SimAllocatorTest, TheReservedZoneIsUsedOnlyWhenNothingElseIsFreeAndFullRequestsTakeNothing) {
  allocator.setReservedZone(0, 900);
  auto pieces = allocate(50);
  EXPECT_EQ(pieces[0].lcn, 900u);
  pieces = allocate(100);  // 50 left outside the zone, the rest from the zone
  uint64_t inZone = 0;
  for (const auto& p : pieces) inZone += p.lcn < 900 ? p.length : 0;
  EXPECT_EQ(inZone, 50u);
  uint64_t before = bitmap.usedCount();
  std::vector<SimPiece> none;
  EXPECT_FALSE(allocator.allocate(bitmap.freeCount() + 1, ~uint64_t{0}, &none));
  EXPECT_TRUE(none.empty());
  EXPECT_EQ(bitmap.usedCount(), before);
}

}  // namespace
}  // namespace glidewell

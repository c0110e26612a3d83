// Catches bookkeeping of uncommitted moves that would free clusters a later
// move took, write data before the records it depends on, show the engine a
// stale bitmap or stale data, or lose a file's runs between commits.
#include <gtest/gtest.h>

#include "ntfs/pending_moves.h"

namespace glidewell {
namespace {

std::vector<NtfsRun> oneRun(int64_t lcn, int64_t length) { return {NtfsRun{0, lcn, length}}; }

TEST(PendingMovesTest, ClustersLeftAreFreeToTheEngineAndWaitForTheRecordsThatLeftThem) {
  PendingMoves p;
  // File 1 leaves [100, 110); file 2 takes [104, 106) of it, splitting it.
  ASSERT_EQ(p.batchFor(1, 500, 10), 0u);
  p.add(1, 0, oneRun(500, 10), 500, 10, {{100, 10}});
  EXPECT_EQ(p.batchFor(2, 104, 2), 1u) << "data into left clusters waits for the batch that left them";
  EXPECT_EQ(p.batchFor(2, 110, 2), 0u) << "next to them it does not";
  p.add(2, 1, oneRun(104, 2), 104, 2, {{300, 2}});
  p.hold(PendingMoves::Held{1, 104, std::vector<uint8_t>(2 * 8, 0xAB)});
  EXPECT_EQ(p.batchFor(2, 700, 1), 1u) << "a file's moves keep their order";
  EXPECT_EQ(p.batchFor(3, 300, 1), 2u) << "clusters left by batch 1 wait for batch 1";

  // The engine sees [100, 104) and [106, 110) and [300, 302) free.
  std::vector<uint8_t> bitmap(40, 0xFF);
  p.clearLeft(12, 28, bitmap.data() + 12);
  EXPECT_EQ(bitmap[12], 0x0F);  // clusters 96..103: 100..103 free
  EXPECT_EQ(bitmap[13], 0xC3);  // clusters 104..111: 104, 105 taken, 110, 111 never left
  EXPECT_EQ(bitmap[37], 0xCF);  // clusters 296..303: 300, 301 free
  EXPECT_FALSE(p.isLeft(105));
  EXPECT_TRUE(p.isLeft(106));

  // Held data lies over what the disk has, the later of two for one cluster.
  p.hold(PendingMoves::Held{2, 105, std::vector<uint8_t>(8, 0xCD)});
  std::vector<uint8_t> read(3 * 8, 0);
  p.overlayHeld(103, 3, 8, read.data());
  EXPECT_EQ(read, (std::vector<uint8_t>{0, 0, 0, 0, 0, 0, 0, 0, 0xAB, 0xAB, 0xAB, 0xAB, 0xAB, 0xAB, 0xAB, 0xAB,
                                        0xCD, 0xCD, 0xCD, 0xCD, 0xCD, 0xCD, 0xCD, 0xCD}));

  // Committing batch 0: file 1's record, the extents left, then batch 1's data.
  auto records = p.takeRecords();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records.count(1), 1u);
  std::vector<PendingMoves::Extent> freed = p.takeLeft();
  ASSERT_EQ(freed.size(), 2u);
  EXPECT_EQ(freed[0].lcn, 100);
  EXPECT_EQ(freed[0].length, 4);
  EXPECT_EQ(freed[1].lcn, 106);
  EXPECT_EQ(freed[1].length, 4);
  std::vector<PendingMoves::Held> out = p.advance();
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].lcn, 104);
  EXPECT_EQ(p.heldBytes(), 8u);
  ASSERT_NE(p.runsOf(2), nullptr);
  EXPECT_EQ(p.runsOf(1), nullptr);
  EXPECT_TRUE(p.isLeft(300));
  EXPECT_FALSE(p.empty());
}

}  // namespace
}  // namespace glidewell

// Disk images: a saved disk loads back into the same volume and saves to the
// same bytes; images that cannot be a volume are refused with a clear error.
#include "sim/sim_image.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "platform/text.h"
#include "sim/sim_aging.h"
#include "support/sim_support.h"

namespace glidewell {
namespace {

using simtest::contextOver;
using simtest::engineExtents;
using simtest::makeDisk;

std::vector<uint8_t> save(const SimDisk& disk, wchar_t letter = L'D') {
  std::vector<uint8_t> bytes;
  std::string error;
  EXPECT_TRUE(saveSimImageBytes(disk, letter, &bytes, &error)) << error;
  return bytes;
}

std::unique_ptr<SimDisk> load(const std::vector<uint8_t>& bytes, std::string* error) {
  return loadSimImage(bytes.data(), bytes.size(), error);
}

// A compressed file of `units` units stored 5 + 11 virtual, all adjacent on
// disk, after `lead` whole units stored apart from each other: more than 256
// runs, so the engine reads it in several replies.
std::vector<SimRun> compressedLayout(uint64_t lcn, int lead, int units) {
  std::vector<SimRun> runs;
  uint64_t vcn = 0;
  for (int i = 0; i < lead; ++i, vcn += 16, lcn += 20) runs.push_back({vcn, lcn, 16, 0});
  for (int i = 0; i < units; ++i, vcn += 16, lcn += 5) {
    runs.push_back({vcn, lcn, 5, 0});
    runs.push_back({vcn + 5, kNoCluster, 11, 0});
  }
  return runs;
}

// The first LCN of n free clusters in a row.
uint64_t freeRun(const SimDisk& disk, uint64_t n) {
  std::vector<uint8_t> bitmap = disk.bitmapBytes();
  uint64_t run = 0;
  for (uint64_t lcn = 0; lcn < disk.totalClusters(); ++lcn) {
    run = ((bitmap[lcn / 8] >> (lcn % 8)) & 1) ? 0 : run + 1;
    if (run == n) return lcn + 1 - n;
  }
  ADD_FAILURE() << "no free run of " << n;
  return 0;
}

TEST(SimImageTest, SaveLoadSaveGivesTheSameBytesAndTheSameVolumeWithItsFileSystemClusters) {
  SimAgingOptions o;
  o.seed = 11;
  o.totalClusters = 100003;  // not a multiple of 8
  o.compressedShare = 0.1;
  o.sparseShare = 0.05;
  std::string error;
  std::unique_ptr<SimDisk> disk = ageDisk(o, &error);
  ASSERT_TRUE(disk) << error;
  // Maps read in several replies, where a reply boundary falls between two
  // runs adjacent on disk (two lead units) and on a virtual run (one).
  ASSERT_EQ(disk->placeFile(L"big1.cmp", FILE_ATTRIBUTE_COMPRESSED, 4096ull * 16 * 201,
                            compressedLayout(freeRun(*disk, 1020), 1, 200)),
            0u);
  ASSERT_EQ(disk->placeFile(L"big2.cmp", FILE_ATTRIBUTE_COMPRESSED, 4096ull * 16 * 202,
                            compressedLayout(freeRun(*disk, 1040), 2, 200)),
            0u);
  ASSERT_EQ(disk->createFile(L"tail", 4096 * 2), 0u);

  std::vector<uint8_t> first = save(*disk);
  std::unique_ptr<SimDisk> loaded = load(first, &error);
  ASSERT_TRUE(loaded) << error;
  EXPECT_EQ(loaded->verify(), "");
  EXPECT_EQ(save(*loaded), first);

  // Clusters in use that no file owns come back as the file system's, where
  // they were (those of the reparse points, which are not dumped, join them).
  auto systemRanges = [](const SimDisk& d) {
    std::vector<std::pair<uint64_t, uint64_t>> out;
    for (const SimPiece& p : d.systemRanges()) out.push_back({p.lcn, p.length});
    return out;
  };
  EXPECT_GT(systemRanges(*disk).size(), 1u);
  auto kept = systemRanges(*loaded), original = systemRanges(*disk);
  EXPECT_TRUE(std::includes(kept.begin(), kept.end(), original.begin(), original.end()));
  std::vector<uint8_t> a = disk->bitmapBytes(), b = loaded->bitmapBytes();
  a.resize(100003 / 8);
  b.resize(100003 / 8);
  EXPECT_EQ(a, b);
  // Reparse points (junctions, links) are not dumped, so they do not come back.
  auto before = disk->listAll(), after = loaded->listAll();
  size_t junctions = 0;
  before.erase(std::remove_if(before.begin(), before.end(),
                              [&](const SimFileInfo& f) {
                                if (!(f.attributes & FILE_ATTRIBUTE_REPARSE_POINT)) return false;
                                junctions += (f.attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
                                return true;
                              }),
               before.end());
  EXPECT_GT(junctions, 0u);
  ASSERT_EQ(before.size(), after.size());
  auto ctxBefore = contextOver(std::shared_ptr<SimDisk>(disk->clone()));
  auto ctxAfter = contextOver(std::shared_ptr<SimDisk>(loaded->clone()));
  for (size_t i = 0; i < before.size(); ++i) {
    ASSERT_EQ(before[i].path, after[i].path);
    if (before[i].attributes & FILE_ATTRIBUTE_DIRECTORY) continue;
    ExtentList x, y;
    engineExtents(*ctxBefore, before[i].path, &x);
    ASSERT_TRUE(engineExtents(*ctxAfter, after[i].path, &y)) << narrow(after[i].path);
    ASSERT_EQ(x.size(), y.size()) << narrow(before[i].path);
    for (size_t k = 0; k < x.size(); ++k) EXPECT_EQ(x[k].lcn, y[k].lcn) << narrow(before[i].path);
  }
  ExtentList split;
  ASSERT_TRUE(engineExtents(*ctxAfter, L"big2.cmp", &split));
  ASSERT_EQ(split.size(), 4u);  // two lead units, then one run cut by the reply boundary
  EXPECT_EQ(split[3].lcn.start, split[2].lcn.end + 1);
  EXPECT_FALSE(engineExtents(*ctxBefore, L"big1.cmp", &split));  // the second reply starts with a hole
  EXPECT_EQ(split.size(), 2u);  // what the first reply held is what the image keeps
}

// Writes dump records by hand, to say exactly what a hostile image says.
class DumpBuilder {
 public:
  DumpBuilder& header(uint64_t clusters, uint32_t bytesPerCluster, const std::vector<uint8_t>& bitmap) {
    tag("VDFH");
    u16(u'D');
    str(u"Hostile");
    u64(clusters);
    u32(bytesPerCluster);
    bytes_.push_back(1);
    tag("BMPB");
    bytes_.insert(bytes_.end(), bitmap.begin(), bitmap.end());
    tag("BMPE");
    return *this;
  }
  DumpBuilder& entries(uint64_t count) {
    tag("EYLH");
    u64(count);
    return *this;
  }
  DumpBuilder& entry(const std::u16string& path, bool dir, std::vector<std::pair<int64_t, int64_t>> extents) {
    str(path);
    u32(dir ? 1 : 0);
    u64(extents.size());
    for (auto& e : extents) {
      u64(static_cast<uint64_t>(e.first));
      u64(static_cast<uint64_t>(e.second));
    }
    return *this;
  }
  const std::vector<uint8_t>& bytes() const { return bytes_; }

 private:
  void tag(const char* t) { bytes_.insert(bytes_.end(), t, t + 4); }
  void u16(char16_t v) {
    bytes_.push_back(static_cast<uint8_t>(v));
    bytes_.push_back(static_cast<uint8_t>(v >> 8));
  }
  void u32(uint32_t v) {
    for (int i = 0; i < 4; ++i) bytes_.push_back(static_cast<uint8_t>(v >> (8 * i)));
  }
  void u64(uint64_t v) {
    for (int i = 0; i < 8; ++i) bytes_.push_back(static_cast<uint8_t>(v >> (8 * i)));
  }
  void str(const std::u16string& s) {
    u32(static_cast<uint32_t>(s.size()));
    for (char16_t c : s) u16(c);
    u16(0);
  }
  std::vector<uint8_t> bytes_;
};

std::string refusal(const std::vector<uint8_t>& bytes) {
  std::string error;
  std::unique_ptr<SimDisk> disk = load(bytes, &error);
  EXPECT_FALSE(disk) << "the image was accepted";
  EXPECT_EQ(error.rfind("image refused: ", 0), 0u) << error;
  return error;
}

TEST(SimImageTest, ImagesThatCannotBeAVolumeAreRefusedWithAClearError) {
  std::vector<uint8_t> bitmap(8, 0);
  bitmap[0] = 0x0F;  // clusters 0-3 in use
  auto good = DumpBuilder().header(64, 4096, bitmap).entries(1).entry(u"f", false, {{0, 3}}).bytes();
  std::string error;
  ASSERT_TRUE(load(good, &error)) << error;

  EXPECT_NE(refusal({}).find("no volume"), std::string::npos);
  auto truncated = good;
  truncated.resize(truncated.size() - 5);
  std::string why = refusal(truncated);
  EXPECT_NE(why.find("at byte"), std::string::npos) << why;
  // The file claims clusters the bitmap calls free.
  auto freeClusters = DumpBuilder().header(64, 4096, bitmap).entries(1).entry(u"f", false, {{2, 5}}).bytes();
  EXPECT_NE(refusal(freeClusters).find("cluster 4"), std::string::npos);
  // A cluster size no volume has.
  EXPECT_NE(refusal(DumpBuilder().header(64, 3000, bitmap).entries(0).bytes()).find("cluster"), std::string::npos);
  // A name no NTFS directory can hold.
  refusal(DumpBuilder().header(64, 4096, bitmap).entries(1).entry(u"a*b", false, {}).bytes());
  // Clusters past the end of the volume.
  refusal(DumpBuilder().header(64, 4096, bitmap).entries(1).entry(u"f", false, {{60, 70}}).bytes());
  // Two extents of two files on the same clusters.
  refusal(DumpBuilder().header(64, 4096, bitmap).entries(2).entry(u"f", false, {{0, 3}}).entry(u"g", false, {{3, 3}}).bytes());
  // Counts far beyond the image's size are refused before anything is allocated.
  refusal(DumpBuilder().header(64, 4096, bitmap).entries(~uint64_t{0} >> 8).bytes());
  refusal(DumpBuilder().header(uint64_t{1} << 60, 4096, bitmap).entries(0).bytes());
}

}  // namespace
}  // namespace glidewell

// Users change the disk while another thread moves its files the way the
// engine does: no content may be lost and the bitmap must stay exact.
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>

#include "engine/dfrg_exception.h"
#include "support/sim_support.h"
#include "volume/dfrg_file.h"

namespace glidewell {
namespace {

// The first LCN of n free clusters according to the volume's bitmap, or -1.
int64_t findFree(CVolumeSystem& volume, uint64_t n) {
  std::unique_ptr<uint8_t[]> bitmap;
  volume.getVolumeBitmap(&bitmap);
  uint64_t run = 0;
  for (uint64_t lcn = 0; lcn < volume.getTotalClusters(); ++lcn) {
    run = ((bitmap[lcn / 8] >> (lcn % 8)) & 1) ? 0 : run + 1;
    if (run == n) return static_cast<int64_t>(lcn + 1 - n);
  }
  return -1;
}

// One pass of an engine-like mover: list the root, read each file's map and
// move the whole file to a free run. Returns the number of moves that worked.
int moverPass(CDfrgContext& ctx) {
  CVolumeSystem& volume = ctx.volume();
  std::vector<std::wstring> names;
  WIN32_FIND_DATAW data;
  HANDLE find = volume.findFirstFile(L"S:\\*", &data);
  if (find == INVALID_HANDLE_VALUE) return 0;
  do {
    if (!(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) names.push_back(data.cFileName);
  } while (volume.findNextFile(find, &data));
  volume.findClose(find);
  int moved = 0;
  for (const std::wstring& name : names) {
    try {
      CDfrgFile file(ctx, name, false);
      ExtentList extents;
      if (!file.getFileExtents(extents) || extents.empty()) continue;
      uint64_t stored = 0;
      for (const Extent& e : extents) stored += e.lcn.length();
      int64_t target = findFree(volume, stored);
      if (target < 0) continue;
      MOVE_FILE_DATA m{};
      m.FileHandle = file.handle();
      m.StartingVcn.QuadPart = 0;
      m.StartingLcn.QuadPart = target;
      m.ClusterCount = static_cast<DWORD>(extents.back().vcn.end + 1);
      if (volume.moveFile(&m)) ++moved;  // a user may have beaten it to the clusters: then 87
    } catch (const CDfrgException&) {
      // deleted or renamed between the listing and the open
    }
  }
  return moved;
}

TEST(SimConcurrencyTest, UsersAndAMoverTogetherLoseNothing) {
  const uint64_t seed = 20240611;
  SCOPED_TRACE("seed " + std::to_string(seed));
  auto disk = simtest::makeDisk(30000);
  std::atomic<bool> started{false}, done{false};
  std::atomic<int> records{0};
  disk->addChangeWatcher(0xB, [&](const std::vector<uint8_t>&) { ++records; });

  std::thread user([&] {
    while (!started) std::this_thread::yield();
    std::mt19937_64 rng(seed);
    std::vector<std::wstring> names;
    for (int step = 0; step < 10000; ++step) {
      uint64_t op = rng() % 10;
      if (names.empty() || op < 3) {
        std::wstring name = L"f" + std::to_wstring(step);
        DWORD attributes = rng() % 5 == 0 ? FILE_ATTRIBUTE_COMPRESSED : 0;
        if (disk->createFile(name, rng() % (4096 * 60), attributes) == 0) names.push_back(name);
      } else {
        size_t i = rng() % names.size();
        if (op < 6) {
          disk->appendFile(names[i], rng() % (4096 * 8));
        } else if (op < 7) {
          SimFileInfo info;
          if (disk->fileInfo(names[i], &info) == 0) disk->truncateFile(names[i], info.size / 2);
        } else if (op < 9) {
          disk->deleteFile(names[i]);
          names[i] = names.back();
          names.pop_back();
        } else {
          std::wstring to = L"r" + std::to_wstring(step);
          if (disk->renameFile(names[i], to) == 0) names[i] = to;
        }
      }
    }
    done = true;
  });

  auto ctx = simtest::contextOver(disk);
  int moved = 0;
  started = true;
  while (!done) moved += moverPass(*ctx);
  user.join();
  EXPECT_GT(moved, 0) << "no move happened while users worked";
  moverPass(*ctx);
  EXPECT_GT(records.load(), 10000);
  EXPECT_EQ(disk->verify(), "");
}

}  // namespace
}  // namespace glidewell

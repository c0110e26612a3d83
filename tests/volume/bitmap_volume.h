// A volume for the snapshot tests and benchmark: the simulated disk's volume
// calls, except that the bitmap is one the test sets bit by bit (any pattern,
// at once), answered in NTFS-shaped replies that fail from a chosen LCN on.
#ifndef GLIDEWELL_TESTS_VOLUME_BITMAP_VOLUME_H_
#define GLIDEWELL_TESTS_VOLUME_BITMAP_VOLUME_H_

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "sim/sim_volume_system.h"
#include "volume/extent.h"

namespace glidewell {
namespace testing {

class BitmapVolume : public SimVolumeSystem {
 public:
  explicit BitmapVolume(uint64_t totalClusters, wchar_t letter = L'T')
      : SimVolumeSystem(std::make_shared<SimDisk>(SimGeometry{totalClusters}), letter),
        bitmap((totalClusters + 7) / 8),
        total_(totalClusters) {}

  void setUsed(uint64_t first, uint64_t last, bool used) {
    for (uint64_t c = first; c <= last; ++c) {
      if (used) {
        bitmap[c / 8] |= static_cast<uint8_t>(1u << (c % 8));
      } else {
        bitmap[c / 8] &= static_cast<uint8_t>(~(1u << (c % 8)));
      }
    }
  }
  bool isUsed(uint64_t lcn) const { return (bitmap[lcn / 8] >> (lcn % 8)) & 1; }

  std::vector<uint8_t> bitmap;
  // Bitmap requests from this LCN on fail with ERROR_READ_FAULT.
  uint64_t failBitmapFrom = kNoCluster;
  // Every bitmap request's starting LCN.
  std::vector<int64_t> bitmapRequests;

  bool getVolumeBitmap(std::unique_ptr<uint8_t[]>* out) override {
    *out = std::make_unique<uint8_t[]>(bitmap.size());
    std::memcpy(out->get(), bitmap.data(), bitmap.size());
    return true;
  }
  BOOL getVolumeBitmapChunk(const int64_t* startingLcn, void* buffer, DWORD size, DWORD* returned) override {
    bitmapRequests.push_back(*startingLcn);
    uint64_t start = static_cast<uint64_t>(*startingLcn) & ~uint64_t{7};
    if (start >= total_ || size < 16) return fail(ERROR_INVALID_PARAMETER);
    if (start >= failBitmapFrom) return fail(ERROR_READ_FAULT);
    uint64_t clusters = total_ - start;
    uint64_t bytes = std::min<uint64_t>((clusters + 7) / 8, size - 16);
    auto* out = static_cast<uint8_t*>(buffer);
    std::memcpy(out, &start, 8);
    std::memcpy(out + 8, &clusters, 8);
    std::memcpy(out + 16, bitmap.data() + start / 8, bytes);
    *returned = static_cast<DWORD>(16 + bytes);
    return bytes * 8 < clusters ? fail(ERROR_MORE_DATA) : TRUE;
  }

 private:
  static BOOL fail(DWORD error) {
    SetLastError(error);
    return FALSE;
  }

  uint64_t total_;
};

}  // namespace testing
}  // namespace glidewell

#endif  // GLIDEWELL_TESTS_VOLUME_BITMAP_VOLUME_H_

#include "volume/volume_system.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace glidewell {

bool readWholeBitmap(CVolumeSystem& volume, std::unique_ptr<uint8_t[]>* bitmap) {
  const uint64_t bytes = (volume.getTotalClusters() + 7) / 8;
  *bitmap = std::make_unique<uint8_t[]>(static_cast<size_t>(bytes));
  uint8_t* result = bitmap->get();
  std::vector<uint64_t> storage(kBitmapReplyBytes / 8);  // aligned like VOLUME_BITMAP_BUFFER
  auto* reply = reinterpret_cast<uint8_t*>(storage.data());
  int64_t start = 0;
  for (;;) {
    DWORD returned = 0;
    BOOL ok = volume.getVolumeBitmapChunk(&start, reply, kBitmapReplyBytes, &returned);
    if (!ok && GetLastError() != ERROR_MORE_DATA) break;
    if (returned < kBitmapReplyHeaderBytes) break;
    int64_t replyStart, replySize;
    std::memcpy(&replyStart, reply, 8);
    std::memcpy(&replySize, reply + 8, 8);
    // The file system rounds the starting LCN down to a multiple of 8.
    uint64_t at = static_cast<uint64_t>(replyStart) / 8;
    if (at < bytes) {
      size_t n = static_cast<size_t>(std::min<uint64_t>(returned - kBitmapReplyHeaderBytes, bytes - at));
      std::memcpy(result + at, reply + kBitmapReplyHeaderBytes, n);
    }
    if (ok) break;
    uint64_t step = std::min<uint64_t>(static_cast<uint64_t>(replySize), kBitmapReplyClusters);
    if (step == 0) break;
    start = replyStart + static_cast<int64_t>(step);
  }
  return true;
}

std::string fileSystemName(int32_t type) {
  switch (type) {
    case kFileSystemNtfs: return "NTFS";
    case kFileSystemFat: return "FAT 16";
    case kFileSystemFat32: return "FAT 32";
    default: return "unknown";
  }
}

}  // namespace glidewell

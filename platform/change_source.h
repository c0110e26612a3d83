// ChangeSource: directory change notification on a volume root, watching the
// whole tree for file-name and size changes (what ReadDirectoryChangesW with
// filter 1 | 8 reports). Changes arrive as batches of chained
// FILE_NOTIFY_INFORMATION records: next-entry offset, action, name length in
// bytes, name in UTF-16LE relative to the root.
//
// Used by one thread (a change tracker's watcher): startRead, then
// waitForChanges, then takeChanges, in turn. The system goes on collecting
// changes between reads; a batch too large for the 1 MiB buffer is lost and
// reported as no records.
#ifndef GLIDEWELL_PLATFORM_CHANGE_SOURCE_H_
#define GLIDEWELL_PLATFORM_CHANGE_SOURCE_H_

#include <cstdint>
#include <memory>
#include <vector>

#include "platform/sync.h"

namespace glidewell {

constexpr uint32_t kChangeBufferBytes = 1048576;
// FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_SIZE
constexpr uint32_t kChangeFilter = 0x1 | 0x8;

class ChangeSource {
 public:
  virtual ~ChangeSource() = default;
  // Starts one asynchronous read. False when it cannot be started.
  virtual bool startRead() = 0;
  // Blocks until the read has completed (true) or stop is signalled (false).
  virtual bool waitForChanges(Event& stop) = 0;
  // Appends the records of the completed read to batches (nothing when the
  // buffer overflowed). False when the read failed.
  virtual bool takeChanges(std::vector<std::vector<uint8_t>>* batches) = 0;
};

// Opens the root directory of driveLetter ("X:\") for change notification:
// the real volume on Windows, the simulated disk of that letter elsewhere.
// Null when it cannot be opened.
std::unique_ptr<ChangeSource> openChangeSource(wchar_t driveLetter);

}  // namespace glidewell

#endif  // GLIDEWELL_PLATFORM_CHANGE_SOURCE_H_

// The simulated drives of this process: which SimDisk stands behind a drive
// letter, shared by every volume handle opened on that letter.
//
// A drive is either plugged in by a test or host (an in-memory disk, kept
// until unplugged) or loaded on the first open through a loader (the POSIX
// environment loads <install dir>/volumes/<letter>.vdf) and written back
// through a saver when its last handle closes, if it changed. Thread safe.
#ifndef GLIDEWELL_SIM_SIM_DRIVES_H_
#define GLIDEWELL_SIM_SIM_DRIVES_H_

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "platform/wintypes.h"
#include "sim/sim_disk.h"

namespace glidewell {

class CVolumeSystem;

class SimDrives {
 public:
  static SimDrives& instance();

  // Makes disk the drive of letter until unplug(); no image is read or written.
  // Replaces an earlier plugged disk (handles already open keep theirs).
  void plug(wchar_t letter, std::shared_ptr<SimDisk> disk);
  void unplug(wchar_t letter);
  // Bit i set when drive 'A' + i is plugged in.
  DWORD pluggedDrives() const;
  // The disk plugged in or open on letter; null when none.
  std::shared_ptr<SimDisk> disk(wchar_t letter) const;

  using Loader = std::function<std::unique_ptr<SimDisk>(std::string* error)>;
  using Saver = std::function<bool(const SimDisk& disk, std::string* error)>;
  // Opens a volume handle on letter: on the plugged disk, on the disk already
  // open for the letter, or on the disk load() returns. When the last handle
  // of a loaded disk closes, save() writes it back if it changed, and the
  // disk is forgotten. Throws CDfrgException(-1, "Couldn't open Volume !
  // \\.\X:") when the disk cannot be loaded or the volume has vanished.
  std::unique_ptr<CVolumeSystem> open(wchar_t letter, const Loader& load, const Saver& save);

  // Handles open on letter (for tests).
  int openHandles(wchar_t letter) const;

 private:
  struct Drive {
    std::shared_ptr<SimDisk> disk;
    bool plugged = false;
    int handles = 0;
    Saver save;
    uint64_t loadedGeneration = 0;
  };
  class Lease;

  void release(wchar_t key, const std::shared_ptr<SimDisk>& disk);

  mutable std::mutex mutex_;
  std::map<wchar_t, Drive> drives_;  // by upper-case letter
};

}  // namespace glidewell

#endif  // GLIDEWELL_SIM_SIM_DRIVES_H_

// VolumeWrapper: a CVolumeSystem that passes every call to another one and
// lets a test watch or bend some of them: record the paths opened and the
// moves made, fail the open of chosen paths, or show a directory as a
// junction. The wrapped volume is owned.
#ifndef GLIDEWELL_TESTS_SUPPORT_VOLUME_WRAPPER_H_
#define GLIDEWELL_TESTS_SUPPORT_VOLUME_WRAPPER_H_

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "volume/volume_system.h"

namespace glidewell {

struct VolumeProbe {
  std::mutex mutex;
  std::vector<std::wstring> opened;       // createFile paths, in order
  std::vector<MOVE_FILE_DATA> moves;      // every move asked for
  std::map<std::wstring, DWORD> failOpen;  // path -> Win32 error of its open
  std::set<std::wstring> junctions;        // leaf names shown as reparse points
  // Runs before each move reaches the volume (a test may change the disk).
  std::function<void(const MOVE_FILE_DATA&)> beforeMove;
  // Runs before each open reaches the volume, with the path.
  std::function<void(const std::wstring&)> beforeOpen;

  std::vector<std::wstring> openedPaths() {
    std::lock_guard<std::mutex> g(mutex);
    return opened;
  }
  std::vector<MOVE_FILE_DATA> moveList() {
    std::lock_guard<std::mutex> g(mutex);
    return moves;
  }
};

std::unique_ptr<CVolumeSystem> wrapVolume(std::unique_ptr<CVolumeSystem> inner, std::shared_ptr<VolumeProbe> probe);

}  // namespace glidewell

#endif  // GLIDEWELL_TESTS_SUPPORT_VOLUME_WRAPPER_H_

// The smart driver's state as a front end reads it while the engine runs or
// after: each volume's mode and the time it was set (registry, below
// HKEY_LOCAL_MACHINE), the engine status (statistics), and the resume info
// file of the state directory (pass numbers and the counters of the last
// iteration saved).
#ifndef GLIDEWELL_CLI_VOLUME_MODES_H_
#define GLIDEWELL_CLI_VOLUME_MODES_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cli/registry_access.h"

namespace glidewell {

// One volume's stored mode.
struct StoredVolumeMode {
  wchar_t letter = L'C';
  std::optional<int32_t> mode;     // none: no REG_DWORD stored, the engine reads scan
  std::optional<uint64_t> setAt;   // file time of the last change, when stored
};

// Every "volumeMode_X" value, by letter.
std::vector<StoredVolumeMode> readVolumeModes(HostRegistry& registry);

// "Status" of the statistics; none when it is not stored.
std::optional<int64_t> readEngineStatus(HostRegistry& registry);

// What the resume info file holds, as far as a viewer cares.
struct ResumeInfoView {
  std::wstring resumePath;
  int64_t defragged = 0, nonDefraggable = 0, spaceOnly = 0, errors = 0, moved = 0, processed = 0;
  struct Volume {
    wchar_t letter;
    int32_t pass;
    int32_t panicPass;
  };
  std::vector<Volume> volumes;
};

// Reads <installDir>state/resumeInfo; none when it is missing or not a whole
// file of the version the engine writes (it may be in the middle of a save).
std::optional<ResumeInfoView> readResumeInfo(const std::string& installDir);

// "scan", "panic pass k" (scan mode with a panic pass number), "react", or
// "mode N" for a value the driver leaves alone.
std::string modeLabel(int32_t mode, int32_t panicPass);
// "3 (working)", "4 (every volume clean, idle)", ...
std::string statusText(std::optional<int64_t> status);
// "12 s", "3.5 min", "2.1 h", "1.3 days" from milliseconds.
std::string describeAge(int64_t ms);
// Milliseconds between two file times (100 ns units), 0 when `later` is earlier.
int64_t fileTimeMsBetween(uint64_t earlier, uint64_t later);

}  // namespace glidewell

#endif  // GLIDEWELL_CLI_VOLUME_MODES_H_

// analyze and run on Windows: the machine's own drives, named by letter.
// `run` enables exactly the drives given for the time of the run and puts
// the drives' "enabled" settings back afterwards.
#include <fmt/format.h>

#include <set>

#include "cli/commands.h"
#include "cli/console.h"
#include "cli/engine_run.h"
#include "cli/log_config_file.h"
#include "cli/smart_run.h"
#include "cli/volume_scan.h"
#include "config/dfrg_config.h"
#include "config/registry_store.h"
#include "engine/dfrg_exception.h"
#include "engine/system_drives.h"
#include "platform/env.h"
#include "platform/text.h"
#include "volume/drive_volume.h"

namespace glidewell {

namespace {

wchar_t driveLetter(const std::string& text) {
  char c = text.empty() ? '\0' : text[0];
  if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  bool shape = text.size() == 1 || (text.size() >= 2 && text[1] == ':' &&
                                    (text.size() == 2 || (text.size() == 3 && (text[2] == '\\' || text[2] == '/'))));
  if (c < 'A' || c > 'Z' || !shape) throw UsageError("\"" + text + "\" is not a drive: give a letter like C:");
  return static_cast<wchar_t>(c);
}

std::string letterText(wchar_t letter) { return narrow(std::wstring(1, letter)) + ":"; }

// Enables the drives of a run and disables every other drive the engine
// would see, then puts each drive's "enabled" value back.
class EnabledForRun {
 public:
  explicit EnabledForRun(const std::vector<wchar_t>& chosen) : store_(HKEY_CURRENT_USER) {
    std::set<wchar_t> drives(chosen.begin(), chosen.end());
    DWORD present = Env::current()->logicalDrives();
    for (wchar_t l = L'A'; l <= L'Z'; ++l) {
      bool fixed = (present >> (l - L'A')) & 1 &&
                   Env::current()->driveType(std::wstring(1, l) + L":\\") == DRIVE_FIXED;
      CRegistryKey key = driveKey(l, false);
      if (!fixed && !key.isValid() && drives.count(l) == 0) continue;
      key = driveKey(l, true);
      DWORD old = 1;
      key.getDword(std::string("enabled"), old, 1);
      saved_.push_back({l, old});
      if (!key.setDword(std::string("enabled"), drives.count(l) != 0 ? 1 : 0)) {
        throw HostError("cannot write the settings of drive " + letterText(l) + " in the registry");
      }
    }
  }
  ~EnabledForRun() {
    for (auto& [letter, value] : saved_) driveKey(letter, true).setDword(std::string("enabled"), value);
  }
  EnabledForRun(const EnabledForRun&) = delete;
  EnabledForRun& operator=(const EnabledForRun&) = delete;

 private:
  CRegistryKey driveKey(wchar_t letter, bool create) {
    return store_.key(std::string(kDefaultRegistryKeyPath) + "\\settings\\" + narrow(std::wstring(1, letter)) + ":",
                      KEY_ALL_ACCESS, create);
  }

  CRegistryStore store_;
  std::vector<std::pair<wchar_t, DWORD>> saved_;
};

}  // namespace

int analyzeDriveCommand(const AnalyzeOptions& o) {
  wchar_t letter = driveLetter(o.image);
  addSystemDriveProviders();
  std::unique_ptr<CVolumeSystem> volume;
  try {
    volume = openDriveVolume(letter);
    if (!volume) throw HostError("there is no drive " + letterText(letter));
  } catch (const CDfrgException& e) {
    throw HostError(fmt::format("{} cannot be analysed: the system refused the volume or its defragmentation "
                                "controls ({})",
                                letterText(letter), e.message));
  }
  fmt::print("{}", describeFigures(measureVolume(std::move(volume))));
  return 0;
}

int runDrivesCommand(const RunOptions& o) {
  if (o.seconds < 0) throw UsageError("--seconds must not be negative");
  if (o.images.empty()) throw UsageError("run needs at least one drive");
  std::vector<wchar_t> letters;
  for (const std::string& drive : o.images) {
    wchar_t l = driveLetter(drive);
    for (wchar_t seen : letters) {
      if (seen == l) throw UsageError(letterText(l) + " is given twice");
    }
    letters.push_back(l);
  }
  std::string dir = resolveInstallDirectory(o.dir);
  prepareDirectory(dir);
  installLogConfig(dir);
  EnabledForRun enabled(letters);
  std::string names;
  for (wchar_t l : letters) names += (names.empty() ? "" : " ") + letterText(l);
  fmt::print("drives {} (only these are enabled during the run); install directory {}\n", names, dir);
  std::fflush(stdout);

  if (o.mode == 0) {
    SmartEngineHost host(dir);
    SmartRunResult result = runSmartDriver(host, dir, letters, o.seconds, nullptr);
    if (result.end != SmartEnd::kEnded) return 0;
    fmt::print(stderr, "glidewell: {}\n", result.describe());
    return 1;
  }
  ProgressDisplay progress(stdout, isTerminal(stdout), terminalColumns(stdout));
  EngineRunSettings settings;
  settings.installDir = dir;
  settings.stopAfterSeconds = o.seconds;
  settings.progress = &progress;
  EngineRunResult result = runEngineOnce(settings);
  if (result.end == RunEnd::kCompleted || result.end == RunEnd::kStopped) return 0;
  fmt::print(stderr, "glidewell: {}\n", result.describe());
  return 1;
}

}  // namespace glidewell

#include "config/dfrg_config.h"

#include <atomic>

#include "config/registry_store.h"
#include "engine/dfrg_exception.h"
#include "logging/logger.h"
#include "platform/env.h"

namespace glidewell {

namespace {

std::atomic<CDfrgConfig*> currentConfig{nullptr};

const char* const kLoadFailed = "Couldn't load config from Registry";
const wchar_t* const kDefaultDumpPath = L"c:\\volumeDump.vdf";

}  // namespace

CDfrgConfig* CDfrgConfig::current() { return currentConfig.load(); }

CDfrgConfig::CDfrgConfig() { currentConfig.store(this); }

CDfrgConfig::CDfrgConfig(const std::wstring& installDir, HKEY root, const std::string& registryKeyPath) {
  currentConfig.store(this);
  try {
    load(installDir, root, registryKeyPath);
  } catch (...) {
    // No destructor runs for an object that was never built; current() must
    // not keep pointing at it.
    CDfrgConfig* self = this;
    currentConfig.compare_exchange_strong(self, nullptr);
    throw;
  }
}

CDfrgConfig::~CDfrgConfig() {
  CDfrgConfig* self = this;
  currentConfig.compare_exchange_strong(self, nullptr);
}

std::unique_ptr<CDfrgConfig> CDfrgConfig::detached(const std::wstring& stateDirectory) {
  std::unique_ptr<CDfrgConfig> config(new CDfrgConfig());
  config->stateDirectory_ = stateDirectory;
  return config;
}

void CDfrgConfig::load(const std::wstring& installDir, HKEY root, const std::string& registryKeyPath) {
  Logger log("CDfrgConfig::load");
  stateDirectory_ = installDir + L"state\\";
  // Usually it exists already; anything else shows when a state file is written.
  Env::current()->createDirectory(stateDirectory_);

  std::string path = registryKeyPath.empty() ? kDefaultRegistryKeyPath : registryKeyPath;
  store_ = std::make_unique<CRegistryStore>(root);
  if (!store_->openKey(path + "\\settings", settingsKey_, KEY_ALL_ACCESS, nullptr, true)) {
    log.log(kLogError) << "Can't open the settings key." << LogProperty("Key", path + "\\settings");
    throw CDfrgException(ErrorFileNotFound, kLoadFailed);
  }
  refreshDriveMap();
  loadSettings();
}

void CDfrgConfig::refreshDriveMap() {
  Logger log("CDfrgConfig::refreshDriveMap");
  Env* env = Env::current();
  DWORD present = env->logicalDrives();
  DWORD mask = 0;
  // Bit 0 (A:) is never looked at: A: is never part of the map.
  for (int i = 1; i < 26; ++i) {
    if ((present & (1u << i)) == 0) continue;
    char letter = static_cast<char>('A' + i);
    std::wstring rootPath = std::wstring(1, static_cast<wchar_t>(letter)) + L":\\";
    if (env->driveType(rootPath) != DRIVE_FIXED) continue;
    mask |= 1u << i;
    std::wstring label;
    // A drive whose label cannot be read keeps its bit but its subkey is left alone.
    if (!env->volumeLabel(rootPath, &label)) continue;
    std::string subkeyName = std::string(1, letter) + ":";
    CRegistryKey drive = settingsKey_->subKey(subkeyName, KEY_ALL_ACCESS, false);
    if (drive.isValid()) {
      drive.setString(L"Name", label);
      continue;
    }
    drive = settingsKey_->subKey(subkeyName, KEY_ALL_ACCESS, true);
    if (!drive.isValid()) {
      log.log(kLogError) << "Can't create the drive key." << LogProperty("Drive", subkeyName);
      throw CDfrgException(ErrorFileNotFound, kLoadFailed);
    }
    drive.setString(L"Name", label);
    drive.setDword("enabled", 1);
    log.log(kLogDebug) << "New drive." << LogProperty("Drive", subkeyName) << LogProperty("Name", label);
  }
  settingsKey_->setDword("Drive Map", mask);
}

DWORD CDfrgConfig::loadSetting(const char* name, DWORD def) {
  DWORD value = 0;
  // Missing or not a REG_DWORD: the default, written back for the user to see.
  if (!settingsKey_->getDword(name, value, def)) settingsKey_->setDword(name, def);
  return value;
}

void CDfrgConfig::loadSettings() {
  maxClusterMoveCount_ = maxExtentListSize_ = nearByWatchListDist_ = doMoveLeft_ = doMoveBetterPlace_ = 0;
  loadSetting("doRunInBatteryMode", 0);  // for the host only
  maxClusterMoveCount_ = loadSetting("MaxClusterMoveCount", kDefaultMaxClusterMoveCount);
  maxExtentListSize_ = loadSetting("MaxExtentListSize", kDefaultMaxExtentListSize);
  nearByWatchListDist_ = loadSetting("NearByWatchListDist", kDefaultNearByWatchListDist);
  doMoveLeft_ = loadSetting("DoMoveLeft", 0);
  doMoveBetterPlace_ = loadSetting("DoMoveBetterPlace", 1);
  // Set from outside only; never written here.
  settingsKey_->getDword("maxProcessCalls", maxProcessCalls_, 0xFFFFFFFF);
}

char CDfrgConfig::enabledDrive(int n) {
  if (!settingsKey_ || n < 0) return 0;
  int seen = 0;
  // Every subkey counts, also those of drives that are gone: the worker then
  // fails to open such a volume and skips it.
  for (DWORD j = 0;; ++j) {
    CRegistryKey drive = settingsKey_->subKeyAt(j, KEY_ALL_ACCESS);
    if (!drive.isValid()) return 0;
    DWORD enabled = 1;
    drive.getDword("enabled", enabled, 1);
    if (enabled == 0) continue;
    if (++seen == n + 1) {
      std::string name = drive.name();
      return name.empty() ? 0 : name[0];
    }
  }
}

bool CDfrgConfig::makeDump() {
  DWORD value = 0;
  return settingsKey_ && settingsKey_->getDword("makeDump", value, 0) && value != 0;
}

std::wstring CDfrgConfig::dumpPath() {
  std::wstring path = kDefaultDumpPath;
  if (settingsKey_) settingsKey_->getString(L"dumpPath", path, kDefaultDumpPath);
  return path;
}

void CDfrgConfig::setDoMoveLeft(bool value) {
  doMoveLeft_ = value ? 1 : 0;
  if (settingsKey_) settingsKey_->setDword("DoMoveLeft", doMoveLeft_);
}

void CDfrgConfig::setDoMoveBetterPlace(bool value) {
  doMoveBetterPlace_ = value ? 1 : 0;
  if (settingsKey_) settingsKey_->setDword("DoMoveBetterPlace", doMoveBetterPlace_);
}

}  // namespace glidewell

// CDfrgConfig: the engine's settings, read from the registry key
// <path>\settings below HKEY_CURRENT_USER, with the drive map: one subkey per
// fixed drive ever seen ("C:"), holding its label ("Name") and whether the user
// wants it defragmented ("enabled", missing = 1).
//
// The engine only adds what is missing (values, drive subkeys) and refreshes
// each present drive's "Name"; it never removes a subkey or changes a setting
// that exists, except the two flags written on request (setDoMoveLeft,
// setDoMoveBetterPlace). Drives, labels and the state directory come through
// Env::current(), the registry through RegistryBackend::current().
#ifndef GLIDEWELL_CONFIG_DFRG_CONFIG_H_
#define GLIDEWELL_CONFIG_DFRG_CONFIG_H_

#include <memory>
#include <string>

#include "platform/wintypes.h"

namespace glidewell {

class CRegistryStore;
class CRegistryKey;

constexpr const char* kDefaultRegistryKeyPath = "SOFTWARE\\quorvane\\Quorvane Glidewell";

class CDfrgConfig {
 public:
  static constexpr DWORD kDefaultMaxClusterMoveCount = 1024;
  static constexpr DWORD kDefaultMaxExtentListSize = 1048576;
  static constexpr DWORD kDefaultNearByWatchListDist = 1200;

  // Creates the state directory, opens (creating) <path>\settings, refreshes
  // the drive map and loads the settings, writing defaults for missing values.
  // Throws CDfrgException(2, "Couldn't load config from Registry").
  CDfrgConfig(const std::wstring& installDir, HKEY root, const std::string& registryKeyPath);
  virtual ~CDfrgConfig();
  CDfrgConfig(const CDfrgConfig&) = delete;
  CDfrgConfig& operator=(const CDfrgConfig&) = delete;

  // Settings with their defaults, bound to no registry: setters change only
  // memory, there are no drives, makeDump is off. For tools and tests.
  static std::unique_ptr<CDfrgConfig> detached(const std::wstring& stateDirectory = L"");

  // The most recently constructed configuration (null when none exists).
  static CDfrgConfig* current();

  // The drive letter of the n-th (0-based) enabled drive subkey, 0 when none.
  char enabledDrive(int n);
  // Read afresh from the registry at every call.
  bool makeDump();
  std::wstring dumpPath();

  bool doMoveLeft() const { return doMoveLeft_ == 1; }
  bool doMoveBetterPlace() const { return doMoveBetterPlace_ == 1; }
  // Set in memory and written to the registry at once.
  void setDoMoveLeft(bool value);
  void setDoMoveBetterPlace(bool value);

  DWORD maxClusterMoveCount() const { return maxClusterMoveCount_; }
  DWORD maxExtentListSize() const { return maxExtentListSize_; }
  DWORD nearByWatchListDist() const { return nearByWatchListDist_; }
  DWORD maxProcessCalls() const { return maxProcessCalls_; }
  std::wstring stateDirectory() const { return stateDirectory_; }

  // Memory-only overrides for tests and tools (the registry is not written).
  void overrideMaxClusterMoveCount(DWORD v) { maxClusterMoveCount_ = v; }
  void overrideMaxExtentListSize(DWORD v) { maxExtentListSize_ = v; }

 private:
  CDfrgConfig();  // detached

  void load(const std::wstring& installDir, HKEY root, const std::string& registryKeyPath);
  void refreshDriveMap();
  void loadSettings();
  DWORD loadSetting(const char* name, DWORD def);

  std::unique_ptr<CRegistryStore> store_;
  std::unique_ptr<CRegistryKey> settingsKey_;
  DWORD maxProcessCalls_ = 0xFFFFFFFF;
  DWORD maxClusterMoveCount_ = kDefaultMaxClusterMoveCount;
  DWORD maxExtentListSize_ = kDefaultMaxExtentListSize;
  DWORD nearByWatchListDist_ = kDefaultNearByWatchListDist;
  DWORD doMoveLeft_ = 0;
  DWORD doMoveBetterPlace_ = 1;
  std::wstring stateDirectory_;
};

}  // namespace glidewell

#endif  // GLIDEWELL_CONFIG_DFRG_CONFIG_H_

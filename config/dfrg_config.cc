#include "config/dfrg_config.h"

#include <atomic>

#include "config/registry_store.h"
#include "engine/dfrg_exception.h"

namespace glidewell {

namespace {
std::atomic<CDfrgConfig*> currentConfig{nullptr};
}

CDfrgConfig* CDfrgConfig::current() { return currentConfig.load(); }

CDfrgConfig::CDfrgConfig() { currentConfig.store(this); }

CDfrgConfig::CDfrgConfig(const std::wstring& installDir, HKEY root, const std::string& registryKeyPath) {
  currentConfig.store(this);
  throw CDfrgException(2, "Couldn't load config from Registry");
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

char CDfrgConfig::enabledDrive(int n) { return 0; }
bool CDfrgConfig::makeDump() { return false; }
std::wstring CDfrgConfig::dumpPath() { return L"c:\\volumeDump.vdf"; }
void CDfrgConfig::setDoMoveLeft(bool value) { doMoveLeft_ = value ? 1 : 0; }
void CDfrgConfig::setDoMoveBetterPlace(bool value) { doMoveBetterPlace_ = value ? 1 : 0; }

}  // namespace glidewell

#include "config/dfrg_config.h"

#include <gtest/gtest.h>

#include "engine/dfrg_exception.h"
#include "support/registry_fake_env.h"
#include "support/registry_fault_injection.h"
#include "support/registry_test_util.h"

namespace glidewell {
namespace test {
namespace {

const std::string kSettings = "SOFTWARE\\quorvane\\Quorvane Glidewell\\settings";

class DfrgConfigTest : public ::testing::Test {
 protected:
  DfrgConfigTest()
      : memory_(RegistryBackend::newMemory()),
        reg_(std::make_shared<FaultInjectingRegistry>(memory_)),
        scopedEnv_(&env_) {
    RegistryBackend::setCurrent(reg_);
  }
  ~DfrgConfigTest() override { RegistryBackend::setCurrent(nullptr); }

  std::unique_ptr<CDfrgConfig> load(const std::string& keyPath = "") {
    return std::make_unique<CDfrgConfig>(L"C:\\Program Files\\Glidewell\\", HKEY_CURRENT_USER, keyPath);
  }

  RawValue value(const std::string& key, const std::wstring& name) {
    return getAt(*memory_, HKEY_CURRENT_USER, key, name);
  }
  DWORD dword(const std::string& key, const std::wstring& name) {
    RawValue v = value(key, name);
    EXPECT_EQ(REG_DWORD, v.type) << narrowName(name);
    return v.data.size() == 4 ? v.data[0] | (v.data[1] << 8) | (v.data[2] << 16) | (v.data[3] << 24) : 0xBAD;
  }
  void setRaw(const std::string& key, const std::wstring& name, DWORD type, const std::vector<BYTE>& data) {
    HKEY k = openPath(*memory_, HKEY_CURRENT_USER, key, true);
    ASSERT_EQ(ERROR_SUCCESS, put(*memory_, k, name, type, data));
    memory_->closeKey(k);
  }
  static std::string narrowName(const std::wstring& w) { return std::string(w.begin(), w.end()); }

  RegistryFakeEnv env_;
  std::shared_ptr<RegistryBackend> memory_;
  std::shared_ptr<FaultInjectingRegistry> reg_;
  ScopedEnvOverride scopedEnv_;
};

TEST_F(DfrgConfigTest, AFreshRegistryGetsDefaultsAndOneKeyPerFixedDrive) {
  env_.addDrive(L'A', DRIVE_FIXED, L"never");
  env_.addDrive(L'C', DRIVE_FIXED, L"System");
  env_.addDrive(L'D', DRIVE_FIXED, L"Data");
  env_.addDrive(L'E', DRIVE_REMOVABLE, L"Stick");
  env_.addDrive(L'F', DRIVE_REMOTE, L"Share");
  env_.addDrive(L'G', DRIVE_CDROM, L"Disc");
  auto config = load();
  EXPECT_EQ(config.get(), CDfrgConfig::current());

  HKEY settings = openPath(*memory_, HKEY_CURRENT_USER, kSettings, false);
  ASSERT_NE(nullptr, settings);
  EXPECT_EQ((std::vector<std::string>{"C:", "D:"}), subkeyNames(*memory_, settings));
  // maxProcessCalls, makeDump and dumpPath are never created.
  EXPECT_EQ((std::vector<std::wstring>{L"DoMoveBetterPlace", L"DoMoveLeft", L"doRunInBatteryMode", L"Drive Map",
                                       L"MaxClusterMoveCount", L"MaxExtentListSize", L"NearByWatchListDist"}),
            valueNames(*memory_, settings));
  memory_->closeKey(settings);

  EXPECT_EQ((1u << 2) | (1u << 3), dword(kSettings, L"Drive Map"));
  EXPECT_EQ(0u, dword(kSettings, L"doRunInBatteryMode"));
  EXPECT_EQ(1024u, dword(kSettings, L"MaxClusterMoveCount"));
  EXPECT_EQ(1048576u, dword(kSettings, L"MaxExtentListSize"));
  EXPECT_EQ(1200u, dword(kSettings, L"NearByWatchListDist"));
  EXPECT_EQ(0u, dword(kSettings, L"DoMoveLeft"));
  EXPECT_EQ(1u, dword(kSettings, L"DoMoveBetterPlace"));
  EXPECT_EQ(utf16Bytes(L"System"), value(kSettings + "\\C:", L"Name").data);
  EXPECT_EQ(1u, dword(kSettings + "\\D:", L"enabled"));

  EXPECT_EQ(1024u, config->maxClusterMoveCount());
  EXPECT_EQ(1048576u, config->maxExtentListSize());
  EXPECT_EQ(1200u, config->nearByWatchListDist());
  EXPECT_EQ(0xFFFFFFFFu, config->maxProcessCalls());
  EXPECT_FALSE(config->doMoveLeft());
  EXPECT_TRUE(config->doMoveBetterPlace());
  EXPECT_FALSE(config->makeDump());
  EXPECT_EQ(L"c:\\volumeDump.vdf", config->dumpPath());
  EXPECT_EQ('C', config->enabledDrive(0));
  EXPECT_EQ('D', config->enabledDrive(1));
  EXPECT_EQ(0, config->enabledDrive(2));

  EXPECT_EQ(L"C:\\Program Files\\Glidewell\\state\\", config->stateDirectory());
  EXPECT_EQ(std::vector<std::wstring>{config->stateDirectory()}, env_.createdDirectories());
  // Only the settings key stays open.
  EXPECT_EQ(1u, reg_->openHandles());
  config.reset();
  EXPECT_EQ(nullptr, CDfrgConfig::current());
  EXPECT_EQ(0u, reg_->openHandles());
}

TEST_F(DfrgConfigTest, ReloadingKeepsTheUsersChoices) {
  env_.addDrive(L'C', DRIVE_FIXED, L"System");
  env_.addDrive(L'D', DRIVE_FIXED, L"Data");
  load();
  setRaw(kSettings + "\\D:", L"enabled", REG_DWORD, dwordBytes(0));
  setRaw(kSettings, L"MaxExtentListSize", REG_DWORD, dwordBytes(5000));
  setRaw(kSettings, L"maxProcessCalls", REG_DWORD, dwordBytes(12));

  // D: is relabelled, C: can no longer be read, E: is new but unreadable.
  env_.addDrive(L'D', DRIVE_FIXED, L"Backup");
  env_.addDrive(L'C', DRIVE_FIXED, L"Other", false);
  env_.addDrive(L'E', DRIVE_FIXED, L"New", false);
  auto config = load();
  EXPECT_EQ(0u, dword(kSettings + "\\D:", L"enabled"));
  EXPECT_EQ(utf16Bytes(L"Backup"), value(kSettings + "\\D:", L"Name").data);
  EXPECT_EQ(utf16Bytes(L"System"), value(kSettings + "\\C:", L"Name").data);
  EXPECT_EQ(nullptr, openPath(*memory_, HKEY_CURRENT_USER, kSettings + "\\E:", false));
  // An unreadable label still counts the drive as present.
  EXPECT_EQ((1u << 2) | (1u << 3) | (1u << 4), dword(kSettings, L"Drive Map"));
  EXPECT_EQ(5000u, config->maxExtentListSize());
  EXPECT_EQ(12u, config->maxProcessCalls());
  EXPECT_EQ('C', config->enabledDrive(0));
  EXPECT_EQ(0, config->enabledDrive(1));

  // A drive that went away keeps its key, and still counts as enabled.
  env_.removeDrive(L'C');
  config = load();
  EXPECT_EQ((1u << 3) | (1u << 4), dword(kSettings, L"Drive Map"));
  EXPECT_EQ('C', config->enabledDrive(0));
}

TEST_F(DfrgConfigTest, EnabledDrivesSkipDisabledKeysAndTakeMissingAsEnabled) {
  setRaw(kSettings + "\\C:", L"enabled", REG_DWORD, dwordBytes(1));
  setRaw(kSettings + "\\D:", L"enabled", REG_DWORD, dwordBytes(0));
  setRaw(kSettings + "\\E:", L"Name", REG_SZ, utf16Bytes(L"no enabled value"));
  setRaw(kSettings + "\\F:", L"enabled", REG_SZ, utf16Bytes(L"0"));  // not a DWORD: counts as 1
  auto config = load();
  EXPECT_EQ('C', config->enabledDrive(0));
  EXPECT_EQ('E', config->enabledDrive(1));
  EXPECT_EQ('F', config->enabledDrive(2));
  EXPECT_EQ(0, config->enabledDrive(3));
  EXPECT_EQ(0, config->enabledDrive(-1));
}

TEST_F(DfrgConfigTest, OnlyTheValueOneSwitchesAMoveOn) {
  setRaw(kSettings, L"DoMoveLeft", REG_DWORD, dwordBytes(2));
  setRaw(kSettings, L"DoMoveBetterPlace", REG_DWORD, dwordBytes(1));
  auto config = load();
  EXPECT_FALSE(config->doMoveLeft());
  EXPECT_TRUE(config->doMoveBetterPlace());
  EXPECT_EQ(2u, dword(kSettings, L"DoMoveLeft"));

  // The two flags are written at once.
  config->setDoMoveLeft(true);
  config->setDoMoveBetterPlace(false);
  EXPECT_TRUE(config->doMoveLeft());
  EXPECT_FALSE(config->doMoveBetterPlace());
  EXPECT_EQ(1u, dword(kSettings, L"DoMoveLeft"));
  EXPECT_EQ(0u, dword(kSettings, L"DoMoveBetterPlace"));
}

TEST_F(DfrgConfigTest, MistypedSettingsAreReplacedByTheirDefault) {
  setRaw(kSettings, L"MaxClusterMoveCount", REG_SZ, utf16Bytes(L"4096"));
  setRaw(kSettings, L"NearByWatchListDist", REG_QWORD, qwordBytes(99));
  auto config = load();
  EXPECT_EQ(1024u, config->maxClusterMoveCount());
  EXPECT_EQ(1024u, dword(kSettings, L"MaxClusterMoveCount"));
  EXPECT_EQ(1200u, config->nearByWatchListDist());
  EXPECT_EQ(1200u, dword(kSettings, L"NearByWatchListDist"));
}

TEST_F(DfrgConfigTest, DumpSettingsAreReadAfreshAndNeverWritten) {
  auto config = load();
  EXPECT_FALSE(config->makeDump());
  setRaw(kSettings, L"makeDump", REG_DWORD, dwordBytes(3));
  setRaw(kSettings, L"dumpPath", REG_SZ, utf16Bytes(L"d:\\dumps\\v.vdf"));
  EXPECT_TRUE(config->makeDump());
  EXPECT_EQ(L"d:\\dumps\\v.vdf", config->dumpPath());
  setRaw(kSettings, L"dumpPath", REG_DWORD, dwordBytes(1));
  EXPECT_EQ(L"c:\\volumeDump.vdf", config->dumpPath());
  EXPECT_EQ(REG_DWORD, value(kSettings, L"dumpPath").type);
}

TEST_F(DfrgConfigTest, AnyKeyPathWithEitherSeparator) {
  auto config = load("Software/Test\\Glidewell");
  EXPECT_NE(nullptr, openPath(*memory_, HKEY_CURRENT_USER, "Software\\Test\\Glidewell\\settings", false));
  EXPECT_EQ(nullptr, openPath(*memory_, HKEY_CURRENT_USER, kSettings, false));
}

TEST_F(DfrgConfigTest, RegistryFailuresOfTheKeysThrowTheLoadError) {
  env_.addDrive(L'C', DRIVE_FIXED, L"System");
  reg_->fail(FaultInjectingRegistry::kCreate, ERROR_ACCESS_DENIED, 1, true, "settings");
  try {
    load();
    FAIL() << "no exception";
  } catch (const CDfrgException& e) {
    EXPECT_EQ(2, e.code);
    EXPECT_EQ("Couldn't load config from Registry", e.message);
  }
  EXPECT_EQ(nullptr, CDfrgConfig::current());
  EXPECT_EQ(0u, reg_->openHandles());

  reg_->clearFaults();
  reg_->fail(FaultInjectingRegistry::kCreate, ERROR_ACCESS_DENIED, 1, true, "C:");
  EXPECT_THROW(load(), CDfrgException);
  EXPECT_EQ(nullptr, CDfrgConfig::current());
  EXPECT_EQ(0u, reg_->openHandles());
}

TEST_F(DfrgConfigTest, OtherFailuresAreAbsorbed) {
  env_.addDrive(L'C', DRIVE_FIXED, L"System");
  env_.setCreateDirectoryFails(true);
  reg_->fail(FaultInjectingRegistry::kSet, ERROR_ACCESS_DENIED, 1, true);
  reg_->fail(FaultInjectingRegistry::kQuery, ERROR_READ_FAULT, 1, true);
  std::unique_ptr<CDfrgConfig> config;
  ASSERT_NO_THROW(config = load());
  EXPECT_EQ(1024u, config->maxClusterMoveCount());
  EXPECT_NO_THROW(config->setDoMoveLeft(true));
  EXPECT_TRUE(config->doMoveLeft());
  EXPECT_FALSE(config->makeDump());
}

TEST_F(DfrgConfigTest, ARealStateDirectoryIsCreatedOnce) {
  TempDir dir;
  env_.setRealDirectories(true);
  std::wstring install(dir.path().begin(), dir.path().end());
  install += L"\\";
  auto first = std::make_unique<CDfrgConfig>(install, HKEY_CURRENT_USER, "");
  EXPECT_EQ(0, access((dir.path() + "/state").c_str(), F_OK));
  // The second time it exists; that is no error.
  auto second = std::make_unique<CDfrgConfig>(install, HKEY_CURRENT_USER, "");
  EXPECT_EQ(second.get(), CDfrgConfig::current());
  // Destroying an older configuration leaves the current one in place.
  first.reset();
  EXPECT_EQ(second.get(), CDfrgConfig::current());

  // An install directory that does not exist: the state directory cannot be made.
  std::wstring blocked = install + L"state\\x\\y\\";
  EXPECT_NO_THROW(CDfrgConfig(blocked, HKEY_CURRENT_USER, ""));
}

TEST_F(DfrgConfigTest, DetachedSettingsNeedNoRegistry) {
  auto config = CDfrgConfig::detached(L"/tmp/state/");
  EXPECT_EQ(config.get(), CDfrgConfig::current());
  EXPECT_EQ(1024u, config->maxClusterMoveCount());
  EXPECT_EQ(0, config->enabledDrive(0));
  config->setDoMoveLeft(true);
  EXPECT_TRUE(config->doMoveLeft());
  EXPECT_EQ(L"c:\\volumeDump.vdf", config->dumpPath());
  EXPECT_EQ(0, reg_->calls(FaultInjectingRegistry::kOpen) + reg_->calls(FaultInjectingRegistry::kCreate));
}

}  // namespace
}  // namespace test
}  // namespace glidewell

#include "config/dfrg_config.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "engine/dfrg_exception.h"
#include "support/fake_env.h"
#include "support/registry_test_util.h"
#include "support/temp_dir.h"

namespace glidewell {
namespace test {
namespace {

const std::string kSettings = "SOFTWARE\\quorvane\\Quorvane Glidewell\\settings";

// Drives whose label is "?" cannot have it read.
class DriveEnv : public FakeEnv {
 public:
  void addDrive(wchar_t letter, const std::wstring& label, UINT type = DRIVE_FIXED) {
    FakeEnv::addDrive(letter, label, nullptr, type);
  }
  bool volumeLabel(const std::wstring& rootPath, std::wstring* label) override {
    return FakeEnv::volumeLabel(rootPath, label) && *label != L"?";
  }
};

class DfrgConfigTest : public RegistryTest {
 protected:
  DfrgConfigTest() : scoped_(&env_) {}
  std::unique_ptr<CDfrgConfig> load(const std::string& keyPath = "") {
    return std::make_unique<CDfrgConfig>(dir_.path(), HKEY_CURRENT_USER, keyPath);
  }
  int64_t dword(const std::string& key, const std::wstring& name) { return number(value(key, name), REG_DWORD); }

  TempDir dir_;
  DriveEnv env_;
  ScopedEnv scoped_;
};

TEST_F(DfrgConfigTest, AFreshRegistryGetsDefaultsAndOneKeyPerFixedDrive) {
  env_.addDrive(L'A', L"never");
  env_.addDrive(L'C', L"System");
  env_.addDrive(L'D', L"Data");
  for (UINT type : {DRIVE_REMOVABLE, DRIVE_REMOTE, DRIVE_CDROM}) env_.addDrive(static_cast<wchar_t>(L'E' + type), L"x", type);
  auto config = load();
  EXPECT_EQ(config.get(), CDfrgConfig::current());

  // maxProcessCalls, makeDump and dumpPath are never created.
  EXPECT_EQ((std::vector<std::wstring>{L"DoMoveBetterPlace", L"DoMoveLeft", L"doRunInBatteryMode", L"Drive Map",
                                       L"MaxClusterMoveCount", L"MaxExtentListSize", L"NearByWatchListDist"}),
            names<std::wstring>(kSettings));
  std::pair<const wchar_t*, DWORD> defaults[] = {{L"Drive Map", (1u << 2) | (1u << 3)}, {L"doRunInBatteryMode", 0},
                                                 {L"MaxClusterMoveCount", 1024}, {L"MaxExtentListSize", 1048576},
                                                 {L"NearByWatchListDist", 1200}, {L"DoMoveLeft", 0},
                                                 {L"DoMoveBetterPlace", 1}};
  for (const auto& d : defaults) EXPECT_EQ(d.second, dword(kSettings, d.first)) << d.second;
  EXPECT_EQ(utf16Bytes(L"System"), value(kSettings + "\\C:", L"Name").data);
  EXPECT_EQ(1u, dword(kSettings + "\\D:", L"enabled"));
  EXPECT_EQ(nullptr, openPath(*memory_, HKEY_CURRENT_USER, kSettings + "\\A:", false));

  EXPECT_EQ(std::make_tuple(1024u, 1048576u, 1200u, 0xFFFFFFFFu, false, true, false),
            std::make_tuple(config->maxClusterMoveCount(), config->maxExtentListSize(), config->nearByWatchListDist(),
                            config->maxProcessCalls(), config->doMoveLeft(), config->doMoveBetterPlace(),
                            config->makeDump()));
  EXPECT_EQ(L"c:\\volumeDump.vdf", config->dumpPath());
  EXPECT_EQ(std::string("CD"), (std::string{config->enabledDrive(0), config->enabledDrive(1)}));
  EXPECT_EQ(0, config->enabledDrive(2));
  EXPECT_EQ(dir_.path() + L"state\\", config->stateDirectory());
  EXPECT_EQ(0, access(dir_.file("state").c_str(), F_OK));
  EXPECT_EQ(1u, reg_->openHandles()) << "only the settings key stays open";
  config.reset();
  EXPECT_EQ(nullptr, CDfrgConfig::current());
  EXPECT_EQ(0u, reg_->openHandles());
}

TEST_F(DfrgConfigTest, ReloadingKeepsTheUsersChoicesAndReplacesMistypedSettings) {
  env_.addDrive(L'C', L"System");
  env_.addDrive(L'D', L"Data");
  auto first = load();
  setRaw(kSettings + "\\D:", L"enabled", REG_DWORD, dwordBytes(0));
  setRaw(kSettings + "\\F:", L"enabled", REG_SZ, utf16Bytes(L"0"));  // not a DWORD: counts as 1
  setRaw(kSettings + "\\G:", L"Name", REG_SZ, utf16Bytes(L"no enabled value"));
  setRaw(kSettings, L"MaxExtentListSize", REG_DWORD, dwordBytes(5000));
  setRaw(kSettings, L"maxProcessCalls", REG_DWORD, dwordBytes(12));
  setRaw(kSettings, L"MaxClusterMoveCount", REG_SZ, utf16Bytes(L"4096"));
  setRaw(kSettings, L"NearByWatchListDist", REG_QWORD, qwordBytes(99));
  setRaw(kSettings, L"DoMoveLeft", REG_DWORD, dwordBytes(2));  // only 1 switches a move on

  // D: is relabelled, C: can no longer be read, E: is new but unreadable.
  env_.addDrive(L'D', L"Backup");
  env_.addDrive(L'C', L"?");
  env_.addDrive(L'E', L"?");
  auto config = load();
  EXPECT_EQ(0u, dword(kSettings + "\\D:", L"enabled"));
  EXPECT_EQ(utf16Bytes(L"Backup"), value(kSettings + "\\D:", L"Name").data);
  EXPECT_EQ(utf16Bytes(L"System"), value(kSettings + "\\C:", L"Name").data);
  EXPECT_EQ(nullptr, openPath(*memory_, HKEY_CURRENT_USER, kSettings + "\\E:", false));
  // An unreadable label still counts the drive as present.
  EXPECT_EQ((1u << 2) | (1u << 3) | (1u << 4), dword(kSettings, L"Drive Map"));
  EXPECT_EQ(std::make_tuple(5000u, 12u, 1024u, 1200u, false),
            std::make_tuple(config->maxExtentListSize(), config->maxProcessCalls(), config->maxClusterMoveCount(),
                            config->nearByWatchListDist(), config->doMoveLeft()));
  EXPECT_EQ(1024u, dword(kSettings, L"MaxClusterMoveCount"));
  EXPECT_EQ(1200u, dword(kSettings, L"NearByWatchListDist"));
  EXPECT_EQ(2u, dword(kSettings, L"DoMoveLeft"));
  EXPECT_EQ(std::string("CFG"), (std::string{config->enabledDrive(0), config->enabledDrive(1), config->enabledDrive(2)}));
  EXPECT_EQ(0, config->enabledDrive(3));
  EXPECT_EQ(0, config->enabledDrive(-1));

  // A drive that went away keeps its key, and still counts as enabled.
  env_.removeDrive(L'C');
  config = load();
  EXPECT_EQ((1u << 3) | (1u << 4), dword(kSettings, L"Drive Map"));
  EXPECT_EQ('C', config->enabledDrive(0));
  // Destroying an older configuration leaves the current one in place.
  first.reset();
  EXPECT_EQ(config.get(), CDfrgConfig::current());
}

TEST_F(DfrgConfigTest, MoveFlagsAreWrittenAtOnceAndDumpSettingsReadAfresh) {
  auto config = load("Software/Test\\Glidewell");  // either separator
  const std::string settings = "Software\\Test\\Glidewell\\settings";
  config->setDoMoveLeft(true);
  config->setDoMoveBetterPlace(false);
  EXPECT_TRUE(config->doMoveLeft());
  EXPECT_FALSE(config->doMoveBetterPlace());
  EXPECT_EQ(1u, dword(settings, L"DoMoveLeft"));
  EXPECT_EQ(0u, dword(settings, L"DoMoveBetterPlace"));

  setRaw(settings, L"makeDump", REG_DWORD, dwordBytes(3));
  setRaw(settings, L"dumpPath", REG_SZ, utf16Bytes(L"d:\\dumps\\v.vdf"));
  EXPECT_TRUE(config->makeDump());
  EXPECT_EQ(L"d:\\dumps\\v.vdf", config->dumpPath());
  setRaw(settings, L"dumpPath", REG_DWORD, dwordBytes(1));
  EXPECT_EQ(L"c:\\volumeDump.vdf", config->dumpPath());
  EXPECT_EQ(REG_DWORD, value(settings, L"dumpPath").type) << "never written";
}

TEST_F(DfrgConfigTest, FailuresToMakeTheKeysThrowTheLoadErrorAndOthersAreAbsorbed) {
  env_.addDrive(L'C', L"System");
  for (const char* key : {"settings", "C:"}) {
    reg_->fail(FaultInjectingRegistry::kCreate, ERROR_ACCESS_DENIED, true, key);
    try {
      load();
      ADD_FAILURE() << "no exception for " << key;
    } catch (const CDfrgException& e) {
      EXPECT_EQ(2, e.code);
      EXPECT_EQ("Couldn't load config from Registry", e.message);
    }
    EXPECT_EQ(nullptr, CDfrgConfig::current());
    EXPECT_EQ(0u, reg_->openHandles());
    reg_->clearFaults();
  }

  // Failed writes and reads of values, and a state directory that cannot be made.
  reg_->fail(FaultInjectingRegistry::kSet, ERROR_ACCESS_DENIED, true);
  reg_->fail(FaultInjectingRegistry::kQuery, ERROR_READ_FAULT, true);
  std::unique_ptr<CDfrgConfig> config;
  ASSERT_NO_THROW(config = std::make_unique<CDfrgConfig>(dir_.path() + L"x/y/", HKEY_CURRENT_USER, ""));
  EXPECT_EQ(1024u, config->maxClusterMoveCount());
  EXPECT_NO_THROW(config->setDoMoveLeft(true));
  EXPECT_TRUE(config->doMoveLeft());
  EXPECT_FALSE(config->makeDump());
}

TEST_F(DfrgConfigTest, DetachedSettingsNeedNoRegistry) {
  auto config = CDfrgConfig::detached(L"/tmp/state/");
  EXPECT_EQ(config.get(), CDfrgConfig::current());
  EXPECT_EQ(1024u, config->maxClusterMoveCount());
  EXPECT_EQ(0, config->enabledDrive(0));
  config->setDoMoveLeft(true);
  EXPECT_TRUE(config->doMoveLeft());
  EXPECT_EQ(L"c:\\volumeDump.vdf", config->dumpPath());
  EXPECT_EQ(0, reg_->calls());
}

}  // namespace
}  // namespace test
}  // namespace glidewell

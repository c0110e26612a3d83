// Settings by name, values as text, the registry database as the host sees
// it, and the logging configuration the host installs.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "cli/host_files.h"
#include "cli/log_config_file.h"
#include "cli/registry_access.h"
#include "config/registry_store.h"
#include "logging/log_setup.h"
#include "platform/env.h"
#include "platform/text.h"
#include "support/temp_dir.h"

namespace glidewell {
namespace {

TEST(SettingNames, TakeAnySpellingAndGiveTheEnginesOwn) {
  SettingName n = parseSettingName("maxclustermovecount");
  EXPECT_EQ(n.display(), "MaxClusterMoveCount");
  EXPECT_EQ(n.type, static_cast<DWORD>(REG_DWORD));
  EXPECT_EQ(*n.defaultText, L"1024");
  EXPECT_EQ(parseSettingName("DUMPPATH").type, static_cast<DWORD>(REG_SZ));
  EXPECT_FALSE(parseSettingName("Drive Map").defaultText) << "the engine writes it; it has no default";

  SettingName drive = parseSettingName("d:\\ENABLED");
  EXPECT_EQ(drive.drive, "D:");
  EXPECT_EQ(drive.display(), "D:/enabled");
  EXPECT_EQ(parseSettingName("c:/name").type, static_cast<DWORD>(REG_SZ));

  for (const char* bad : {"MaxClusterMoveCnt", "", "C:/bogus", "CC:/enabled", "1:/enabled", "C/enabled",
                          "settings/MaxClusterMoveCount"}) {
    EXPECT_THROW(parseSettingName(bad), UsageError) << bad;
  }
}

TEST(SettingValues, NumbersMustFitADwordAndTextIsStoredAsUtf16) {
  SettingName dword = parseSettingName("MaxClusterMoveCount");
  EXPECT_EQ(formatValue(parseSettingValue(dword, "0")), "0");
  EXPECT_EQ(formatValue(parseSettingValue(dword, "4294967295")), "4294967295");
  EXPECT_EQ(formatValue(parseSettingValue(dword, "0x10")), "16");
  EXPECT_EQ(formatValue(parseSettingValue(dword, "0XFFFFFFFF")), "4294967295");
  EXPECT_EQ(parseSettingValue(dword, "258").data, (std::vector<BYTE>{2, 1, 0, 0}));
  for (const char* bad : {"", "-1", "+5", " 5", "5 ", "4294967296", "0x100000000", "0x", "12abc", "one",
                          "99999999999999999999999"}) {
    EXPECT_THROW(parseSettingValue(dword, bad), UsageError) << bad;
  }
  RegistryValue text = parseSettingValue(parseSettingName("dumpPath"), "d:\\\xC3\xA9.vdf");
  EXPECT_EQ(text.type, static_cast<DWORD>(REG_SZ));
  EXPECT_EQ(text.data, (std::vector<BYTE>{'d', 0, ':', 0, '\\', 0, 0xE9, 0, '.', 0, 'v', 0, 'd', 0, 'f', 0, 0, 0}));
  EXPECT_EQ(formatValue(text), "d:\\\xC3\xA9.vdf");
}

TEST(SettingValues, ValuesOfUnexpectedShapeAreShownNotMisread) {
  EXPECT_EQ(formatValue({REG_DWORD, {1, 2}}), "(REG_DWORD, type 4, 2 bytes: 0102)");
  EXPECT_EQ(formatValue({REG_QWORD, {1, 0, 0, 0, 0, 0, 0, 1}}), "72057594037927937");
  EXPECT_EQ(formatValue({REG_BINARY, {0xde, 0xad}}), "(REG_BINARY, type 3, 2 bytes: dead)");
  EXPECT_EQ(formatValue({REG_SZ, {'a', 0, 0, 0, 'b', 0}}), "a") << "text ends at its NUL";
  EXPECT_EQ(formatValue({REG_SZ, {'a', 0, 'b'}}), "(REG_SZ, type 1, 3 bytes: 610062)");
  EXPECT_EQ(formatValue({99, {}}), "(REG_?, type 99, 0 bytes: )");
}

TEST(HostRegistry, WritesWhereTheEngineReadsAndReadsWhatItWrites) {
  TempDir dir;
  std::string install = asDirectory(dir.native());
  EXPECT_THROW(HostRegistry::open(install, false), HostError) << "no database yet";
  {
    auto registry = HostRegistry::open(install, true);
    SettingName moveCount = parseSettingName("MaxClusterMoveCount");
    registry->set(HostRegistry::userKey("settings"), moveCount.value, parseSettingValue(moveCount, "77"));
    registry->set(HostRegistry::userKey("settings\\E:"), L"enabled", parseSettingValue(parseSettingName("E:/enabled"), "0"));
    EXPECT_EQ(registry->subkeys(HostRegistry::userKey("settings")), std::vector<std::string>{"E:"});
    EXPECT_EQ(registry->values(HostRegistry::userKey("settings")), std::vector<std::wstring>{L"MaxClusterMoveCount"});
    EXPECT_FALSE(registry->get(HostRegistry::userKey("settings"), L"DoMoveLeft"));
    EXPECT_FALSE(registry->get(HostRegistry::userKey("nothing\\here"), L"x"));
    EXPECT_TRUE(registry->values(HostRegistry::userKey("nothing")).empty());
  }
  // The engine's own typed registry layer on the same file sees both values.
  Env::current()->setInstallDirectory(widen(install));
  ASSERT_TRUE(RegistryBackend::openSystem());
  {
    CRegistryStore store(HKEY_CURRENT_USER, RegistryBackend::system());
    CRegistryKey settings = store.key("SOFTWARE\\quorvane\\Quorvane Glidewell\\settings", KEY_READ, false);
    DWORD v = 0;
    EXPECT_TRUE(settings.getDword("MaxClusterMoveCount", v, 1024));
    EXPECT_EQ(v, 77u);
    CRegistryKey e = settings.subKey("e:", KEY_READ, false);
    EXPECT_TRUE(e.getDword("enabled", v, 1));
    EXPECT_EQ(v, 0u);
    // A value of the wrong type, as another program might leave it.
    CRegistryKey writable = store.key("SOFTWARE\\quorvane\\Quorvane Glidewell\\settings", KEY_ALL_ACCESS, false);
    EXPECT_TRUE(writable.setString(L"DoMoveLeft", L"yes"));
  }
  RegistryBackend::closeSystem();
  auto registry = HostRegistry::open(install, false);
  auto odd = registry->get(HostRegistry::userKey("settings"), L"domoveleft");
  ASSERT_TRUE(odd);
  EXPECT_EQ(odd->type, static_cast<DWORD>(REG_SZ));
  EXPECT_EQ(formatValue(*odd), "yes");
}

TEST(HostRegistry, AFileThatIsNoDatabaseIsRefusedAndLeftAlone) {
  TempDir dir;
  std::string install = asDirectory(dir.native());
  std::ofstream(install + "registry.db") << "not a database at all, but somebody's file";
  try {
    HostRegistry::open(install, false);
    FAIL() << "opened a file that is no database";
  } catch (const HostError& e) {
    EXPECT_NE(std::string(e.what()).find("cannot open the registry database " + install + "registry.db"),
              std::string::npos)
        << e.what();
  }
  std::ifstream in(install + "registry.db");
  std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(content, "not a database at all, but somebody's file");
}

TEST(LogConfig, TheInstalledFileLogsIntoTheInstallDirectoryAndNotToTheConsole) {
  std::string fitted;
  ASSERT_TRUE(fitLogConfigToHost(defaultLogConfigText(), "/a \"b\" & <c>/glidewell.log", &fitted));
  EXPECT_NE(fitted.find("<filename value=\"/a &quot;b&quot; &amp; &lt;c&gt;/glidewell.log\"/>"), std::string::npos);
  EXPECT_EQ(fitted.find("<appender name=\"StdAppender\""), std::string::npos);
  EXPECT_EQ(fitted.find("The console without the trace"), std::string::npos) << "its comment goes with it";
  EXPECT_NE(fitted.find("<appender name=\"FileAppender\">"), std::string::npos);
  EXPECT_NE(fitted.find("</logging>"), std::string::npos);
  // A configuration without the parts the host changes is not guessed at.
  EXPECT_FALSE(fitLogConfigToHost("<logging></logging>", "x", &fitted));

  // The engine's logging, set up from an install directory prepared by the
  // host, writes its first message to the file there.
  TempDir dir;
  std::string install = asDirectory(dir.native());
  std::string logFile = installLogConfig(install);
  EXPECT_EQ(logFile, install + "glidewell.log");
  initLogging(widen(install));
  deinitLogging();
  std::ifstream in(logFile);
  std::stringstream text;
  text << in.rdbuf();
  EXPECT_NE(text.str().find("Log started"), std::string::npos);
  // A configuration already there is the user's and stays as it is.
  std::ofstream(install + "config/logconfig.xml") << "<logging/>";
  installLogConfig(install);
  std::ifstream again(install + "config/logconfig.xml");
  std::string kept((std::istreambuf_iterator<char>(again)), std::istreambuf_iterator<char>());
  EXPECT_EQ(kept, "<logging/>");
}

}  // namespace
}  // namespace glidewell

// A Windows host of glidewell.dll, built the way the service uses it: the
// library is loaded by name, the ten exports are found with GetProcAddress,
// and everything is checked through them, through the (Wine) registry and
// through the server end of the service's pause pipe.
//
// Under Wine no volume can be used (the NTFS volume controls are refused), so
// every run ends at once with "no volume selected"; cluster work is tested on
// the simulated disk instead. The tests share the library's process-wide
// state and run in the order written; each one initialises and deinitialises.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "crash_harness.h"
#include "glidewell/dfrg.h"
#include "wine_main.h"

namespace {

const wchar_t kDefaultKey[] = L"SOFTWARE\\quorvane\\Quorvane Glidewell";
const wchar_t kPipeName[] = L"\\\\.\\pipe\\QuorvaneDefragServicePausePipe";

struct Exports {
  decltype(&dfrg_initialize) initialize;
  decltype(&dfrg_deinitialize) deinitialize;
  decltype(&dfrg_createDefragInstance) createDefragInstance;
  decltype(&dfrg_deleteDefragInstance) deleteDefragInstance;
  decltype(&dfrg_startDefrag) startDefrag;
  decltype(&dfrg_stopDefrag) stopDefrag;
  decltype(&dfrg_pauseDefrag) pauseDefrag;
  decltype(&dfrg_isRunning) isRunning;
  decltype(&dfrg_getLastErrorCode) getLastErrorCode;
  decltype(&dfrg_getLastErrorMessage) getLastErrorMessage;
};

// "/unix/path" (Wine's drive Z:) or a Windows path, as given on the command line.
std::wstring windowsPath(const std::string& path) {
  std::wstring out = path.size() > 0 && path[0] == '/' ? L"Z:" : L"";
  for (char c : path) out += c == '/' ? L'\\' : static_cast<wchar_t>(static_cast<unsigned char>(c));
  return out;
}

template <typename F>
void bind(HMODULE dll, const char* name, F& fn) {
  fn = reinterpret_cast<F>(reinterpret_cast<void (*)()>(::GetProcAddress(dll, name)));
  if (fn == nullptr) std::printf("glidewell.dll does not export %s\n", name);
}

// The library, loaded once for the whole program; null when it cannot be.
const Exports* exports() {
  static const Exports* loaded = [] () -> const Exports* {
    const auto& args = wineTestArguments();
    std::wstring path = args.empty() ? L"glidewell.dll" : windowsPath(args[0]);
    HMODULE dll = ::LoadLibraryW(path.c_str());
    if (dll == nullptr) {
      std::printf("LoadLibrary(%ls) failed with error %lu\n", path.c_str(), ::GetLastError());
      return nullptr;
    }
    static Exports e;
    bind(dll, "dfrg_initialize", e.initialize);
    bind(dll, "dfrg_deinitialize", e.deinitialize);
    bind(dll, "dfrg_createDefragInstance", e.createDefragInstance);
    bind(dll, "dfrg_deleteDefragInstance", e.deleteDefragInstance);
    bind(dll, "dfrg_startDefrag", e.startDefrag);
    bind(dll, "dfrg_stopDefrag", e.stopDefrag);
    bind(dll, "dfrg_pauseDefrag", e.pauseDefrag);
    bind(dll, "dfrg_isRunning", e.isRunning);
    bind(dll, "dfrg_getLastErrorCode", e.getLastErrorCode);
    bind(dll, "dfrg_getLastErrorMessage", e.getLastErrorMessage);
    void* all[] = {reinterpret_cast<void*>(e.initialize), reinterpret_cast<void*>(e.deinitialize),
                   reinterpret_cast<void*>(e.createDefragInstance), reinterpret_cast<void*>(e.deleteDefragInstance),
                   reinterpret_cast<void*>(e.startDefrag), reinterpret_cast<void*>(e.stopDefrag),
                   reinterpret_cast<void*>(e.pauseDefrag), reinterpret_cast<void*>(e.isRunning),
                   reinterpret_cast<void*>(e.getLastErrorCode), reinterpret_cast<void*>(e.getLastErrorMessage)};
    for (void* fn : all) {
      if (fn == nullptr) return nullptr;
    }
    return &e;
  }();
  return loaded;
}

// --- The registry, read and written directly (not through the engine).

struct RegValue {
  bool exists = false;
  DWORD type = REG_NONE;
  std::vector<BYTE> data;

  DWORD dword() const { return type == REG_DWORD && data.size() == 4 ? *reinterpret_cast<const DWORD*>(data.data()) : ~0u; }
  bool isQword(ULONGLONG v) const {
    return type == REG_QWORD && data.size() == 8 && *reinterpret_cast<const ULONGLONG*>(data.data()) == v;
  }
  std::wstring string() const {
    if (type != REG_SZ) return L"<not a string>";
    return std::wstring(reinterpret_cast<const wchar_t*>(data.data()), data.size() / 2).c_str();
  }
};

RegValue readValue(const std::wstring& key, const wchar_t* name, HKEY root = HKEY_CURRENT_USER) {
  RegValue v;
  DWORD size = 0;
  if (::RegGetValueW(root, key.c_str(), name, RRF_RT_ANY | RRF_NOEXPAND, &v.type, nullptr, &size) != ERROR_SUCCESS) {
    return v;
  }
  v.data.resize(size);
  v.exists = ::RegGetValueW(root, key.c_str(), name, RRF_RT_ANY | RRF_NOEXPAND, &v.type, v.data.data(), &size) ==
             ERROR_SUCCESS;
  v.data.resize(size);
  return v;
}

bool keyExists(const std::wstring& key, HKEY root = HKEY_CURRENT_USER) {
  HKEY h;
  if (::RegOpenKeyExW(root, key.c_str(), 0, KEY_READ, &h) != ERROR_SUCCESS) return false;
  ::RegCloseKey(h);
  return true;
}

void writeValue(const std::wstring& key, const wchar_t* name, DWORD type, const void* data, DWORD size) {
  ASSERT_EQ(ERROR_SUCCESS, ::RegSetKeyValueW(HKEY_CURRENT_USER, key.c_str(), name, type, data, size));
}

void deleteKeyTree(const std::wstring& key) { ::RegDeleteTreeW(HKEY_CURRENT_USER, key.c_str()); }

std::wstring today() {
  SYSTEMTIME t;
  ::GetLocalTime(&t);
  wchar_t buf[16];
  std::swprintf(buf, 16, L"%04u-%02u-%02u", t.wYear, t.wMonth, t.wDay);
  return buf;
}

// --- The server end of the pause pipe, as the service would hold it.

struct HandleCloser {
  void operator()(HANDLE h) const { ::CloseHandle(h); }
};
using PipeServer = std::unique_ptr<void, HandleCloser>;

PipeServer makePipeServer() {
  // Overlapped, so that asking whether a client came never blocks the test.
  HANDLE h = ::CreateNamedPipeW(kPipeName, PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED, PIPE_TYPE_BYTE, 1, 64, 64, 0,
                                nullptr);
  return PipeServer(h == INVALID_HANDLE_VALUE ? nullptr : h);
}

bool clientConnected(HANDLE server) {
  OVERLAPPED ov{};
  ov.hEvent = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  bool connected = false;
  if (!::ConnectNamedPipe(server, &ov)) {
    DWORD error = ::GetLastError();
    connected = error == ERROR_PIPE_CONNECTED;
    if (error == ERROR_IO_PENDING) {
      ::CancelIo(server);
      DWORD n;
      ::GetOverlappedResult(server, &ov, &n, TRUE);
    }
  }
  ::CloseHandle(ov.hEvent);
  return connected;
}

bool clientStillThere(HANDLE server) {
  DWORD avail = 0;
  return ::PeekNamedPipe(server, nullptr, 0, nullptr, &avail, nullptr) != FALSE;
}

// Each test works in a fresh install directory below %TEMP%.
class ExportsTest : public testing::Test {
 protected:
  void SetUp() override {
    api_ = exports();
    ASSERT_NE(nullptr, api_) << "glidewell.dll could not be loaded with all ten exports";
    wchar_t temp[MAX_PATH + 1];
    ::GetTempPathW(MAX_PATH + 1, temp);
    installDir_ = std::wstring(temp) + L"glidewell-host-" + std::to_wstring(::GetCurrentProcessId()) + L"\\";
    ::CreateDirectoryW(installDir_.c_str(), nullptr);
  }
  void TearDown() override {
    ::RemoveDirectoryW((installDir_ + L"state").c_str());
    ::RemoveDirectoryW(installDir_.c_str());
  }

  // Polls dfrg_isRunning until it reports the end of a run.
  bool waitForEnd(DfrgHandle h, DWORD timeoutMs = 20000) {
    DWORD start = ::GetTickCount();
    while (api_->isRunning(h) != 0) {
      if (::GetTickCount() - start > timeoutMs) return false;
      ::Sleep(10);
    }
    return true;
  }

  const Exports* api_ = nullptr;
  std::wstring installDir_;
};

TEST_F(ExportsTest, NothingWorksBeforeInitialiseAndTheCycleRepeats) {
  const char* message = api_->getLastErrorMessage();
  ASSERT_NE(nullptr, message);
  EXPECT_STREQ("", message);
  EXPECT_EQ(0, api_->getLastErrorCode());

  EXPECT_EQ(nullptr, api_->createDefragInstance());
  EXPECT_EQ(0, api_->deinitialize());
  EXPECT_EQ(0, api_->deleteDefragInstance(nullptr));
  EXPECT_EQ(0, api_->startDefrag(nullptr));
  EXPECT_EQ(0, api_->stopDefrag(nullptr));
  EXPECT_EQ(0, api_->pauseDefrag(nullptr, 1));

  for (int cycle = 0; cycle < 2; ++cycle) {
    EXPECT_EQ(1, api_->initialize(installDir_.c_str(), "")) << "cycle " << cycle;
    EXPECT_EQ(0, api_->initialize(installDir_.c_str(), ""));
    EXPECT_EQ(0, api_->deleteDefragInstance(nullptr));
    EXPECT_EQ(1, api_->deinitialize());
    EXPECT_EQ(0, api_->deinitialize());
  }
  EXPECT_EQ(0, api_->getLastErrorCode());
  EXPECT_STREQ("", api_->getLastErrorMessage());
}

TEST_F(ExportsTest, AnInstanceWritesTheSettingsTheDriveMapAndItsStateDirectory) {
  deleteKeyTree(kDefaultKey);
  ASSERT_EQ(1, api_->initialize(installDir_.c_str(), ""));
  DfrgHandle h = api_->createDefragInstance();  // no pause-pipe server exists
  ASSERT_NE(nullptr, h) << "error " << api_->getLastErrorCode();
  EXPECT_EQ(1, api_->isRunning(h)) << "a fresh instance has no finished run";

  const std::wstring settings = std::wstring(kDefaultKey) + L"\\settings";
  DWORD fixed = 0;
  DWORD drives = ::GetLogicalDrives();
  for (int i = 1; i < 26; ++i) {
    wchar_t root[] = {static_cast<wchar_t>(L'A' + i), L':', L'\\', 0};
    if ((drives & (1u << i)) == 0 || ::GetDriveTypeW(root) != DRIVE_FIXED) continue;
    fixed |= 1u << i;
    wchar_t label[MAX_PATH + 1] = {};
    if (!::GetVolumeInformationW(root, label, MAX_PATH + 1, nullptr, nullptr, nullptr, nullptr, 0)) continue;
    std::wstring sub = settings + L"\\" + std::wstring(root, 2);
    EXPECT_EQ(1u, readValue(sub, L"enabled").dword()) << root[0];
    EXPECT_EQ(std::wstring(label), readValue(sub, L"Name").string()) << root[0];
  }
  EXPECT_NE(0u, fixed & (1u << 2)) << "C: is a fixed drive";
  EXPECT_EQ(fixed, readValue(settings, L"Drive Map").dword());
  const struct {
    const wchar_t* name;
    DWORD value;
  } defaults[] = {{L"doRunInBatteryMode", 0},     {L"MaxClusterMoveCount", 1024}, {L"MaxExtentListSize", 1048576},
                  {L"NearByWatchListDist", 1200}, {L"DoMoveLeft", 0},             {L"DoMoveBetterPlace", 1}};
  for (const auto& d : defaults) EXPECT_EQ(d.value, readValue(settings, d.name).dword()) << d.name;
  for (const wchar_t* absent : {L"maxProcessCalls", L"makeDump", L"dumpPath"}) {
    EXPECT_FALSE(readValue(settings, absent).exists) << absent;
  }
  DWORD attributes = ::GetFileAttributesW((installDir_ + L"state").c_str());
  EXPECT_TRUE(attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0);

  EXPECT_EQ(1, api_->deleteDefragInstance(h));
  EXPECT_EQ(1, api_->deinitialize());
}

TEST_F(ExportsTest, TheFirstKeyPathStaysAcrossASecondInitialise) {
  const std::wstring mine = L"SOFTWARE\\quorvane\\GlidewellWineHost";
  const std::wstring other = L"SOFTWARE\\quorvane\\GlidewellWineHostOther";
  deleteKeyTree(mine);
  deleteKeyTree(other);
  ASSERT_EQ(1, api_->initialize(installDir_.c_str(), "SOFTWARE\\quorvane\\GlidewellWineHost"));
  EXPECT_EQ(0, api_->initialize(installDir_.c_str(), "SOFTWARE\\quorvane\\GlidewellWineHostOther"));
  DfrgHandle h = api_->createDefragInstance();
  ASSERT_NE(nullptr, h);
  EXPECT_TRUE(readValue(mine + L"\\settings", L"Drive Map").exists);
  EXPECT_FALSE(keyExists(other));
  EXPECT_EQ(1, api_->deleteDefragInstance(h));
  EXPECT_EQ(1, api_->deinitialize());
  deleteKeyTree(mine);
}

TEST_F(ExportsTest, AnInstanceWhoseSettingsCannotBeOpenedIsNotCreated) {
  // A key name longer than the registry allows: the settings key cannot be made.
  const std::string path = "SOFTWARE\\" + std::string(300, 'x');
  ASSERT_EQ(1, api_->initialize(installDir_.c_str(), path.c_str()));
  EXPECT_EQ(nullptr, api_->createDefragInstance());
  EXPECT_EQ(2, api_->getLastErrorCode()) << "ErrorFileNotFound: Couldn't load config from Registry";
  EXPECT_STREQ("", api_->getLastErrorMessage()) << "a failed export stores the code only";
  EXPECT_EQ(1, api_->deinitialize());
}

TEST_F(ExportsTest, AnInstanceHoldsThePausePipeUntilItIsDeleted) {
  PipeServer pipe = makePipeServer();
  ASSERT_NE(nullptr, pipe) << ::GetLastError();
  HANDLE server = pipe.get();
  ASSERT_EQ(1, api_->initialize(installDir_.c_str(), ""));
  DfrgHandle h = api_->createDefragInstance();
  ASSERT_NE(nullptr, h);
  EXPECT_TRUE(clientConnected(server)) << "the instance opened the client end";
  EXPECT_TRUE(clientStillThere(server));

  // The only pipe instance is taken: a second instance waits about a second
  // for it, gives up, and is created all the same.
  DWORD start = ::GetTickCount();
  DfrgHandle second = api_->createDefragInstance();
  DWORD waited = ::GetTickCount() - start;
  ASSERT_NE(nullptr, second);
  EXPECT_GE(waited, 900u);
  EXPECT_LT(waited, 10000u);
  EXPECT_EQ(1, api_->deleteDefragInstance(second));
  EXPECT_TRUE(clientStillThere(server)) << "the first instance still holds it";

  EXPECT_EQ(1, api_->deleteDefragInstance(h));
  EXPECT_FALSE(clientStillThere(server));
  EXPECT_EQ(static_cast<DWORD>(ERROR_BROKEN_PIPE), ::GetLastError());
  EXPECT_EQ(1, api_->deinitialize());
}

// --- The unhandled-exception report: dfrg_initialize installs it, so a
// fault anywhere in the host process ends up in the engine's log.

const char kCrashKeyPath[] = "SOFTWARE\\quorvane\\GlidewellWineCrash";

TEST_F(ExportsTest, ACrashIsReportedInTheLogAndEndsTheProcess) {
  const auto& args = wineTestArguments();
  std::wstring dll = args.empty() ? L"glidewell.dll" : windowsPath(args[0]);
  CrashOutcome outcome = runCrashingChild(installDir_, L"\"" + dll + L"\" --gtest_filter=CrashChild.*");
  deleteKeyTree(L"SOFTWARE\\quorvane\\GlidewellWineCrash");
  ASSERT_TRUE(outcome.ended) << "the crashed child did not end";
  // The filter lets the process end with the exception's code, without a dialog.
  EXPECT_EQ(0xC0000005u, outcome.exitCode);
  EXPECT_EQ("", missingReportLines(outcome.log)) << "missing from the log:\n" << outcome.log;
}

// The child's part of the test above; skipped in a normal run.
TEST(CrashChild, InitialiseAndCrash) {
  std::wstring dir = crashChildDirectory();
  if (dir.empty()) GTEST_SKIP() << "runs only as the crashing child";
  const Exports* api = exports();
  ASSERT_NE(nullptr, api);
  ASSERT_EQ(1, api->initialize(dir.c_str(), kCrashKeyPath));
  std::fflush(stdout);
  writeToAddress0x10();
  ADD_FAILURE() << "still alive after the access violation";
}

// Runs last: the ctest step reads the registry it leaves behind from the
// prefix's user.reg.
TEST_F(ExportsTest, ARunWithoutUsableVolumesEndsWithNoVolumesSelected) {
  deleteKeyTree(kDefaultKey);
  // Statistics left by an earlier run, one counter of the wrong type.
  const std::wstring stats = std::wstring(kDefaultKey) + L"\\statistics";
  const std::wstring complete = stats + L"\\complete";
  DWORD dw = 77, status = 3;
  ULONGLONG qw = 9;
  const wchar_t lastFile[] = L"C:\\old\\file.txt";
  writeValue(stats, L"Processed Files", REG_DWORD, &dw, sizeof(dw));
  writeValue(stats, L"Moved Files", REG_QWORD, &qw, sizeof(qw));
  writeValue(stats, L"Status", REG_DWORD, &status, sizeof(status));
  writeValue(stats, L"Last File", REG_SZ, lastFile, sizeof(lastFile));
  writeValue(stats, L"Stale Value", REG_QWORD, &qw, sizeof(qw));
  writeValue(complete, L"Processed Files", REG_QWORD, &qw, sizeof(qw));
  writeValue(complete, L"Defragged Files", REG_DWORD, &dw, sizeof(dw));

  ASSERT_EQ(1, api_->initialize(installDir_.c_str(), ""));
  DfrgHandle h = api_->createDefragInstance();
  ASSERT_NE(nullptr, h);
  ASSERT_EQ(1, api_->startDefrag(h));
  ASSERT_TRUE(waitForEnd(h)) << "the run did not end";
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(1, api_->isRunning(h)) << "one finished run is reported once";
    ::Sleep(20);
  }
  // Every drive fails to open under Wine ("Exception while creating
  // Disk/Context" in the log), so no volume is left to work on.
  EXPECT_EQ(-21, api_->getLastErrorCode());
  EXPECT_STREQ("You didn't enabled a Volume to Defrag", api_->getLastErrorMessage());

  // The start reset every statistic: stored values gone, counters written as 0.
  EXPECT_FALSE(readValue(stats, L"Status").exists);
  EXPECT_FALSE(readValue(stats, L"Last File").exists);
  EXPECT_FALSE(readValue(stats, L"Stale Value").exists);
  const std::wstring daily = stats + L"\\daily\\" + today();
  for (const std::wstring& key : {stats, complete, daily}) {
    for (const wchar_t* name : {L"Processed Files", L"Moved Files", L"Defragged Files"}) {
      EXPECT_TRUE(readValue(key, name).isQword(0)) << std::string(key.begin(), key.end()) << " "
                                                    << std::string(name, name + wcslen(name));
    }
  }

  // Pause, resume and stop on a worker that has finished are harmless.
  EXPECT_EQ(1, api_->pauseDefrag(h, 5));
  EXPECT_EQ(1, api_->pauseDefrag(h, 0));
  EXPECT_EQ(1, api_->stopDefrag(h));
  EXPECT_EQ(1, api_->stopDefrag(h));
  EXPECT_EQ(1, api_->pauseDefrag(h, 1));
  EXPECT_EQ(1, api_->isRunning(h));
  EXPECT_EQ(-21, api_->getLastErrorCode()) << "a later success clears nothing";

  // A second run ends the same way and is reported once more.
  ASSERT_EQ(1, api_->startDefrag(h));
  ASSERT_TRUE(waitForEnd(h));
  EXPECT_EQ(1, api_->isRunning(h));
  EXPECT_EQ(-21, api_->getLastErrorCode());

  EXPECT_EQ(1, api_->deleteDefragInstance(h));
  EXPECT_EQ(1, api_->deinitialize());
}

}  // namespace

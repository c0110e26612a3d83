// The ten exports, driven the way a host drives them: the shared library is
// loaded with dlopen and every call goes through its exported functions.
// Settings and statistics are read back from the registry database the
// library keeps in its install directory.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "api/pause_pipe_client.h"
#include "config/registry_store.h"
#include "platform/env.h"
#include "platform/posix/posix_env.h"
#include "platform/registry_backend.h"
#include "support/temp_dir.h"

namespace glidewell {
namespace {

struct Exports {
  int (*initialize)(const wchar_t*, const char*);
  int (*deinitialize)();
  void* (*createInstance)();
  int (*deleteInstance)(void*);
  int (*start)(void*);
  int (*stop)(void*);
  int (*pause)(void*, int);
  int (*isRunning)(void*);
  int (*lastErrorCode)();
  const char* (*lastErrorMessage)();
};

class ExportsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ::setenv("GLIDEWELL_PIPE_DIR", dir.native().c_str(), 1);
    // A fresh copy of the library per test, so its process-wide state starts clean.
    lib = ::dlopen(GLIDEWELL_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(lib, nullptr) << ::dlerror();
    load(&x.initialize, "dfrg_initialize");
    load(&x.deinitialize, "dfrg_deinitialize");
    load(&x.createInstance, "dfrg_createDefragInstance");
    load(&x.deleteInstance, "dfrg_deleteDefragInstance");
    load(&x.start, "dfrg_startDefrag");
    load(&x.stop, "dfrg_stopDefrag");
    load(&x.pause, "dfrg_pauseDefrag");
    load(&x.isRunning, "dfrg_isRunning");
    load(&x.lastErrorCode, "dfrg_getLastErrorCode");
    load(&x.lastErrorMessage, "dfrg_getLastErrorMessage");
  }
  void TearDown() override {
    x.deinitialize();
    if (lib != nullptr) ::dlclose(lib);
  }
  template <typename F>
  void load(F* f, const char* name) {
    *f = reinterpret_cast<F>(::dlsym(lib, name));
    ASSERT_NE(*f, nullptr) << name;
  }
  // Waits for the end of a run as a host does: poll until isRunning says 0.
  bool waitForEnd(void* h, int ms = 10000) {
    for (int waited = 0; waited < ms; waited += 10) {
      if (x.isRunning(h) == 0) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }
  // Opens the library's registry database from this process.
  void openRegistry() {
    Env::system()->setInstallDirectory(dir.path());
    ASSERT_TRUE(RegistryBackend::openSystem());
  }

  TempDir dir;
  void* lib = nullptr;
  Exports x{};
};

TEST_F(ExportsTest, LifecycleBeforeAndAfterInitialise) {
  EXPECT_EQ(x.createInstance(), nullptr);  // not initialised
  EXPECT_EQ(x.start(nullptr), 0);
  EXPECT_EQ(x.deinitialize(), 0);
  EXPECT_STREQ(x.lastErrorMessage(), "");
  EXPECT_EQ(x.lastErrorCode(), 0);

  EXPECT_EQ(x.initialize(dir.path().c_str(), ""), 1);
  EXPECT_EQ(x.initialize(L"/nowhere/", "other"), 0);  // second call changes nothing
  EXPECT_EQ(x.deleteInstance(nullptr), 0);

  void* h = x.createInstance();  // no pause-pipe server: still an instance
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(x.isRunning(h), 1);  // nothing has finished yet
  EXPECT_EQ(x.pause(h, 5), 1);   // no worker: nothing to pause, still success
  EXPECT_EQ(x.stop(h), 1);
  EXPECT_EQ(x.deleteInstance(h), 1);
  EXPECT_EQ(x.deinitialize(), 1);
  EXPECT_EQ(x.deinitialize(), 0);
  EXPECT_EQ(x.initialize(dir.path().c_str(), ""), 1);  // the cycle may repeat
}

TEST_F(ExportsTest, RunWithoutVolumesEndsOnceWithMinus21AndItsMessage) {
  ASSERT_EQ(x.initialize(dir.path().c_str(), ""), 1);
  void* h = x.createInstance();
  ASSERT_NE(h, nullptr);
  ASSERT_EQ(x.start(h), 1);
  ASSERT_TRUE(waitForEnd(h));
  EXPECT_EQ(x.isRunning(h), 1);  // exactly one 0 per finished run
  EXPECT_EQ(x.lastErrorCode(), -21);
  EXPECT_STREQ(x.lastErrorMessage(), "You didn't enabled a Volume to Defrag");
  // Stop and pause on a finished worker are harmless.
  EXPECT_EQ(x.pause(h, 1), 1);
  EXPECT_EQ(x.pause(h, 0), 1);
  EXPECT_EQ(x.stop(h), 1);
  EXPECT_EQ(x.isRunning(h), 1);
  ASSERT_EQ(x.start(h), 1);  // and the instance runs again
  ASSERT_TRUE(waitForEnd(h));
  EXPECT_EQ(x.deleteInstance(h), 1);
}

TEST_F(ExportsTest, SettingsAndStatisticsLandInTheRegistryDatabase) {
  ASSERT_EQ(x.initialize(dir.path().c_str(), ""), 1);
  void* h = x.createInstance();
  ASSERT_NE(h, nullptr);
  ASSERT_EQ(x.start(h), 1);
  ASSERT_TRUE(waitForEnd(h));
  EXPECT_EQ(x.deleteInstance(h), 1);
  EXPECT_EQ(x.deinitialize(), 1);

  openRegistry();
  CRegistryStore store(HKEY_CURRENT_USER);
  std::unique_ptr<CRegistryKey> settings;
  ASSERT_TRUE(store.openKey("SOFTWARE\\quorvane\\Quorvane Glidewell\\settings", settings, KEY_READ, nullptr, false));
  DWORD v = 0;
  EXPECT_TRUE(settings->getDword("Drive Map", v, 99));
  EXPECT_EQ(v, 0u);  // no images, no drives
  EXPECT_TRUE(settings->getDword("MaxClusterMoveCount", v, 0));
  EXPECT_EQ(v, 1024u);
  EXPECT_TRUE(settings->getDword("MaxExtentListSize", v, 0));
  EXPECT_EQ(v, 1048576u);
  EXPECT_TRUE(settings->getDword("DoMoveBetterPlace", v, 0));
  EXPECT_EQ(v, 1u);
  EXPECT_FALSE(settings->getDword("makeDump", v, 7));  // never written by the engine

  // The run reset the statistics: zero counters were written.
  std::unique_ptr<CRegistryKey> stats;
  ASSERT_TRUE(store.openKey("SOFTWARE/quorvane/Quorvane Glidewell/statistics", stats, KEY_READ, nullptr, false));
  uint64_t q = 5;
  EXPECT_TRUE(stats->getQword(std::wstring(L"Processed Files"), q, 5));
  EXPECT_EQ(q, 0u);
  RegistryBackend::closeSystem();
}

TEST_F(ExportsTest, InstanceHoldsThePausePipeUntilDeleted) {
  std::string path = pipeSocketPath(kPausePipeName);
  int server = ::socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(server, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
  ::unlink(path.c_str());
  ASSERT_EQ(::bind(server, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
  ASSERT_EQ(::listen(server, 4), 0);

  ASSERT_EQ(x.initialize(dir.path().c_str(), ""), 1);
  void* h = x.createInstance();
  ASSERT_NE(h, nullptr);
  int conn = ::accept(server, nullptr, nullptr);
  ASSERT_GE(conn, 0);  // the instance connected while being created
  timeval tv{0, 200000};
  ::setsockopt(conn, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
  char byte;
  EXPECT_LT(::recv(conn, &byte, 1, 0), 0);  // still open: nothing to read, no end of stream
  EXPECT_EQ(x.deleteInstance(h), 1);
  EXPECT_EQ(::recv(conn, &byte, 1, 0), 0);  // closed by the deletion
  ::close(conn);
  ::close(server);
  ::unlink(path.c_str());
}

}  // namespace
}  // namespace glidewell

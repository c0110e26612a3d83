// One pass over an aged simulated volume, through the shared library exactly
// as a host runs it: the volume is an image in the install directory, the run
// is started and polled through the exports, and the image the engine writes
// back is measured against the one it started from.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <thread>

#include "config/registry_store.h"
#include "dump/volume_dump_reader.h"
#include "platform/env.h"
#include "platform/registry_backend.h"
#include "sim/sim_aging.h"
#include "sim/sim_disk.h"
#include "sim/sim_image.h"
#include "support/temp_dir.h"

namespace glidewell {
namespace {

std::unique_ptr<SimDisk> loadImage(const std::string& path) {
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) return nullptr;
  std::string error;
  auto disk = loadSimImage(f, &error);
  std::fclose(f);
  EXPECT_NE(disk, nullptr) << error;
  return disk;
}

uint64_t storedClusters(const SimFileInfo& f) {
  uint64_t n = 0;
  for (const SimRun& r : f.runs) {
    if (!r.isVirtual()) n += r.length;
  }
  return n;
}

TEST(ExportsOnSimulatedDisks, OnePassDefragmentsAnAgedVolume) {
  TempDir dir;
  std::filesystem::create_directories(dir.file("volumes"));
  const std::string image = dir.file("volumes/C.vdf");
  {
    SimAgingOptions o;
    o.seed = 2024;
    o.totalClusters = 1u << 17;
    o.maxFiles = 6000;
    o.fillRatio = 0.6;
    std::string error;
    auto aged = ageDisk(o, &error);
    ASSERT_NE(aged, nullptr) << error;
    std::FILE* f = std::fopen(image.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    ASSERT_TRUE(saveSimImage(*aged, L'C', f, &error)) << error;
    std::fclose(f);
  }
  // Measured on the image itself, as the engine will see it.
  auto before = loadImage(image);
  ASSERT_NE(before, nullptr);
  SimStats b = before->stats();
  ASSERT_GT(b.fragmentedFiles, 50u) << "the aged volume is not fragmented enough to show anything";

  void* lib = ::dlopen(GLIDEWELL_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(lib, nullptr) << ::dlerror();
  auto initialize = reinterpret_cast<int (*)(const wchar_t*, const char*)>(::dlsym(lib, "dfrg_initialize"));
  auto deinitialize = reinterpret_cast<int (*)()>(::dlsym(lib, "dfrg_deinitialize"));
  auto create = reinterpret_cast<void* (*)()>(::dlsym(lib, "dfrg_createDefragInstance"));
  auto destroy = reinterpret_cast<int (*)(void*)>(::dlsym(lib, "dfrg_deleteDefragInstance"));
  auto start = reinterpret_cast<int (*)(void*)>(::dlsym(lib, "dfrg_startDefrag"));
  auto isRunning = reinterpret_cast<int (*)(void*)>(::dlsym(lib, "dfrg_isRunning"));
  auto lastError = reinterpret_cast<int (*)()>(::dlsym(lib, "dfrg_getLastErrorCode"));
  ASSERT_EQ(initialize(dir.path().c_str(), ""), 1);
  void* h = create();
  ASSERT_NE(h, nullptr);
  ASSERT_EQ(start(h), 1);
  bool ended = false;
  for (int i = 0; i < 6000 && !ended; ++i) {
    ended = isRunning(h) == 0;
    if (!ended) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_TRUE(ended);
  EXPECT_EQ(lastError(), 0);  // a pass that completes stores no error
  EXPECT_EQ(destroy(h), 1);   // the engine lets go of the volume: the image is written back
  EXPECT_EQ(deinitialize(), 1);
  ::dlclose(lib);

  auto after = loadImage(image);
  ASSERT_NE(after, nullptr);
  EXPECT_EQ(after->verify(), "");
  SimStats a = after->stats();
  std::printf("fragmented %llu -> %llu, free runs %llu -> %llu, largest %llu -> %llu\n", (unsigned long long)b.fragmentedFiles, (unsigned long long)a.fragmentedFiles, (unsigned long long)b.freeRuns, (unsigned long long)a.freeRuns, (unsigned long long)b.largestFreeRun, (unsigned long long)a.largestFreeRun);
  EXPECT_EQ(a.files, b.files);
  EXPECT_EQ(a.fileClusters, b.fileClusters);
  EXPECT_LT(a.fragmentedFiles * 4, b.fragmentedFiles) << "fewer than three in four fragmented files were mended";
  EXPECT_LE(a.freeRuns, b.freeRuns);
  EXPECT_GE(a.largestFreeRun, 1u);
  // Whatever is still fragmented had no free run to go to.
  size_t stillFitting = 0;
  for (const SimFileInfo& f : after->listAll()) {
    if ((f.attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) continue;
    uint64_t pieces = 0, lastEnd = kNoCluster;
    for (const SimRun& r : f.runs) {
      if (r.isVirtual()) continue;
      if (r.lcn != lastEnd) ++pieces;
      lastEnd = r.lcn + r.length;
    }
    if (pieces > 1 && storedClusters(f) <= a.largestFreeRun) ++stillFitting;
  }
  EXPECT_EQ(stillFitting, 0u);
}

TEST(ExportsOnSimulatedDisks, DumpModeWritesEveryEnabledVolumeAndEndsWithMinus21) {
  TempDir dir;
  std::filesystem::create_directories(dir.file("volumes"));
  for (wchar_t letter : {L'C', L'D'}) {
    SimAgingOptions o;
    o.seed = letter;
    o.totalClusters = 1u << 14;
    o.maxFiles = 300;
    std::string error;
    auto aged = ageDisk(o, &error);
    ASSERT_NE(aged, nullptr) << error;
    std::string path = dir.file(std::string("volumes/") + static_cast<char>(letter) + ".vdf");
    std::FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    ASSERT_TRUE(saveSimImage(*aged, letter, f, &error)) << error;
    std::fclose(f);
  }
  const std::string dumpFile = dir.file("two-volumes.vdf");
  {
    // The dump settings are the host's to write, before the engine starts.
    Env::system()->setInstallDirectory(dir.path());
    ASSERT_TRUE(RegistryBackend::openSystem());
    CRegistryStore store(HKEY_CURRENT_USER);
    std::unique_ptr<CRegistryKey> settings;
    ASSERT_TRUE(store.openKey("SOFTWARE\\quorvane\\Quorvane Glidewell\\settings", settings, KEY_ALL_ACCESS,
                              nullptr, true));
    ASSERT_TRUE(settings->setDword(std::string("makeDump"), 1));
    ASSERT_TRUE(settings->setString(L"dumpPath", std::wstring(dumpFile.begin(), dumpFile.end())));
    settings.reset();
    RegistryBackend::closeSystem();
  }

  void* lib = ::dlopen(GLIDEWELL_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(lib, nullptr) << ::dlerror();
  auto initialize = reinterpret_cast<int (*)(const wchar_t*, const char*)>(::dlsym(lib, "dfrg_initialize"));
  auto deinitialize = reinterpret_cast<int (*)()>(::dlsym(lib, "dfrg_deinitialize"));
  auto create = reinterpret_cast<void* (*)()>(::dlsym(lib, "dfrg_createDefragInstance"));
  auto destroy = reinterpret_cast<int (*)(void*)>(::dlsym(lib, "dfrg_deleteDefragInstance"));
  auto start = reinterpret_cast<int (*)(void*)>(::dlsym(lib, "dfrg_startDefrag"));
  auto isRunning = reinterpret_cast<int (*)(void*)>(::dlsym(lib, "dfrg_isRunning"));
  auto lastError = reinterpret_cast<int (*)()>(::dlsym(lib, "dfrg_getLastErrorCode"));
  auto lastMessage = reinterpret_cast<const char* (*)()>(::dlsym(lib, "dfrg_getLastErrorMessage"));
  ASSERT_EQ(initialize(dir.path().c_str(), ""), 1);
  void* h = create();
  ASSERT_NE(h, nullptr);
  ASSERT_EQ(start(h), 1);
  bool ended = false;
  for (int i = 0; i < 3000 && !ended; ++i) {
    ended = isRunning(h) == 0;
    if (!ended) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_TRUE(ended);
  EXPECT_EQ(lastError(), -21);
  EXPECT_STREQ(lastMessage(), "You didn't enabled a Volume to Defrag");
  EXPECT_EQ(destroy(h), 1);
  EXPECT_EQ(deinitialize(), 1);
  ::dlclose(lib);

  std::vector<VolumeDumpRecord> records = readVolumeDumpFile(std::wstring(dumpFile.begin(), dumpFile.end()));
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].driveLetter, L'C');
  EXPECT_EQ(records[1].driveLetter, L'D');
  for (auto& r : records) EXPECT_FALSE(r.entries.empty());
}

}  // namespace
}  // namespace glidewell

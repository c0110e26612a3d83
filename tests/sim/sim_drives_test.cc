// The simulated drives of a Linux install, seen through the drive list:
// images below the install directory and plugged-in disks, shared opens, and
// the write-back of a changed disk when its last handle closes.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <iterator>

#include "engine/dfrg_exception.h"
#include "platform/posix/posix_env.h"
#include "platform/text.h"
#include "sim/posix/sim_drive_provider.h"
#include "sim/sim_drives.h"
#include "sim/sim_image.h"
#include "support/fake_env.h"
#include "support/sim_support.h"
#include "support/temp_dir.h"

namespace glidewell {
namespace {

std::vector<uint8_t> fileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

ino_t inodeOf(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

class SimDrivesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(::mkdir((dir.file("volumes")).c_str(), 0700), 0);
    env.setInstallDirectory(dir.path());
    addDriveProvider(drives);
  }

  // Writes a small disk with one file as the image of letter.
  std::string writeImage(wchar_t letter, const std::wstring& label) {
    SimGeometry g;
    g.totalClusters = 5000;
    g.label = label;
    SimDisk disk(g);
    EXPECT_EQ(disk.createFile(L"data.bin", 4096 * 20), 0u);
    std::string path = SimDriveProvider::imagePath(letter);
    std::FILE* f = std::fopen(path.c_str(), "wb");
    std::string error;
    EXPECT_TRUE(saveSimImage(disk, letter, f, &error)) << error;
    std::fclose(f);
    return path;
  }

  void expectUnavailable(wchar_t letter) {
    try {
      drives->openVolume(letter);
      ADD_FAILURE() << "opened drive " << static_cast<char>(letter);
    } catch (const CDfrgException& e) {
      EXPECT_EQ(e.code, -1);
      EXPECT_EQ(e.message, std::string("Couldn't open Volume ! \\\\.\\") + static_cast<char>(letter) + ":");
    }
    EXPECT_EQ(SimDrives::instance().openHandles(letter), 0);
  }

  TempDir dir;
  PosixEnv env;
  ScopedEnv scoped{&env};
  std::shared_ptr<SimDriveProvider> drives = SimDriveProvider::instance();
};

TEST_F(SimDrivesTest, ImagesAreFixedDrivesWithTheirLabelsAndBrokenOnesAreUnavailable) {
  std::string path = writeImage(L'D', L"Data");
  DWORD present = env.logicalDrives();
  EXPECT_TRUE(present & (1u << 3));
  EXPECT_FALSE(present & (1u << 4));
  EXPECT_EQ(env.driveType(L"D:\\"), static_cast<UINT>(DRIVE_FIXED));
  EXPECT_EQ(env.driveType(L"d:\\"), static_cast<UINT>(DRIVE_FIXED));
  EXPECT_EQ(env.driveType(L"E:\\"), static_cast<UINT>(DRIVE_NO_ROOT_DIR));
  std::wstring label;
  ASSERT_TRUE(env.volumeLabel(L"D:\\", &label));
  EXPECT_EQ(label, L"Data");
  EXPECT_FALSE(env.volumeLabel(L"E:\\", &label));
  ino_t before = inodeOf(path);
  drives->openVolume(L'D').reset();
  EXPECT_EQ(inodeOf(path), before);  // an unchanged disk is not written back

  expectUnavailable(L'Q');
  std::ofstream(SimDriveProvider::imagePath(L'R'), std::ios::binary) << "VDFH garbage";
  expectUnavailable(L'R');
}

TEST_F(SimDrivesTest, HandlesShareOneDiskAndTheLastCloseWritesItBackAtomically) {
  std::string path = writeImage(L'F', L"Fast");
  std::vector<uint8_t> original = fileBytes(path);
  auto first = drives->openVolume(L'F');
  auto second = drives->openVolume(L'f');
  EXPECT_EQ(SimDrives::instance().openHandles(L'F'), 2);
  std::shared_ptr<SimDisk> disk = SimDrives::instance().disk(L'F');
  ASSERT_TRUE(disk);

  HANDLE h = first->createFile(L"F:\\data.bin", FILE_READ_ATTRIBUTES, 7, nullptr, OPEN_EXISTING, 0, nullptr);
  ASSERT_NE(h, INVALID_HANDLE_VALUE);
  MOVE_FILE_DATA m{};
  m.FileHandle = h;
  m.StartingLcn.QuadPart = 4000;
  m.ClusterCount = 20;
  ASSERT_TRUE(first->moveFile(&m));
  first->closeHandle(h);
  first.reset();
  EXPECT_EQ(fileBytes(path), original);  // a handle is still open

  EXPECT_EQ(simtest::runsOf(*disk, L"data.bin")[0].lcn, 4000u);
  second.reset();
  EXPECT_FALSE(SimDrives::instance().disk(L'F'));
  struct stat st;
  EXPECT_NE(::stat((path + ".tmp").c_str(), &st), 0) << "temporary file left behind";
  std::vector<uint8_t> written = fileBytes(path);
  EXPECT_NE(written, original);
  std::string error;
  auto reloaded = loadSimImage(written.data(), written.size(), &error);
  ASSERT_TRUE(reloaded) << error;
  EXPECT_EQ(simtest::runsOf(*reloaded, L"data.bin")[0].lcn, 4000u);
}

TEST_F(SimDrivesTest, PluggedDisksAreDrivesWithoutImages) {
  auto disk = simtest::makeDisk(3000);
  disk->setLabel(L"Memory");
  {
    simtest::PluggedDrive plugged(L'P', disk);
    EXPECT_TRUE(env.logicalDrives() & (1u << 15));
    EXPECT_EQ(env.driveType(L"P:\\"), static_cast<UINT>(DRIVE_FIXED));
    std::wstring label;
    ASSERT_TRUE(env.volumeLabel(L"P:\\", &label));
    EXPECT_EQ(label, L"Memory");
    auto volume = drives->openVolume(L'P');
    EXPECT_EQ(&static_cast<SimVolumeSystem&>(*volume).disk(), disk.get());
    ASSERT_EQ(disk->createFile(L"x", 4096), 0u);
    volume.reset();
    struct stat st;
    EXPECT_NE(::stat(SimDriveProvider::imagePath(L'P').c_str(), &st), 0) << "a plugged disk has no image";
    disk->setVanished(true);
    expectUnavailable(L'P');
  }
  EXPECT_FALSE(env.logicalDrives() & (1u << 15));
}

}  // namespace
}  // namespace glidewell

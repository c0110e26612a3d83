// CWinVolumeSystem under Wine. Wine opens volumes and reads their label but
// refuses the NTFS volume-data control, so what shows here is the
// constructor's failure paths and the file-system detection; cluster maps and
// moves are tested on the simulated disk.
#include <gtest/gtest.h>

#include <string>

#include "engine/dfrg_exception.h"
#include "volume/win32/win_volume_system.h"

namespace glidewell {
namespace {

TEST(WinVolumeSystemTest, VolumeWithoutNtfsVolumeDataIsUnavailable) {
  try {
    CWinVolumeSystem volume(L'C');
    ADD_FAILURE() << "Wine answered FSCTL_GET_NTFS_VOLUME_DATA: " << volume.getTotalClusters() << " clusters";
  } catch (const CDfrgException& e) {
    EXPECT_EQ(e.code, ErrorVolumeUnavailable);
    EXPECT_EQ(e.message, "Couldn't read Volume Information ! C:\\");
  }
}

TEST(WinVolumeSystemTest, MissingDriveFailsToOpen) {
  // A drive letter that names no volume fails at once (no access-denied retries).
  DWORD drives = ::GetLogicalDrives();
  wchar_t letter = 0;
  for (int i = 25; i >= 2 && letter == 0; --i) {
    if ((drives & (1u << i)) == 0) letter = static_cast<wchar_t>(L'A' + i);
  }
  ASSERT_NE(letter, 0);
  DWORD t0 = ::GetTickCount();
  try {
    CWinVolumeSystem volume(letter);
    ADD_FAILURE() << "opened a missing drive";
  } catch (const CDfrgException& e) {
    EXPECT_EQ(e.code, ErrorVolumeUnavailable);
    EXPECT_EQ(e.message, std::string("Couldn't open Volume ! \\\\.\\") + static_cast<char>(letter) + ":");
  }
  EXPECT_LT(::GetTickCount() - t0, 900u);
}

TEST(WinVolumeSystemTest, FileSystemNamesAreDetectedBySubstring) {
  EXPECT_EQ(CWinVolumeSystem::detectFileSystem(L"NTFS"), kFileSystemNtfs);
  EXPECT_EQ(CWinVolumeSystem::detectFileSystem(L"FAT32"), kFileSystemFat32);
  EXPECT_EQ(CWinVolumeSystem::detectFileSystem(L"FAT"), kFileSystemFat);
  EXPECT_EQ(CWinVolumeSystem::detectFileSystem(L"FAT12"), kFileSystemFat);
  EXPECT_EQ(CWinVolumeSystem::detectFileSystem(L"CDFS"), kFileSystemUnknown);
}

}  // namespace
}  // namespace glidewell

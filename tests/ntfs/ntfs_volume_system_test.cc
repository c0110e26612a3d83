// Catches an NTFS volume that answers the controls unlike Windows (listing
// order, metafiles, error numbers, reply sizes, run encodings), a move that
// changes anything when it is refused or does not show at once when it is
// made, and a volume opened although it is mounted, dirty, hibernated, has a
// journal to replay, or is not NTFS.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <random>

#include "ntfs/ntfs_safety.h"
#include "ntfs/ntfs_volume_system.h"
#include "platform/text.h"
#include "support/temp_dir.h"
#include "ntfs_image_builder.h"
#include "ntfs_test_util.h"

namespace glidewell {
namespace {

using namespace ntfstest;

constexpr uint32_t kCluster = 4096;

std::vector<uint8_t> bytes(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<uint8_t> out(n);
  for (auto& b : out) b = static_cast<uint8_t>(rng());
  return out;
}

std::vector<uint8_t> text(size_t n) {
  std::string words = "the quick brown fox jumps over the lazy dog ";
  std::vector<uint8_t> out(n);
  for (size_t i = 0; i < n; ++i) out[i] = static_cast<uint8_t>(words[(i * 7 + i / 97) % words.size()]);
  return out;
}

struct Reply {
  BOOL ok;
  DWORD error;
  std::vector<std::pair<int64_t, int64_t>> entries;  // (NextVcn, Lcn)
};

class NtfsVolumeSystemTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(makeImage(image, 64 << 20), ""); }

  void open() {
    std::string error;
    volume = std::shared_ptr<NtfsVolume>(NtfsVolume::open(image, &error));
    ASSERT_NE(volume, nullptr) << error;
    vs = std::make_unique<NtfsVolumeSystem>(volume, L'N');
  }
  void close() {
    vs.reset();
    volume.reset();
  }
  HANDLE openFile(const std::wstring& path, DWORD access = FILE_READ_ATTRIBUTES, DWORD share = 7, DWORD flags = 0) {
    return vs->createFile(path, access, share, nullptr, OPEN_EXISTING, flags, nullptr);
  }
  Reply pointers(HANDLE h, int64_t vcn) {
    std::vector<uint8_t> buffer(4112);
    DWORD returned = 0;
    Reply r;
    r.ok = vs->getRetrievalPointers(h, &vcn, buffer.data(), 4112, &returned);
    r.error = r.ok ? 0 : GetLastError();
    uint32_t count;
    std::memcpy(&count, buffer.data(), 4);
    for (uint32_t i = 0; r.ok || r.error == ERROR_MORE_DATA ? i < count : false; ++i) {
      int64_t next, lcn;
      std::memcpy(&next, buffer.data() + 16 + 16 * i, 8);
      std::memcpy(&lcn, buffer.data() + 24 + 16 * i, 8);
      r.entries.push_back({next, lcn});
    }
    return r;
  }
  // All the entries of a file, read as the engine reads them.
  std::vector<std::pair<int64_t, int64_t>> allPointers(HANDLE h, int* replies) {
    std::vector<std::pair<int64_t, int64_t>> all;
    int64_t vcn = 0;
    for (*replies = 1;; ++*replies) {
      Reply r = pointers(h, vcn);
      all.insert(all.end(), r.entries.begin(), r.entries.end());
      if (r.ok || r.error != ERROR_MORE_DATA) break;
      vcn = r.entries.back().first;
    }
    return all;
  }
  // The first free run of at least n clusters.
  int64_t freeRun(uint64_t n) {
    std::unique_ptr<uint8_t[]> bitmap;
    vs->getVolumeBitmap(&bitmap);
    uint64_t run = 0;
    for (uint64_t lcn = 0; lcn < vs->getTotalClusters(); ++lcn) {
      run = (bitmap[lcn / 8] >> (lcn % 8)) & 1 ? 0 : run + 1;
      if (run == n) return static_cast<int64_t>(lcn + 1 - n);
    }
    return -1;
  }
  BOOL move(HANDLE h, int64_t vcn, int64_t lcn, DWORD count) {
    MOVE_FILE_DATA m{};
    m.FileHandle = h;
    m.StartingVcn.QuadPart = vcn;
    m.StartingLcn.QuadPart = lcn;
    m.ClusterCount = count;
    return vs->moveFile(&m);
  }

  TempDir dir;
  std::string image = dir.file("volume.img");
  std::shared_ptr<NtfsVolume> volume;
  std::unique_ptr<NtfsVolumeSystem> vs;
};

TEST_F(NtfsVolumeSystemTest, ListingsAndOpensAnswerAsWindowsDoes) {
  ASSERT_EQ(writeFiles(image, {{"b.txt", bytes(100, 1)},
                               {"A.txt", bytes(3 * kCluster, 2)},
                               {"c/x", bytes(10, 3)},
                               {"Twin.txt", bytes(5 * kCluster, 4)},
                               {"twin.TXT", bytes(7 * kCluster, 5)}}),
            "");
  open();
  WIN32_FIND_DATAW data;
  std::vector<std::wstring> names;
  HANDLE find = vs->findFirstFile(L"N:\\*.*", &data);
  ASSERT_NE(find, INVALID_HANDLE_VALUE);
  do names.push_back(data.cFileName);
  while (vs->findNextFile(find, &data));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NO_MORE_FILES));
  EXPECT_TRUE(vs->findClose(find));
  // Collation order, no metafiles, no "." in the root, both case twins.
  EXPECT_EQ(names, (std::vector<std::wstring>{L"A.txt", L"b.txt", L"c", L"Twin.txt", L"twin.TXT"}));
  find = vs->findFirstFile(L"N:\\C\\*.*", &data);
  ASSERT_NE(find, INVALID_HANDLE_VALUE);
  EXPECT_STREQ(data.cFileName, L".");
  vs->findClose(find);

  // Each twin opens exactly; a name in another case opens the one it matches.
  for (auto [path, size] : {std::pair<const wchar_t*, int64_t>{L"N:\\Twin.txt", 5 * kCluster},
                            {L"N:\\twin.TXT", 7 * kCluster},
                            {L"N:\\B.TXT", 100}}) {
    HANDLE h = openFile(path);
    ASSERT_NE(h, INVALID_HANDLE_VALUE) << narrow(path);
    int64_t got = 0;
    EXPECT_TRUE(vs->getFileSize(h, &got));
    EXPECT_EQ(got, size) << narrow(path);
    vs->closeHandle(h);
  }
  struct Case {
    const wchar_t* path;
    DWORD flags;
    DWORD error;
  };
  for (const Case& c : {Case{L"N:\\nope", 0, ERROR_FILE_NOT_FOUND}, Case{L"N:\\nope\\x", 0, ERROR_PATH_NOT_FOUND},
                        Case{L"N:\\b.txt\\x", 0, ERROR_PATH_NOT_FOUND}, Case{L"N:\\c", 0, ERROR_ACCESS_DENIED},
                        Case{L"N:\\$MFT", 0, ERROR_ACCESS_DENIED}, Case{L"N:\\$Extend\\$Quota", 0, ERROR_ACCESS_DENIED}}) {
    EXPECT_EQ(openFile(c.path, FILE_READ_ATTRIBUTES, 7, c.flags), INVALID_HANDLE_VALUE) << narrow(c.path);
    EXPECT_EQ(GetLastError(), c.error) << narrow(c.path);
  }
  EXPECT_NE(openFile(L"N:\\c", FILE_READ_ATTRIBUTES, 7, FILE_FLAG_BACKUP_SEMANTICS), INVALID_HANDLE_VALUE);
  HANDLE exclusive = openFile(L"N:\\A.txt", GENERIC_READ, 0);
  ASSERT_NE(exclusive, INVALID_HANDLE_VALUE);
  EXPECT_EQ(openFile(L"N:\\a.TXT", GENERIC_READ), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
  EXPECT_EQ(vs->getFileAttributes(L"N:\\c") & FILE_ATTRIBUTE_DIRECTORY, static_cast<DWORD>(FILE_ATTRIBUTE_DIRECTORY));
}

TEST_F(NtfsVolumeSystemTest, BitmapAndRetrievalRepliesHaveTheWindowsShapes) {
  ASSERT_EQ(makeImage(image, 512 << 20), "");  // over 72000 clusters: two bitmap replies
  std::string expected;
  ASSERT_EQ(runShell("ntfscat '" + image + "' '$Bitmap'", &expected), 0);
  open();

  std::vector<uint8_t> reply(9016);
  int64_t lcn = 3;  // rounded down to a whole byte
  DWORD returned = 0;
  ASSERT_FALSE(vs->getVolumeBitmapChunk(&lcn, reply.data(), 9016, &returned));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
  EXPECT_EQ(returned, 9016u);
  int64_t start, size;
  std::memcpy(&start, reply.data(), 8);
  std::memcpy(&size, reply.data() + 8, 8);
  EXPECT_EQ(start, 0);
  const int64_t total = static_cast<int64_t>(vs->getTotalClusters());
  EXPECT_GT(total, 72000);
  EXPECT_EQ(size, total);
  std::unique_ptr<uint8_t[]> bitmap;
  ASSERT_TRUE(vs->getVolumeBitmap(&bitmap));
  ASSERT_GE(expected.size(), static_cast<size_t>(total / 8));
  EXPECT_EQ(std::memcmp(bitmap.get(), expected.data(), static_cast<size_t>(total / 8)), 0);

  close();

  ASSERT_EQ(makeImage(image, 64 << 20), "");
  ASSERT_EQ(writeFiles(image, {{"small.txt", bytes(300, 1)}, {"packed/log.txt", text(64 * kCluster), true}}), "");
  ASSERT_EQ(writeInterleaved(image, "listed.bin", "other.bin", 600), "");
  open();
  HANDLE resident = openFile(L"N:\\small.txt");
  Reply r = pointers(resident, 0);
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.error, static_cast<DWORD>(ERROR_HANDLE_EOF));

  // Compressed: stored runs followed by virtual ones inside each 16-cluster unit.
  HANDLE packed = openFile(L"N:\\packed\\log.txt");
  int replies = 0;
  auto entries = allPointers(packed, &replies);
  ASSERT_FALSE(entries.empty());
  EXPECT_NE(entries.front().second, -1);
  EXPECT_TRUE(std::any_of(entries.begin(), entries.end(), [](auto& e) { return e.second == -1; }));
  EXPECT_EQ(entries.back().first, 64);
  EXPECT_EQ(vs->getFileAttributes(L"N:\\packed\\log.txt") & FILE_ATTRIBUTE_COMPRESSED,
            static_cast<DWORD>(FILE_ATTRIBUTE_COMPRESSED));

  // 600 pieces spill into an attribute list and come back 256 per reply.
  HANDLE listed = openFile(L"N:\\listed.bin");
  entries = allPointers(listed, &replies);
  EXPECT_GT(entries.size(), 512u);
  EXPECT_EQ(replies, 3);
  EXPECT_EQ(entries.back().first, 600);
  // A reply from inside a run starts at that VCN's own cluster.
  Reply middle = pointers(listed, 300);
  ASSERT_FALSE(middle.entries.empty());
  size_t k = 0;
  while (entries[k].first <= 300) ++k;
  EXPECT_EQ(middle.entries.front().first, entries[k].first);
  EXPECT_EQ(middle.entries.front().second, entries[k].second + (300 - (k > 0 ? entries[k - 1].first : 0)));
}

TEST_F(NtfsVolumeSystemTest, RefusedMovesChangeNothingAndMadeMovesShowAtOnce) {
  ASSERT_EQ(writeFiles(image, {{"packed/log.txt", text(64 * kCluster), true}, {"plain.bin", bytes(9 * kCluster, 9)}}),
            "");
  ASSERT_EQ(writeInterleaved(image, "listed.bin", "other.bin", 400), "");
  std::string before = manifest(image);
  ASSERT_EQ(before.find("PROBLEM"), std::string::npos) << before;
  open();
  HANDLE plain = openFile(L"N:\\plain.bin");
  HANDLE packed = openFile(L"N:\\packed\\log.txt");
  HANDLE listed;
  int64_t target = freeRun(1024);
  ASSERT_GE(target, 0);
  struct Refused {
    const char* what;
    HANDLE h;
    int64_t vcn, lcn;
    DWORD count;
  };
  const Refused refused[] = {
      {"onto a used cluster", plain, 0, 0, 4},
      {"overlapping used clusters", plain, 0, target - 2, 4},
      {"past the file's end", plain, 9, target, 1},
      {"off the volume", plain, 0, static_cast<int64_t>(vs->getTotalClusters()) - 2, 4},
      {"compressed, not at a unit", packed, 3, target, 16},
      {"compressed, not whole units", packed, 0, target, 20},
  };
  close();
  std::string untouched = readWhole(image);
  open();
  for (const Refused& r : refused) {
    HANDLE h = openFile(r.h == plain ? L"N:\\plain.bin" : L"N:\\packed\\log.txt");
    EXPECT_FALSE(move(h, r.vcn, r.lcn, r.count)) << r.what;
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER)) << r.what;
  }
  close();
  EXPECT_TRUE(readWhole(image) == untouched) << "a refused move wrote to the volume";

  // A made move shows at once, before it is committed: the attribute-list
  // file moved in pieces of 256 clusters reads as one run, and the clusters it
  // left read as free. (Moves of every file shape and their commits are
  // checked in the crash test.)
  open();
  listed = openFile(L"N:\\listed.bin");
  int replies = 0;
  auto old = allPointers(listed, &replies);
  target = freeRun(400);
  for (int64_t vcn = 0; vcn < 400; vcn += 256) ASSERT_TRUE(move(listed, vcn, target + vcn, 256)) << GetLastError();
  EXPECT_EQ(allPointers(listed, &replies), (std::vector<std::pair<int64_t, int64_t>>{{400, target}}));
  std::unique_ptr<uint8_t[]> bitmap;
  ASSERT_TRUE(vs->getVolumeBitmap(&bitmap));
  int64_t vcn = 0;
  for (auto [next, lcn] : old) {
    for (int64_t c = lcn; c < lcn + next - vcn; ++c) EXPECT_FALSE(bitmap[c / 8] >> (c % 8) & 1) << c << " shows used";
    vcn = next;
  }
  close();
  EXPECT_EQ(manifest(image), before);
  EXPECT_EQ(ntfsfixProblem(image), "");
}

TEST_F(NtfsVolumeSystemTest, VolumesThatAreNotSafeToWriteAreRefusedUntouched) {
  std::string notNtfs = dir.file("random.img");
  {
    std::ofstream out(notNtfs, std::ios::binary);
    auto junk = bytes(1 << 20, 4);
    out.write(reinterpret_cast<const char*>(junk.data()), static_cast<std::streamsize>(junk.size()));
  }
  std::string dirty = dir.file("dirty.img");
  ASSERT_EQ(makeImage(dirty, 32 << 20), "");
  ASSERT_EQ(markDirty(dirty), "");
  std::string unclean = dir.file("unclean.img");
  ASSERT_EQ(makeImage(unclean, 32 << 20), "");
  ASSERT_EQ(markJournalUnclean(unclean), "");
  std::string hibernated = dir.file("hibernated.img");
  ASSERT_EQ(makeImage(hibernated, 32 << 20), "");
  std::vector<uint8_t> hiberfile(4096, 0);
  std::memcpy(hiberfile.data(), "hibr", 4);
  ASSERT_EQ(writeFiles(hibernated, {{"hiberfil.sys", hiberfile}}), "");
  struct Case {
    std::string path, reason;
  };
  for (const Case& c : {Case{notNtfs, "not an NTFS volume"}, Case{dirty, "dirty: run ntfsfix or chkdsk first"},
                        Case{unclean, "unclean journal ($LogFile): run ntfsfix or chkdsk first"},
                        Case{hibernated, "hibernated"}, Case{dir.file("missing.img"), "cannot open"}}) {
    std::string before = readWhole(c.path), error;
    EXPECT_EQ(NtfsVolume::open(c.path, &error), nullptr) << c.path;
    EXPECT_NE(error.find(c.reason), std::string::npos) << error;
    EXPECT_EQ(error.find('\n'), std::string::npos) << error;
    EXPECT_TRUE(readWhole(c.path) == before) << c.path;
  }

  // The mount table names the image itself (FUSE) or a loop device over it;
  // blanks in paths are escaped there.
  std::string spaced = dir.file("my volume.img");
  ASSERT_EQ(::rename(image.c_str(), spaced.c_str()), 0);
  std::string table = dir.file("mounts");
  {
    std::ofstream out(table);
    out << "proc /proc proc rw 0 0\n";
    out << "/dev/sda1 / ext4 rw 0 0\n";
    std::string escaped = spaced;
    escaped.replace(escaped.find(' '), 1, "\\040");
    out << escaped << " /mnt/win\\040c fuseblk rw 0 0\n";
  }
  EXPECT_EQ(mountPointOf(spaced, table), "/mnt/win c");
  EXPECT_EQ(mountPointOf(dirty, table), "");
}

TEST_F(NtfsVolumeSystemTest, AVolumeMountedWithNtfs3gIsRefused) {
  std::string mountPoint = dir.file("mnt");
  ASSERT_EQ(::mkdir(mountPoint.c_str(), 0755), 0);
  std::string out;
  if (::access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "FUSE is not available here (/dev/fuse cannot be opened)";
  if (runShell("ntfs-3g '" + image + "' '" + mountPoint + "'", &out) != 0) {
    GTEST_SKIP() << "ntfs-3g cannot mount in this sandbox: " << out;
  }
  std::string error;
  std::unique_ptr<NtfsVolume> v = NtfsVolume::open(image, &error);
  runShell("fusermount -u '" + mountPoint + "' || umount '" + mountPoint + "'", &out);
  EXPECT_EQ(v, nullptr);
  EXPECT_NE(error.find("is mounted on"), std::string::npos) << error;
}

}  // namespace
}  // namespace glidewell

// Catches moves whose writes are ordered so that a crash at some instant
// loses a byte, or leaves a volume that ntfsfix rejects or that cannot be
// opened again, and moves that go on after a failed write as if it had been
// made: a script of moves is cut at every write and flush it makes, as a
// killed process, as a failed machine and as a failed operation
// (FaultyDeviceFile).
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "faulty_device_file.h"
#include "ntfs/ntfs_volume.h"
#include "support/temp_dir.h"
#include "ntfs_image_builder.h"
#include "ntfs_test_util.h"

namespace glidewell {
namespace {

using namespace ntfstest;

struct Move {
  std::vector<std::u16string> path;
  int64_t vcn;
  int64_t lcn;
  uint32_t count;
};

// Commits after every third file record, and before a second cluster would
// wait in memory, so that the script commits between moves for both reasons
// and when the volume is closed.
NtfsVolume::Options options(DeviceFileWrapper wrap) {
  NtfsVolume::Options o;
  o.limits.records = 3;
  o.limits.heldBytes = 4096;
  o.wrapFile = std::move(wrap);
  return o;
}

// Runs the moves and closes the volume; "" or what failed.
std::string runScript(const std::string& image, const std::vector<Move>& script, const NtfsVolume::Options& o) {
  std::string error;
  std::unique_ptr<NtfsVolume> volume = NtfsVolume::open(image, &error, o);
  if (!volume) return error;
  for (const Move& m : script) {
    uint64_t mft = 0;
    if (volume->lookup(m.path, &mft) != kNtfsOk) return "lookup failed";
    if (uint32_t e = volume->moveClusters(mft, m.vcn, m.lcn, m.count); e != kNtfsOk) return "move failed: " + std::to_string(e);
  }
  return "";
}

std::vector<NtfsRun> runsOf(NtfsVolume& v, const std::vector<std::u16string>& path) {
  uint64_t mft = 0;
  NtfsStreamMap map;
  EXPECT_EQ(v.lookup(path, &mft), kNtfsOk);
  EXPECT_EQ(v.streamMap(mft, &map), kNtfsOk);
  return map.runs;
}

// The first free run of n clusters at or after from.
int64_t freeRun(NtfsVolume& v, int64_t n, int64_t from) {
  const uint64_t bytes = (v.totalClusters() + 7) / 8;
  std::vector<uint8_t> bitmap(bytes);
  v.readBitmap(0, bytes, bitmap.data());
  int64_t run = 0;
  for (int64_t lcn = from; lcn < static_cast<int64_t>(v.totalClusters()); ++lcn) {
    run = (bitmap[lcn / 8] >> (lcn % 8)) & 1 ? 0 : run + 1;
    if (run == n) return lcn + 1 - n;
  }
  return -1;
}

// The moves, planned on the untouched volume: a fragmented file to a free
// run; two clusters of its twin into clusters the first move left (that
// move's record must be durable before they are overwritten); a file
// whose runs fill several records through an attribute list, whole, and a
// stretch across its twin's records; two units of a compressed file.
std::vector<Move> planScript(const std::string& image) {
  std::string error;
  std::unique_ptr<NtfsVolume> v = NtfsVolume::open(image, &error);
  EXPECT_NE(v, nullptr) << error;
  if (!v) return {};
  std::vector<NtfsRun> a = runsOf(*v, {u"a.bin"});
  int64_t listedAt = freeRun(*v, 400, 0);
  int64_t aAt = freeRun(*v, 24, listedAt + 400);
  int64_t packedAt = freeRun(*v, 32, aAt + 24);
  int64_t otherAt = freeRun(*v, 200, packedAt + 32);
  EXPECT_TRUE(listedAt >= 0 && aAt >= 0 && packedAt >= 0 && otherAt >= 0);
  return {{{u"a.bin"}, 0, aAt, 24},
          {{u"b.bin"}, 0, a[0].lcn, 1},
          {{u"b.bin"}, 1, a[1].lcn, 1},
          {{u"listed.bin"}, 0, listedAt, 400},
          {{u"other.bin"}, 100, otherAt, 200},
          {{u"packed", u"log.txt"}, 0, packedAt, 16},
          {{u"packed", u"log.txt"}, 32, packedAt + 16, 16}};
}

// Writes image as a sparse copy of bytes.
bool writeImage(const std::string& image, const std::string& bytes) {
  int fd = ::open(image.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) return false;
  bool ok = ::ftruncate(fd, static_cast<off_t>(bytes.size())) == 0;
  static const std::string zeros(4096, '\0');
  for (size_t at = 0; ok && at < bytes.size(); at += 4096) {
    if (bytes.compare(at, 4096, zeros) == 0) continue;
    ok = ::pwrite(fd, bytes.data() + at, 4096, static_cast<off_t>(at)) == 4096;
  }
  return ::close(fd) == 0 && ok;
}

TEST(NtfsCrashTest, EveryWriteAndFlushOfTheMovesIsASafePlaceToCrash) {
  TempDir dir;
  const std::string pristine = dir.file("pristine.img");
  ASSERT_EQ(makeImage(pristine, 16 << 20), "");
  std::vector<uint8_t> text(64 * 4096);
  for (size_t i = 0; i < text.size(); ++i) text[i] = static_cast<uint8_t>("compressible "[(i * 7 + i / 91) % 13]);
  ASSERT_EQ(writeFiles(pristine, {{"packed/log.txt", text, true}}), "");
  ASSERT_EQ(writeInterleaved(pristine, "a.bin", "b.bin", 24), "");
  ASSERT_EQ(writeInterleaved(pristine, "listed.bin", "other.bin", 400), "");
  const std::string original = manifest(pristine);
  ASSERT_EQ(original.find("PROBLEM"), std::string::npos) << original;
  const std::vector<Move> script = planScript(pristine);
  const std::string bytes = readWhole(pristine);

  // Once through, counting the writes and flushes.
  const std::string image = dir.file("whole.img");
  ASSERT_TRUE(writeImage(image, bytes));
  uint64_t operations = 0;
  ASSERT_EQ(runScript(image, script, options([&](std::unique_ptr<DeviceFile> f) {
              return std::make_unique<FaultyDeviceFile>(std::move(f), 0, Fault::kProcessDies, &operations);
            })),
            "");
  EXPECT_EQ(manifest(image), original);
  EXPECT_EQ(ntfsfixProblem(image), "");
  {
    std::string error;
    std::unique_ptr<NtfsVolume> v = NtfsVolume::open(image, &error);
    ASSERT_NE(v, nullptr) << error;
    for (const Move& m : script) {
      std::vector<NtfsRun> runs = runsOf(*v, m.path);
      auto at = std::find_if(runs.begin(), runs.end(), [&](const NtfsRun& r) { return r.vcn + r.length > m.vcn; });
      ASSERT_NE(at, runs.end());
      EXPECT_EQ(at->lcn + (m.vcn - at->vcn), m.lcn) << "a move did not take effect";
    }
  }
  std::printf("%llu writes and flushes\n", static_cast<unsigned long long>(operations));
  ASSERT_GT(operations, 20u);

  // Then cut at each of them, checked in groups by one run of the reader.
  std::vector<std::string> crashed;
  std::vector<std::string> labels;
  auto check = [&] {
    std::vector<std::string> found = manifests(crashed);
    for (size_t i = 0; i < crashed.size(); ++i) {
      SCOPED_TRACE(labels[i]);
      EXPECT_EQ(found[i], original);
      EXPECT_EQ(ntfsfixProblem(crashed[i]), "");
      std::string error;
      EXPECT_NE(NtfsVolume::open(crashed[i], &error), nullptr) << error;
      ::unlink(crashed[i].c_str());
    }
    crashed.clear();
    labels.clear();
  };
  for (uint64_t n = 1; n <= operations; ++n) {
    for (Fault fault : {Fault::kProcessDies, Fault::kMachineDies, Fault::kOperationFails}) {
      const char* what[] = {"the process dies", "the machine dies", "the device fails"};
      std::string label = std::string(what[static_cast<int>(fault)]) + " at operation " + std::to_string(n) + " of " +
                          std::to_string(operations);
      std::string path = dir.file("crash" + std::to_string(crashed.size()) + ".img");
      ASSERT_TRUE(writeImage(path, bytes));
      pid_t pid = ::fork();
      if (pid == 0) {
        runScript(path, script, options([&](std::unique_ptr<DeviceFile> f) {
                    return std::make_unique<FaultyDeviceFile>(std::move(f), n, fault, nullptr);
                  }));
        // A failed operation is survived; a death that did not come means
        // the count above was wrong.
        ::_exit(fault == Fault::kOperationFails ? 0 : 1);
      }
      int status = 0;
      ::waitpid(pid, &status, 0);
      ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << label << ": the script did not end there";
      crashed.push_back(path);
      labels.push_back(label);
    }
    if (crashed.size() >= 45 || n == operations) check();
  }
}

}  // namespace
}  // namespace glidewell

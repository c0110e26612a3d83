// Catches moves whose writes are ordered so that a crash at some instant
// loses a byte or leaves a volume that ntfsfix rejects or that cannot be
// opened again, and moves that go on after a failed write as if it had been
// made: a script of moves is cut at each write and flush it makes.
#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "ntfs/ntfs_volume.h"
#include "support/temp_dir.h"
#include "ntfs_image_builder.h"
#include "ntfs_test_util.h"

namespace glidewell {
namespace {

using namespace ntfstest;

enum class Fault {
  kProcessDies,     // every write made so far is in the file
  kMachineDies,     // of the writes since the last flush only the latest stays: a disk may
                    // keep them in any order, and a later one without those before it is
                    // what exposes a missing flush between them
  kOperationFails,  // the write or flush reports EIO, does nothing, and the process goes on
};

// Counts writes and flushes and applies the fault at the Nth (0: never).
class FaultyDeviceFile : public DeviceFile {
 public:
  FaultyDeviceFile(std::unique_ptr<DeviceFile> file, uint64_t faultAt, Fault fault, uint64_t* count)
      : file_(std::move(file)), faultAt_(faultAt), fault_(fault), count_(count) {}
  int64_t read(void* buffer, int64_t n, int64_t offset) override { return file_->read(buffer, n, offset); }
  int64_t write(const void* buffer, int64_t n, int64_t offset) override {
    if (!proceed()) return -1;
    if (fault_ == Fault::kMachineDies) {
      Unflushed u{offset, std::vector<uint8_t>(static_cast<size_t>(n)),
                  std::vector<uint8_t>(static_cast<const uint8_t*>(buffer), static_cast<const uint8_t*>(buffer) + n)};
      u.before.resize(static_cast<size_t>(std::max<int64_t>(0, file_->read(u.before.data(), n, offset))));
      unflushed_.push_back(std::move(u));
    }
    return file_->write(buffer, n, offset);
  }
  int sync() override {
    if (!proceed()) return -1;
    unflushed_.clear();
    return file_->sync();
  }
  int stat(struct stat* st) override { return file_->stat(st); }
  int ioctl(unsigned long request, void* argument) override { return file_->ioctl(request, argument); }

 private:
  struct Unflushed {
    int64_t offset;
    std::vector<uint8_t> before, after;
  };
  bool proceed() {
    if (++*count_ != faultAt_) return true;
    if (fault_ == Fault::kOperationFails) {
      errno = EIO;
      return false;
    }
    if (fault_ == Fault::kMachineDies && !unflushed_.empty()) {
      for (auto u = unflushed_.rbegin(); u != unflushed_.rend(); ++u) file_->write(u->before.data(), u->before.size(), u->offset);
      file_->write(unflushed_.back().after.data(), unflushed_.back().after.size(), unflushed_.back().offset);
    }
    ::_exit(0);
  }

  std::unique_ptr<DeviceFile> file_;
  uint64_t faultAt_;
  Fault fault_;
  uint64_t* count_;
  std::vector<Unflushed> unflushed_;
};

struct Move {
  std::vector<std::u16string> path;
  int64_t vcn, lcn;
  uint32_t count;
};

// Runs the moves and closes the volume; "" or what failed. The volume
// commits after every third record and before a second cluster would wait
// in memory, so the script commits between moves for both reasons and at
// the end.
std::string runScript(const std::string& image, const std::vector<Move>& script, uint64_t faultAt, Fault fault,
                      uint64_t* count) {
  NtfsVolume::Options o;
  o.limits.records = 3;
  o.limits.heldBytes = 4096;
  o.wrapFile = [&](std::unique_ptr<DeviceFile> f) {
    return std::make_unique<FaultyDeviceFile>(std::move(f), faultAt, fault, count);
  };
  std::string error;
  std::unique_ptr<NtfsVolume> volume = NtfsVolume::open(image, &error, o);
  for (const Move& m : script) {
    uint64_t mft = 0;
    if (!volume || volume->lookup(m.path, &mft) != kNtfsOk || volume->moveClusters(mft, m.vcn, m.lcn, m.count) != kNtfsOk) {
      return "the move of VCN " + std::to_string(m.vcn) + " failed " + error;
    }
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

// The moves, planned on the untouched volume: a fragmented file to free
// clusters; two clusters of its twin into clusters the first move left (its
// record must be durable before they are overwritten); a file whose runs fill
// several records through an attribute list, whole, and a stretch across its
// twin's records; two units of a compressed file.
std::vector<Move> planScript(NtfsVolume& v) {
  std::vector<uint8_t> bitmap((v.totalClusters() + 7) / 8);
  v.readBitmap(0, bitmap.size(), bitmap.data());
  int64_t next = 0;
  auto freeRun = [&](int64_t n) {  // the first free run of n clusters after the last one taken
    for (int64_t lcn = next, run = 0; lcn < static_cast<int64_t>(v.totalClusters()); ++lcn) {
      run = (bitmap[lcn / 8] >> (lcn % 8)) & 1 ? 0 : run + 1;
      if (run == n) {
        next = lcn + 1;
        return lcn + 1 - n;
      }
    }
    return int64_t{-1};
  };
  std::vector<NtfsRun> a = runsOf(v, {u"a.bin"});
  return {{{u"a.bin"}, 0, freeRun(24), 24},
          {{u"b.bin"}, 0, a[0].lcn, 1},
          {{u"b.bin"}, 1, a[1].lcn, 1},
          {{u"listed.bin"}, 0, freeRun(400), 400},
          {{u"other.bin"}, 100, freeRun(200), 200},
          {{u"packed", u"log.txt"}, 0, freeRun(16), 16},
          {{u"packed", u"log.txt"}, 32, freeRun(16), 16}};
}

// Writes a sparse copy of bytes.
bool writeImage(const std::string& image, const std::string& bytes) {
  int fd = ::open(image.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  bool ok = fd >= 0 && ::ftruncate(fd, static_cast<off_t>(bytes.size())) == 0;
  static const std::string zeros(4096, '\0');
  for (size_t at = 0; ok && at < bytes.size(); at += 4096) {
    if (bytes.compare(at, 4096, zeros) == 0) continue;
    ok = ::pwrite(fd, bytes.data() + at, 4096, static_cast<off_t>(at)) == 4096;
  }
  return fd >= 0 && ::close(fd) == 0 && ok;
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
  const std::string original = manifest(pristine), bytes = readWhole(pristine);
  ASSERT_EQ(original.find("PROBLEM"), std::string::npos) << original;
  std::vector<Move> script;
  {
    std::string error;
    std::unique_ptr<NtfsVolume> v = NtfsVolume::open(pristine, &error);
    ASSERT_NE(v, nullptr) << error;
    script = planScript(*v);
  }

  // Once through, counting the writes and flushes; every move takes effect.
  const std::string image = dir.file("whole.img");
  ASSERT_TRUE(writeImage(image, bytes));
  uint64_t operations = 0;
  ASSERT_EQ(runScript(image, script, 0, Fault::kProcessDies, &operations), "");
  EXPECT_EQ(manifest(image), original);
  EXPECT_EQ(ntfsfixProblem(image), "");
  std::string error;
  std::unique_ptr<NtfsVolume> v = NtfsVolume::open(image, &error);
  ASSERT_NE(v, nullptr) << error;
  for (const Move& m : script) {
    std::vector<NtfsRun> runs = runsOf(*v, m.path);
    auto at = std::find_if(runs.begin(), runs.end(), [&](const NtfsRun& r) { return r.vcn + r.length > m.vcn; });
    ASSERT_NE(at, runs.end());
    EXPECT_EQ(at->lcn + (m.vcn - at->vcn), m.lcn) << "a move did not take effect";
  }
  v.reset();
  std::printf("%llu writes and flushes\n", static_cast<unsigned long long>(operations));
  ASSERT_GT(operations, 20u);

  // Then cut at each of them, the images checked in groups by one run of the reader.
  std::vector<std::string> images, labels;
  for (uint64_t n = 1; n <= operations; ++n) {
    for (Fault fault : {Fault::kProcessDies, Fault::kMachineDies, Fault::kOperationFails}) {
      const char* what[] = {"the process dies", "the machine dies", "the device fails"};
      labels.push_back(std::string(what[static_cast<int>(fault)]) + " at operation " + std::to_string(n));
      images.push_back(dir.file("cut" + std::to_string(images.size()) + ".img"));
      ASSERT_TRUE(writeImage(images.back(), bytes));
      pid_t pid = ::fork();
      if (pid == 0) {
        uint64_t count = 0;
        runScript(images.back(), script, n, fault, &count);
        ::_exit(fault == Fault::kOperationFails ? 0 : 1);  // a death that did not come: the count was wrong
      }
      int status = 0;
      ::waitpid(pid, &status, 0);
      ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << labels.back() << ": the script did not end there";
    }
    if (images.size() < 45 && n < operations) continue;
    std::vector<std::string> found = manifests(images);
    for (size_t i = 0; i < images.size(); ++i) {
      SCOPED_TRACE(labels[i] + " of " + std::to_string(operations));
      EXPECT_EQ(found[i], original);
      EXPECT_EQ(ntfsfixProblem(images[i]), "");
      EXPECT_NE(NtfsVolume::open(images[i], &error), nullptr) << error;
      ::unlink(images[i].c_str());
    }
    images.clear();
    labels.clear();
  }
}

}  // namespace
}  // namespace glidewell

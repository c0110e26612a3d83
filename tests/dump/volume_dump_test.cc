// The volume dump: a dump of a simulated disk reads back as the disk is, the
// writer reports each failed write with its own text, and the reader refuses
// every malformed or hostile dump with a clear error.
#include "dump/volume_dump.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "dump/volume_dump_reader.h"
#include "engine/dfrg_context.h"
#include "sim/sim_aging.h"
#include "sim/sim_volume_system.h"

namespace glidewell {
namespace {

using Bytes = std::vector<uint8_t>;
using ::testing::HasSubstr;

// The simulated disk makes no reparse directories; this handle lists every
// directory named "junction" as one.
class JunctionVolume : public SimVolumeSystem {
 public:
  using SimVolumeSystem::SimVolumeSystem;
  HANDLE findFirstFile(const std::wstring& pattern, WIN32_FIND_DATAW* data) override {
    HANDLE h = SimVolumeSystem::findFirstFile(pattern, data);
    return mark(h != INVALID_HANDLE_VALUE, data), h;
  }
  BOOL findNextFile(HANDLE find, WIN32_FIND_DATAW* data) override {
    BOOL ok = SimVolumeSystem::findNextFile(find, data);
    return mark(ok, data), ok;
  }

 private:
  static void mark(bool found, WIN32_FIND_DATAW* d) {
    if (found && std::wstring(d->cFileName) == L"junction") d->dwFileAttributes |= FILE_ATTRIBUTE_REPARSE_POINT;
  }
};

// The records of the given volumes, written one after the other.
Bytes dumpOf(std::initializer_list<CDfrgContext*> volumes) {
  char* data = nullptr;
  size_t size = 0;
  std::FILE* f = open_memstream(&data, &size);
  for (CDfrgContext* ctx : volumes) writeVolumeDump(f, ctx);
  std::fclose(f);
  Bytes bytes(data, data + size);
  std::free(data);
  return bytes;
}

// An aged disk of 50003 clusters (not a multiple of 8) with many compressed
// and sparse files, a junction, a symbolic link and a locked file.
struct DumpedDisk {
  DumpedDisk() {
    SimAgingOptions options;
    options.seed = 3;
    options.totalClusters = 50003;
    options.maxFiles = 300;
    options.compressedShare = 0.2;  // compressed and sparse files read as their extents
    options.sparseShare = 0.1;
    std::string error;
    disk = ageDisk(options, &error);
    EXPECT_TRUE(disk) << error;
    disk->createDirectory(L"junction");
    disk->createFile(L"junction\\inside", 9000);
    disk->createFile(L"symlink", 0, FILE_ATTRIBUTE_REPARSE_POINT);
    for (const SimFileInfo& f : disk->listAll()) {
      if (locked.empty() && !f.runs.empty() && f.path.find(L"junction") == std::wstring::npos) locked = f.path;
    }
    disk->setLocked(locked, true);
    ctx = std::make_unique<CDfrgContext>(std::make_unique<JunctionVolume>(disk, L'D'), 0, nullptr);
    bytes = dumpOf({ctx.get()});
  }
  std::shared_ptr<SimDisk> disk;
  std::wstring locked;
  std::unique_ptr<CDfrgContext> ctx;
  Bytes bytes;
};

// The extents the engine reads for a file: stored runs, merged when they
// follow each other on disk; none when the map begins with a virtual run.
std::vector<ClusterRange> expectedExtents(const SimFileInfo& f) {
  std::vector<ClusterRange> out;
  if (f.runs.empty() || f.runs.front().isVirtual()) return out;
  for (const SimRun& run : f.runs) {
    if (run.isVirtual()) continue;
    if (!out.empty() && out.back().end + 1 == run.lcn) {
      out.back().end += run.length;
    } else {
      out.emplace_back(run.lcn, run.lcn + run.length - 1);
    }
  }
  return out;
}

TEST(VolumeDumpTest, DumpOfADiskReadsBackAsTheDiskIs) {
  DumpedDisk d;
  std::vector<VolumeDumpRecord> records = readVolumeDump(d.bytes.data(), d.bytes.size());
  ASSERT_EQ(records.size(), 1u);
  const VolumeDumpRecord& r = records[0];
  EXPECT_EQ(std::make_tuple(r.driveLetter, r.label, r.totalClusters, r.bytesPerCluster, r.fileSystemTypeCode()),
            std::make_tuple(L'D', std::wstring(L"Aged"), uint64_t{50003}, uint32_t{4096}, kFileSystemNtfs));
  Bytes bits = d.disk->bitmapBytes();
  EXPECT_EQ(r.bitmap, Bytes(bits.begin(), bits.begin() + 50003 / 8));

  size_t i = 0;
  for (const SimFileInfo& f : d.disk->listAll()) {
    if (f.path.rfind(L"junction", 0) == 0 || (f.attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) continue;
    ASSERT_LT(i, r.entries.size());
    const VolumeDumpEntry& e = r.entries[i++];
    ASSERT_EQ(e.path, f.path);
    EXPECT_EQ(e.isDirectory, (f.attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) << f.path;
    EXPECT_EQ(e.extents, f.path == d.locked ? std::vector<ClusterRange>{} : expectedExtents(f)) << f.path;
  }
  EXPECT_EQ(i, r.entries.size());
}

TEST(VolumeDumpTest, EmptyRootEndsAfterTheCountAndRecordsFollowEachOther) {
  SimGeometry g;
  g.totalClusters = 77;
  g.label = L"";
  auto disk = std::make_shared<SimDisk>(g);
  CDfrgContext c(std::make_unique<SimVolumeSystem>(disk, L'C'), 0, nullptr);
  CDfrgContext e(std::make_unique<SimVolumeSystem>(disk, L'E'), 1, nullptr);
  EXPECT_EQ(dumpOf({&c}).size(), 4u + 2 + 6 + 8 + 4 + 1 + 4 + 9 + 4 + 4 + 8);
  Bytes both = dumpOf({&c, &e});
  std::vector<VolumeDumpRecord> records = readVolumeDump(both.data(), both.size());
  ASSERT_EQ(records.size(), 2u);
  EXPECT_TRUE(records[0].entries.empty());
  EXPECT_EQ(records[1].driveLetter, L'E');
}

// What the writer throws when the stream takes no more than `room` bytes.
std::string failureAt(CDfrgContext& ctx, size_t room) {
  std::vector<char> buffer(room + 1);
  std::FILE* f = fmemopen(buffer.data(), room, "wb");
  std::setvbuf(f, nullptr, _IONBF, 0);
  std::string what = "none";
  try {
    writeVolumeDump(f, &ctx);
  } catch (const std::wstring& e) {
    what = e.rfind(L"Error writing string", 0) == 0 ? "string" : "other wide text";
  } catch (const std::string& e) {
    what = e;
  }
  return std::fclose(f), what;
}

TEST(VolumeDumpTest, FailedWritesEndTheRecordWithTheirOwnText) {
  DumpedDisk d;
  const VolumeDumpRecord r = readVolumeDump(d.bytes.data(), d.bytes.size()).at(0);
  const size_t bitmapAt = 4 + 2 + 4 + 2 * r.label.size() + 2 + 8 + 4 + 1 + 4;
  EXPECT_EQ(failureAt(*d.ctx, 3), "string") << "tags and header numbers are not checked";
  EXPECT_EQ(failureAt(*d.ctx, bitmapAt + 100), "Error writing bitmap");
  // Walk the entries to the first file with extents and its fields.
  size_t at = bitmapAt + r.bitmap.size() + 4 + 4 + 8;
  auto e = r.entries.begin();
  for (; e->extents.empty(); ++e) at += 4 + 2 * e->path.size() + 2 + 12;
  const size_t fields = at + 4 + 2 * e->path.size() + 2;
  EXPECT_EQ(failureAt(*d.ctx, at + 2), "string");
  EXPECT_EQ(failureAt(*d.ctx, fields + 1), "Error writing Entry");
  EXPECT_EQ(failureAt(*d.ctx, fields + 4 + 5), "Error writing Entry");
  EXPECT_EQ(failureAt(*d.ctx, fields + 12 + 9), "Error writing lStart");
  EXPECT_EQ(failureAt(*d.ctx, d.bytes.size()), "none");
}

// Builds records byte by byte, for inputs the writer never produces.
class DumpBuilder {
 public:
  DumpBuilder& raw(const std::string& s) {
    bytes.insert(bytes.end(), s.begin(), s.end());
    return *this;
  }
  template <typename T>
  DumpBuilder& num(T v) {
    for (size_t i = 0; i < sizeof(T); ++i) bytes.push_back(static_cast<uint8_t>(static_cast<uint64_t>(v) >> (8 * i)));
    return *this;
  }
  DumpBuilder& str(const std::u16string& s, uint32_t claimed = 0xFFFFFFFF) {
    num<uint32_t>(claimed == 0xFFFFFFFF ? static_cast<uint32_t>(s.size()) : claimed);
    for (char16_t c : s) num<uint16_t>(c);
    return num<uint16_t>(0);
  }
  // A record head of 80 clusters (10 bitmap bytes) up to the entry count.
  DumpBuilder& head(uint64_t total = 80, uint64_t bitmapBytes = 10) {
    raw("VDFH").num<uint16_t>('E').str(u"L").num<uint64_t>(total).num<uint32_t>(512).num<uint8_t>(1).raw("BMPB");
    bytes.insert(bytes.end(), static_cast<size_t>(bitmapBytes), 0);
    return raw("BMPE").raw("EYLH");
  }
  DumpBuilder& entry(const std::u16string& path, int32_t dir, std::vector<std::pair<int64_t, int64_t>> ext) {
    str(path).num<int32_t>(dir).num<int64_t>(static_cast<int64_t>(ext.size()));
    for (auto& e : ext) num<int64_t>(e.first).num<int64_t>(e.second);
    return *this;
  }
  Bytes bytes;
};

// The reader's complaint about an input, or "accepted".
std::string refusal(const std::function<void()>& read) {
  try {
    read();
  } catch (const VolumeDumpError& e) {
    return e.what();
  }
  return "accepted";
}

TEST(VolumeDumpReaderTest, RefusesHostileDumpsWithClearErrors) {
  std::pair<std::function<void(DumpBuilder&)>, const char*> cases[] = {
      {[](DumpBuilder& b) { b.raw("VDFX"); }, "expected tag VDFH, found 'VDFX'"},
      {[](DumpBuilder& b) { b.raw("VDFH").num<uint16_t>('E').str(u"", 0x7FFFFFFF); },
       "label is truncated (claims 2147483647 code units"},
      {[](DumpBuilder& b) { b.head(80, 9); }, "bitmap size does not match"},
      {[](DumpBuilder& b) { b.head(1ull << 60, 0); }, "bitmap of 1152921504606846976 clusters is truncated"},
      {[](DumpBuilder& b) { b.head().num<uint64_t>(1ull << 62); }, "entry count 4611686018427387904 is larger"},
      {[](DumpBuilder& b) { b.head().num<uint64_t>(1).str(u"f").num<int32_t>(0).num<int64_t>(1ll << 40); },
       "extent count 1099511627776 of 'f' is larger"},
      {[](DumpBuilder& b) { b.head().num<uint64_t>(1).str(u"f").num<int32_t>(0).num<int64_t>(-1); }, "is negative"},
      {[](DumpBuilder& b) { b.head().num<uint64_t>(1).entry(u"f", 0, {{70, 80}}); },
       "past the end of the volume (80 clusters)"},
      {[](DumpBuilder& b) { b.head().num<uint64_t>(1).entry(u"f", 0, {{9, 8}}); }, "ends before it starts"},
      {[](DumpBuilder& b) { b.head().num<uint64_t>(2).entry(u"f", 0, {{10, 19}}).entry(u"g", 0, {{30, 39}, {19, 20}}); },
       "extents of 'f' and 'g' overlap at cluster 19"},
      {[](DumpBuilder& b) { b.head().num<uint64_t>(1).entry(u"d", 1, {{1, 1}}); }, "directory 'd' has extents"},
      {[](DumpBuilder& b) { b.head().num<uint64_t>(1).entry(u"d\\f", 0, {}); }, "comes before its directory"},
      {[](DumpBuilder& b) { b.head().num<uint64_t>(2).entry(u"Readme", 0, {}).entry(u"README", 0, {}); },
       "listed twice"},
      {[](DumpBuilder& b) { b.head().num<uint64_t>(1).entry(u"a\\\\b", 0, {}); }, "invalid component"},
      {[](DumpBuilder& b) { b.head().num<uint64_t>(1).entry(u"f", 7, {}); }, "neither 0 nor 1"},
      {[](DumpBuilder& b) {
         b.head().num<uint64_t>(1).num<uint32_t>(1).num<uint16_t>('f').num<uint16_t>('x').num<int32_t>(0).num<int64_t>(0);
       },
       "not NUL-terminated"},
      {[](DumpBuilder& b) { b.head().num<uint64_t>(0).raw("VD"); }, "record 2"},
  };
  for (const auto& c : cases) {
    DumpBuilder b;
    c.first(b);
    EXPECT_THAT(refusal([&b] { readVolumeDump(b.bytes.data(), b.bytes.size()); }), HasSubstr(c.second));
  }
}

TEST(VolumeDumpReaderTest, EveryTruncationOfARealDumpIsRefused) {
  DumpedDisk d;
  EXPECT_TRUE(readVolumeDump(d.bytes.data(), 0).empty());
  for (size_t n = 1; n < d.bytes.size(); n += 1 + n / 64) {
    try {
      readVolumeDump(d.bytes.data(), n);
      ADD_FAILURE() << "a dump cut at " << n << " was accepted";
    } catch (const VolumeDumpError& e) {
      EXPECT_LE(e.offset(), n);
    }
  }
  EXPECT_THAT(refusal([] { readVolumeDumpFile(L"/nonexistent-dir/none.vdf"); }),
              HasSubstr("cannot open /nonexistent-dir/none.vdf"));
}

}  // namespace
}  // namespace glidewell

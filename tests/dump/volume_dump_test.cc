// The volume dump: what the writer puts in a record, how it reports failed
// writes, and how the reader refuses every malformed or hostile dump.
#include "dump/volume_dump.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "dump/volume_dump_reader.h"
#include "engine/dfrg_context.h"
#include "volume/bitmap_volume.h"

namespace glidewell {
namespace {

using testing::BitmapVolume;
using Bytes = std::vector<uint8_t>;

struct Volume {
  explicit Volume(uint64_t total, wchar_t letter = L'T') {
    auto v = std::make_unique<BitmapVolume>(total, letter);
    vol = v.get();
    ctx = std::make_unique<CDfrgContext>(std::move(v), 0, nullptr);
  }
  BitmapVolume* vol;
  std::unique_ptr<CDfrgContext> ctx;
};

// A volume of 1003 clusters (not a multiple of 8) with a directory, files in
// one and two extents, a locked file, a resident file and two reparse points.
void populate(BitmapVolume& vol) {
  vol.label = L"Daten \u00e9";
  vol.setUsed(0, 15, true);
  vol.addFile(L"T:\\a", FILE_ATTRIBUTE_DIRECTORY);
  vol.addFile(L"T:\\a\\f1").runs = {{4, 100}};
  vol.addFile(L"T:\\a\\link", FILE_ATTRIBUTE_REPARSE_POINT).runs = {{1, 900}};
  vol.addFile(L"T:\\b.txt").runs = {{10, 200}, {12, 50}};
  vol.addFile(L"T:\\junction", FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT);
  vol.addFile(L"T:\\junction\\inside").runs = {{1, 950}};
  vol.addFile(L"T:\\locked").openError = ERROR_SHARING_VIOLATION;
  vol.addFile(L"T:\\tiny");
  vol.setUsed(100, 103, true);
  vol.setUsed(200, 209, true);
  vol.setUsed(50, 51, true);
  vol.setUsed(1000, 1002, true);  // beyond the last whole byte of the bitmap
}

Bytes dumpOf(CDfrgContext& ctx) {
  std::FILE* f = std::tmpfile();
  writeVolumeDump(f, &ctx);
  std::fflush(f);
  Bytes bytes(static_cast<size_t>(std::ftell(f)));
  std::rewind(f);
  EXPECT_EQ(std::fread(bytes.data(), 1, bytes.size(), f), bytes.size());
  std::fclose(f);
  return bytes;
}

TEST(VolumeDumpTest, RecordReadsBackAsTheVolumeWas) {
  Volume v(1003);
  populate(*v.vol);
  Bytes bytes = dumpOf(*v.ctx);
  std::vector<VolumeDumpRecord> records = readVolumeDump(bytes.data(), bytes.size());
  ASSERT_EQ(records.size(), 1u);
  const VolumeDumpRecord& r = records[0];
  EXPECT_EQ(r.driveLetter, L'T');
  EXPECT_EQ(r.label, L"Daten \u00e9");
  EXPECT_EQ(r.totalClusters, 1003u);
  EXPECT_EQ(r.bytesPerCluster, 4096u);
  EXPECT_EQ(r.fileSystemTypeCode(), 1);
  EXPECT_EQ(r.bitmap, Bytes(v.vol->bitmap.begin(), v.vol->bitmap.begin() + 125));

  struct Want {
    std::wstring path;
    bool dir;
    std::vector<ClusterRange> extents;
  };
  std::vector<Want> want = {{L"a", true, {}},
                            {L"a\\f1", false, {ClusterRange(100, 103)}},
                            {L"b.txt", false, {ClusterRange(200, 209), ClusterRange(50, 51)}},
                            {L"locked", false, {}},
                            {L"tiny", false, {}}};
  ASSERT_EQ(r.entries.size(), want.size());
  for (size_t i = 0; i < want.size(); ++i) {
    EXPECT_EQ(r.entries[i].path, want[i].path);
    EXPECT_EQ(r.entries[i].isDirectory, want[i].dir) << i;
    EXPECT_EQ(r.entries[i].extents, want[i].extents) << i;
  }
  EXPECT_EQ(v.vol->openHandles, 0);
}

TEST(VolumeDumpTest, EmptyRootEndsAfterTheCountAndRecordsConcatenate) {
  Volume c(64, L'C'), d(16, L'D');
  c.vol->label = L"";
  std::FILE* f = std::tmpfile();
  writeVolumeDump(f, c.ctx.get());
  long first = std::ftell(f);
  EXPECT_EQ(first, 4 + 2 + 6 + 8 + 4 + 1 + 4 + 8 + 4 + 4 + 8);
  writeVolumeDump(f, d.ctx.get());
  std::rewind(f);
  std::vector<VolumeDumpRecord> records = readVolumeDump(f);
  std::fclose(f);
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].driveLetter, L'C');
  EXPECT_TRUE(records[0].entries.empty());
  EXPECT_EQ(records[1].driveLetter, L'D');
  EXPECT_EQ(records[1].bitmap.size(), 2u);
}

// What a write that fails at byte `room` of the record throws.
std::string failureAt(CDfrgContext& ctx, size_t room) {
  std::vector<char> buffer(room + 1);
  std::FILE* f = fmemopen(buffer.data(), room, "wb");
  std::setvbuf(f, nullptr, _IONBF, 0);
  std::string what = "none";
  try {
    writeVolumeDump(f, &ctx);
  } catch (const std::wstring& e) {
    what = e.rfind(L"Error writing string", 0) == 0 ? "string" : "wide?";
  } catch (const std::string& e) {
    what = e;
  }
  std::fclose(f);
  return what;
}

TEST(VolumeDumpTest, FailedWritesEndTheRecordWithTheirOwnMessage) {
  Volume v(1003);
  populate(*v.vol);
  Bytes bytes = dumpOf(*v.ctx);
  const size_t header = 4 + 2 + 4 + 2 * 7 + 2;  // up to the end of the label
  const size_t bitmapStart = header + 8 + 4 + 1 + 4;
  const size_t entriesStart = bitmapStart + 125 + 4 + 4 + 8;
  const size_t bFirstExtent = entriesStart + (4 + 4 + 4 + 8) + (4 + 10 + 4 + 8 + 16) + (4 + 12 + 4 + 8);
  EXPECT_EQ(failureAt(*v.ctx, 3), "string") << "tags and header numbers are not checked";
  EXPECT_EQ(failureAt(*v.ctx, header - 1), "string");
  EXPECT_EQ(failureAt(*v.ctx, bitmapStart + 10), "Error writing bitmap");
  EXPECT_EQ(failureAt(*v.ctx, entriesStart + 3), "string");
  EXPECT_EQ(failureAt(*v.ctx, entriesStart + 4 + 4 + 2), "Error writing Entry");
  EXPECT_EQ(failureAt(*v.ctx, bFirstExtent + 5), "Error writing lStart");
  EXPECT_EQ(failureAt(*v.ctx, bytes.size()), "none");
  // Whatever the cut, the writer throws one of its own texts and nothing else.
  for (size_t room = 0; room < bytes.size(); ++room) {
    std::string what = failureAt(*v.ctx, room);
    EXPECT_TRUE(what == "string" || what == "Error writing Entry" || what == "Error writing lStart" ||
                what == "Error writing bitmap")
        << room << ": " << what;
  }
}

// Builds records byte by byte, for inputs the writer would never produce.
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
  DumpBuilder& header(uint64_t total, uint64_t bitmapBytes) {
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

std::string refusal(const Bytes& bytes) {
  try {
    readVolumeDump(bytes.data(), bytes.size());
  } catch (const VolumeDumpError& e) {
    return e.what();
  }
  return "accepted";
}

TEST(VolumeDumpReaderTest, RefusesHostileDumpsWithClearErrors) {
  auto with = [](std::function<void(DumpBuilder&)> body) {
    DumpBuilder b;
    body(b);
    return refusal(b.bytes);
  };
  auto contains = [](const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos ? ::testing::AssertionSuccess()
                                                : ::testing::AssertionFailure() << text;
  };
  EXPECT_TRUE(contains(with([](DumpBuilder& b) { b.raw("VDFX"); }), "expected tag VDFH, found 'VDFX'"));
  EXPECT_TRUE(contains(with([](DumpBuilder& b) { b.raw("VDFH").num<uint16_t>('E').str(u"", 0x7FFFFFFF); }),
                       "label is truncated (claims 2147483647 code units"));
  EXPECT_TRUE(contains(with([](DumpBuilder& b) { b.header(80, 9); }), "bitmap size does not match"));
  EXPECT_TRUE(contains(with([](DumpBuilder& b) { b.header(1ull << 60, 0); }), "bitmap of 1152921504606846976"));
  EXPECT_TRUE(contains(with([](DumpBuilder& b) { b.header(80, 10).num<uint64_t>(1ull << 62); }),
                       "entry count 4611686018427387904 is larger"));
  EXPECT_TRUE(contains(with([](DumpBuilder& b) {
                         b.header(80, 10).num<uint64_t>(1).str(u"f").num<int32_t>(0).num<int64_t>(1ll << 40);
                       }),
                       "extent count 1099511627776 of 'f' is larger"));
  EXPECT_TRUE(contains(with([](DumpBuilder& b) {
                         b.header(80, 10).num<uint64_t>(1).str(u"f").num<int32_t>(0).num<int64_t>(-1);
                       }),
                       "is negative"));
  EXPECT_TRUE(contains(with([](DumpBuilder& b) { b.header(80, 10).num<uint64_t>(1).entry(u"f", 0, {{70, 80}}); }),
                       "past the end of the volume (80 clusters)"));
  EXPECT_TRUE(contains(with([](DumpBuilder& b) { b.header(80, 10).num<uint64_t>(1).entry(u"f", 0, {{9, 8}}); }),
                       "ends before it starts"));
  EXPECT_TRUE(contains(with([](DumpBuilder& b) {
                         b.header(80, 10).num<uint64_t>(2).entry(u"f", 0, {{10, 19}}).entry(u"g", 0, {{30, 39}, {19, 20}});
                       }),
                       "extents of 'f' and 'g' overlap at cluster 19"));
  EXPECT_TRUE(contains(with([](DumpBuilder& b) { b.header(80, 10).num<uint64_t>(1).entry(u"d", 1, {{1, 1}}); }),
                       "directory 'd' has extents"));
  EXPECT_TRUE(contains(with([](DumpBuilder& b) { b.header(80, 10).num<uint64_t>(1).entry(u"d\\f", 0, {}); }),
                       "comes before its directory"));
  EXPECT_TRUE(contains(with([](DumpBuilder& b) {
                         b.header(80, 10).num<uint64_t>(2).entry(u"Readme", 0, {}).entry(u"README", 0, {});
                       }),
                       "listed twice"));
  EXPECT_TRUE(contains(with([](DumpBuilder& b) { b.header(80, 10).num<uint64_t>(1).entry(u"a\\\\b", 0, {}); }),
                       "invalid component"));
  EXPECT_TRUE(contains(with([](DumpBuilder& b) { b.header(80, 10).num<uint64_t>(1).entry(u"f", 7, {}); }),
                       "neither 0 nor 1"));
  EXPECT_TRUE(contains(with([](DumpBuilder& b) {
                         b.header(80, 10).num<uint64_t>(1).num<uint32_t>(1).num<uint16_t>('f').num<uint16_t>('x').num<int32_t>(0).num<int64_t>(0);
                       }),
                       "not NUL-terminated"));
  // A second record must be whole as well.
  EXPECT_TRUE(contains(with([](DumpBuilder& b) { b.header(80, 10).num<uint64_t>(0).raw("VD"); }), "record 2"));
}

TEST(VolumeDumpReaderTest, EveryTruncationOfARealDumpIsRefused) {
  Volume v(1003);
  populate(*v.vol);
  Bytes bytes = dumpOf(*v.ctx);
  EXPECT_TRUE(readVolumeDump(bytes.data(), 0).empty());
  for (size_t n = 1; n < bytes.size(); ++n) {
    try {
      readVolumeDump(bytes.data(), n);
      ADD_FAILURE() << "a dump cut at " << n << " was accepted";
    } catch (const VolumeDumpError& e) {
      EXPECT_LE(e.offset(), n);
    }
  }
}

TEST(VolumeDumpReaderTest, MissingFileIsAClearError) {
  try {
    readVolumeDumpFile(L"/nonexistent-dir/none.vdf");
    FAIL() << "read";
  } catch (const VolumeDumpError& e) {
    EXPECT_NE(std::string(e.what()).find("cannot open /nonexistent-dir/none.vdf"), std::string::npos) << e.what();
  }
}

}  // namespace
}  // namespace glidewell

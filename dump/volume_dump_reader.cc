#include "dump/volume_dump_reader.h"

#include <algorithm>
#include <cstring>
#include <cwctype>
#include <functional>
#include <memory>
#include <unordered_map>

#include "platform/env.h"
#include "platform/text.h"

namespace glidewell {

namespace {

// Smallest entry: empty-string count and terminator, isDirectory, extent count.
constexpr uint64_t kMinEntryBytes = 4 + 2 + 4 + 8;
constexpr uint64_t kExtentBytes = 16;

std::string describeTag(const uint8_t* p) {
  std::string out = "'";
  for (int i = 0; i < 4; ++i) {
    char c = static_cast<char>(p[i]);
    if (c >= 0x20 && c < 0x7F) {
      out += c;
    } else {
      static const char hex[] = "0123456789abcdef";
      out += "\\x";
      out += hex[p[i] >> 4];
      out += hex[p[i] & 15];
    }
  }
  return out + "'";
}

std::string pathForMessage(const std::wstring& path) { return "'" + narrow(path) + "'"; }

// Reads one volume record after another; every read is checked against the
// bytes that are left.
class RecordParser {
 public:
  RecordParser(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  std::vector<VolumeDumpRecord> parseAll() {
    std::vector<VolumeDumpRecord> records;
    while (pos_ < size_) {
      ++recordNumber_;
      recordStart_ = pos_;
      records.push_back(parseRecord());
    }
    return records;
  }

 private:
  [[noreturn]] void fail(const std::string& what, uint64_t at) const {
    throw VolumeDumpError("volume dump, record " + std::to_string(recordNumber_) + " at byte " +
                              std::to_string(at) + ": " + what,
                          at);
  }

  uint64_t left() const { return size_ - pos_; }

  void need(uint64_t n, const std::string& what) const {
    if (n > left()) {
      fail(what + " is truncated (needs " + std::to_string(n) + " bytes, " + std::to_string(left()) + " left)",
           pos_);
    }
  }

  uint64_t readUnsigned(size_t bytes, const std::string& what) {
    need(bytes, what);
    uint64_t v = 0;
    for (size_t i = 0; i < bytes; ++i) v |= static_cast<uint64_t>(data_[pos_ + i]) << (8 * i);
    pos_ += bytes;
    return v;
  }

  void expectTag(const char* tag, const std::string& what) {
    need(4, "tag " + std::string(tag));
    if (std::memcmp(data_ + pos_, tag, 4) != 0) {
      fail("expected tag " + std::string(tag) + ", found " + describeTag(data_ + pos_) + what, pos_);
    }
    pos_ += 4;
  }

  std::wstring readString(const std::string& what) {
    uint64_t at = pos_;
    uint64_t n = readUnsigned(4, what + " length");
    uint64_t bytes = 2 * n + 2;
    if (bytes > left()) {
      fail(what + " is truncated (claims " + std::to_string(n) + " code units, " + std::to_string(left()) +
               " bytes left)",
           at);
    }
    std::u16string units(static_cast<size_t>(n), u'\0');
    for (uint64_t i = 0; i < n; ++i) {
      units[i] = static_cast<char16_t>(data_[pos_ + 2 * i] | (data_[pos_ + 2 * i + 1] << 8));
    }
    if (data_[pos_ + 2 * n] != 0 || data_[pos_ + 2 * n + 1] != 0) fail(what + " is not NUL-terminated", at);
    pos_ += bytes;
    return fromUtf16(units);
  }

  VolumeDumpRecord parseRecord() {
    VolumeDumpRecord rec;
    expectTag("VDFH", " (not a volume record)");
    uint64_t at = pos_;
    uint64_t letter = readUnsigned(2, "drive letter");
    if (!((letter >= 'A' && letter <= 'Z') || (letter >= 'a' && letter <= 'z'))) {
      fail("drive letter " + std::to_string(letter) + " is not a letter", at);
    }
    rec.driveLetter = static_cast<wchar_t>(letter);
    rec.label = readString("label");
    at = pos_;
    rec.totalClusters = readUnsigned(8, "total clusters");
    if (rec.totalClusters == 0) fail("volume has no clusters", at);
    at = pos_;
    rec.bytesPerCluster = static_cast<uint32_t>(readUnsigned(4, "bytes per cluster"));
    if (rec.bytesPerCluster == 0) fail("cluster size is 0", at);
    at = pos_;
    rec.fileSystemType = static_cast<uint8_t>(readUnsigned(1, "file-system type"));
    if (rec.fileSystemType != 1 && rec.fileSystemType != 2 && rec.fileSystemType != 3 &&
        rec.fileSystemType != 0xFF) {
      fail("unknown file-system type " + std::to_string(rec.fileSystemType), at);
    }

    expectTag("BMPB", "");
    uint64_t bitmapBytes = rec.totalClusters / 8;
    need(bitmapBytes, "bitmap of " + std::to_string(rec.totalClusters) + " clusters");
    rec.bitmap.assign(data_ + pos_, data_ + pos_ + bitmapBytes);
    pos_ += bitmapBytes;
    expectTag("BMPE", " (the bitmap size does not match total clusters / 8 = " + std::to_string(bitmapBytes) +
                          " bytes)");

    expectTag("EYLH", "");
    at = pos_;
    uint64_t count = readUnsigned(8, "entry count");
    if (count > left() / kMinEntryBytes) {
      fail("entry count " + std::to_string(count) + " is larger than the " + std::to_string(left()) +
               " bytes left can hold",
           at);
    }
    rec.entries.reserve(static_cast<size_t>(count));
    PlacedExtents placed;
    std::unordered_map<std::wstring, bool> seen;  // folded path -> is a directory
    for (uint64_t i = 0; i < count; ++i) rec.entries.push_back(parseEntry(rec, placed, seen));
    checkOverlaps(rec, placed);
    return rec;
  }

  struct PlacedExtent {
    uint64_t first;
    uint64_t last;
    size_t entry;
    uint64_t offset;
  };
  using PlacedExtents = std::vector<PlacedExtent>;

  static std::wstring fold(const std::wstring& path) {
    std::wstring out(path);
    for (wchar_t& c : out) c = static_cast<wchar_t>(std::towupper(static_cast<std::wint_t>(c)));
    return out;
  }

  void checkPath(const std::wstring& path, bool isDirectory, std::unordered_map<std::wstring, bool>& seen,
                 uint64_t at) {
    if (path.empty()) fail("entry has an empty path", at);
    size_t begin = 0;
    for (;;) {
      size_t sep = path.find(L'\\', begin);
      std::wstring part = path.substr(begin, sep == std::wstring::npos ? std::wstring::npos : sep - begin);
      if (part.empty() || part == L"." || part == L".." || part.find(L'\0') != std::wstring::npos) {
        fail("path " + pathForMessage(path) + " has an invalid component", at);
      }
      if (sep == std::wstring::npos) break;
      begin = sep + 1;
    }
    std::wstring folded = fold(path);
    size_t lastSep = folded.rfind(L'\\');
    if (lastSep != std::wstring::npos) {
      auto parent = seen.find(folded.substr(0, lastSep));
      if (parent == seen.end() || !parent->second) {
        fail("path " + pathForMessage(path) + " comes before its directory", at);
      }
    }
    if (!seen.emplace(folded, isDirectory).second) fail("path " + pathForMessage(path) + " is listed twice", at);
  }

  VolumeDumpEntry parseEntry(const VolumeDumpRecord& rec, PlacedExtents& placed,
                             std::unordered_map<std::wstring, bool>& seen) {
    VolumeDumpEntry entry;
    uint64_t at = pos_;
    entry.path = readString("entry path");
    uint64_t flagAt = pos_;
    uint64_t isDirectory = readUnsigned(4, "isDirectory of " + pathForMessage(entry.path));
    if (isDirectory > 1) fail("isDirectory of " + pathForMessage(entry.path) + " is neither 0 nor 1", flagAt);
    entry.isDirectory = isDirectory == 1;
    checkPath(entry.path, entry.isDirectory, seen, at);
    uint64_t countAt = pos_;
    auto count = static_cast<int64_t>(readUnsigned(8, "extent count of " + pathForMessage(entry.path)));
    if (count < 0) fail("extent count of " + pathForMessage(entry.path) + " is negative", countAt);
    if (entry.isDirectory && count != 0) fail("directory " + pathForMessage(entry.path) + " has extents", countAt);
    if (static_cast<uint64_t>(count) > left() / kExtentBytes) {
      fail("extent count " + std::to_string(count) + " of " + pathForMessage(entry.path) + " is larger than the " +
               std::to_string(left()) + " bytes left can hold",
           countAt);
    }
    entry.extents.reserve(static_cast<size_t>(count));
    for (int64_t k = 0; k < count; ++k) {
      uint64_t extentAt = pos_;
      uint64_t first = readUnsigned(8, "extent");
      uint64_t last = readUnsigned(8, "extent");
      if (first > last) {
        fail("extent [" + std::to_string(first) + ", " + std::to_string(last) + "] of " +
                 pathForMessage(entry.path) + " ends before it starts",
             extentAt);
      }
      if (last >= rec.totalClusters) {
        fail("extent [" + std::to_string(first) + ", " + std::to_string(last) + "] of " +
                 pathForMessage(entry.path) + " lies past the end of the volume (" +
                 std::to_string(rec.totalClusters) + " clusters)",
             extentAt);
      }
      entry.extents.emplace_back(first, last);
      placed.push_back(PlacedExtent{first, last, rec.entries.size(), extentAt});
    }
    return entry;
  }

  void checkOverlaps(const VolumeDumpRecord& rec, PlacedExtents& placed) const {
    std::sort(placed.begin(), placed.end(),
              [](const PlacedExtent& a, const PlacedExtent& b) { return a.first < b.first; });
    for (size_t i = 1; i < placed.size(); ++i) {
      const PlacedExtent& a = placed[i - 1];
      const PlacedExtent& b = placed[i];
      if (b.first <= a.last) {
        fail("extents of " + pathForMessage(rec.entries[a.entry].path) + " and " +
                 pathForMessage(rec.entries[b.entry].path) + " overlap at cluster " + std::to_string(b.first),
             std::max(a.offset, b.offset));
      }
    }
  }

  const uint8_t* data_;
  uint64_t size_;
  uint64_t pos_ = 0;
  uint64_t recordNumber_ = 0;
  uint64_t recordStart_ = 0;
};

// Reads a whole stream through read(buffer, n) -> bytes read (0 at the end,
// negative on an error). The buffer grows only with bytes actually read.
std::vector<uint8_t> readAll(const std::function<int64_t(uint8_t*, uint32_t)>& read, const std::string& source) {
  std::vector<uint8_t> bytes;
  constexpr uint32_t kChunk = 1 << 16;
  for (;;) {
    size_t old = bytes.size();
    bytes.resize(old + kChunk);
    int64_t got = read(bytes.data() + old, kChunk);
    if (got < 0) throw VolumeDumpError("volume dump: cannot read " + source, old);
    bytes.resize(old + static_cast<size_t>(got));
    if (got == 0) return bytes;
  }
}

}  // namespace

std::vector<VolumeDumpRecord> readVolumeDump(const void* data, size_t size) {
  return RecordParser(static_cast<const uint8_t*>(data), size).parseAll();
}

std::vector<VolumeDumpRecord> readVolumeDump(std::FILE* file) {
  std::vector<uint8_t> bytes = readAll(
      [file](uint8_t* buf, uint32_t n) -> int64_t {
        size_t got = std::fread(buf, 1, n, file);
        if (got == 0 && std::ferror(file)) return -1;
        return static_cast<int64_t>(got);
      },
      "the stream");
  return readVolumeDump(bytes.data(), bytes.size());
}

std::vector<VolumeDumpRecord> readVolumeDumpFile(const std::wstring& path) {
  DWORD error = 0;
  std::unique_ptr<File> file = Env::current()->openFile(path, FileOpen::kReadExisting, &error);
  if (!file) {
    throw VolumeDumpError("volume dump: cannot open " + narrow(path) + " (error " + std::to_string(error) + ")", 0);
  }
  std::vector<uint8_t> bytes = readAll(
      [&file](uint8_t* buf, uint32_t n) -> int64_t {
        uint32_t done = 0;
        if (!file->read(buf, n, &done)) return -1;
        return done;
      },
      narrow(path));
  return readVolumeDump(bytes.data(), bytes.size());
}

}  // namespace glidewell

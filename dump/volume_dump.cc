#include "dump/volume_dump.h"

#include <algorithm>
#include <memory>

#include "volume/volume_context.h"
#include "engine/dfrg_exception.h"
#include "logging/logger.h"
#include "platform/text.h"
#include "volume/dfrg_file.h"
#include "volume/volume_system.h"

namespace glidewell {

namespace {

// The four record tags, written 4 bytes each without terminators.
constexpr char kTags[] = "VDFHBMPBBMPEEYLH";
enum Tag { kVolumeHeader = 0, kBitmapBegin = 1, kBitmapEnd = 2, kEntryListHeader = 3 };
constexpr size_t kBitmapChunkBytes = 4096;

void writeTag(std::FILE* file, Tag tag) { std::fwrite(kTags + 4 * tag, 1, 4, file); }

// Little-endian integers; true when every byte was written.
template <typename T>
bool writeInt(std::FILE* file, T value) {
  uint8_t bytes[sizeof(T)];
  auto v = static_cast<uint64_t>(value);
  for (size_t i = 0; i < sizeof(T); ++i) bytes[i] = static_cast<uint8_t>(v >> (8 * i));
  return std::fwrite(bytes, 1, sizeof bytes, file) == sizeof bytes;
}

// uint32 count of UTF-16 code units, the units and a NUL unit.
void writeDumpString(std::FILE* file, const std::wstring& text) {
  std::u16string units = toUtf16(text);
  std::string bytes;
  bytes.reserve(2 * units.size() + 2);
  for (char16_t u : units) {
    bytes.push_back(static_cast<char>(u & 0xFF));
    bytes.push_back(static_cast<char>(u >> 8));
  }
  bytes.append(2, '\0');
  if (!writeInt<uint32_t>(file, static_cast<uint32_t>(units.size())) ||
      std::fwrite(bytes.data(), 1, bytes.size(), file) != bytes.size()) {
    throw std::wstring(L"Error writing string ") + text;
  }
}

// Drops the drive letter, ':' and '\' of a full path.
std::wstring relativePath(const std::wstring& path) { return path.size() > 3 ? path.substr(3) : std::wstring(); }

void writeEntryHeader(std::FILE* file, const DumpEntry& entry) {
  writeDumpString(file, relativePath(entry.path));
  if (!writeInt<int32_t>(file, entry.isDirectory) || !writeInt<int64_t>(file, entry.extentCount)) {
    throw std::string("Error writing Entry");
  }
}

class FindHandle {
 public:
  FindHandle(CVolumeSystem& volume, HANDLE handle) : volume_(volume), handle_(handle) {}
  ~FindHandle() {
    if (handle_ != INVALID_HANDLE_VALUE) volume_.findClose(handle_);
  }
  FindHandle(const FindHandle&) = delete;
  FindHandle& operator=(const FindHandle&) = delete;
  bool valid() const { return handle_ != INVALID_HANDLE_VALUE; }
  HANDLE get() const { return handle_; }

 private:
  CVolumeSystem& volume_;
  HANDLE handle_;
};

}  // namespace

void getFileList(CVolumeSystem& volume, const std::wstring& dir, std::vector<DumpEntry>& out) {
  Logger log("getFileList");
  WIN32_FIND_DATAW data;
  FindHandle find(volume, volume.findFirstFile(dir + L"\\*.*", &data));
  if (!find.valid()) return;
  do {
    std::wstring name = data.cFileName;
    bool isReparse = (data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
    if (isReparse) continue;  // junctions and mount points are neither listed nor entered
    if ((data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
      if (name == L"." || name == L"..") continue;
      log.log(kLogDebug) << "Found Directory:" << LogProperty("Name", name);
      out.push_back(DumpEntry{dir + L"\\" + name, 1, 0});
      getFileList(volume, dir + L"\\" + name, out);
    } else {
      log.log(kLogDebug) << "Found File:" << LogProperty("Name", name);
      out.push_back(DumpEntry{dir + L"\\" + name, 0, -1});
    }
  } while (volume.findNextFile(find.get(), &data));
}

void writeEntrys(CVolumeContext* ctx, std::FILE* file, std::vector<DumpEntry>& entries) {
  Logger log("writeEntrys");
  for (DumpEntry& entry : entries) {
    log.log(kLogDebug) << "Writing entry" << LogProperty("Filename:", entry.path)
                       << LogProperty("IsDir", entry.isDirectory);
    if (entry.isDirectory) {
      entry.extentCount = 0;
      writeEntryHeader(file, entry);
      continue;
    }
    std::unique_ptr<CDfrgFile> dfrgFile;
    try {
      dfrgFile = std::make_unique<CDfrgFile>(*ctx, entry.path, false);
    } catch (const CDfrgException&) {
      // Locked or vanished files do not stop the dump.
      entry.extentCount = 0;
      writeEntryHeader(file, entry);
      continue;
    }
    ExtentList extents;
    dfrgFile->getFileExtents(extents);
    entry.extentCount = static_cast<int64_t>(extents.size());
    writeEntryHeader(file, entry);
    for (const Extent& extent : extents) {
      if (!writeInt<int64_t>(file, static_cast<int64_t>(extent.lcn.start)) ||
          !writeInt<int64_t>(file, static_cast<int64_t>(extent.lcn.end))) {
        throw std::string("Error writing lStart");
      }
    }
  }
}

void writeVolumeDump(std::FILE* file, CVolumeContext* ctx) {
  CVolumeSystem& volume = ctx->volume();
  wchar_t letter = volume.getDriveLetter();
  std::wstring label = volume.getVolumeName();
  uint64_t totalClusters = volume.getTotalClusters();
  int32_t type = volume.getFileSystemType();
  uint32_t bytesPerCluster = volume.getBytesPerCluster();

  writeTag(file, kVolumeHeader);
  writeInt<uint16_t>(file, static_cast<uint16_t>(letter));
  writeDumpString(file, label);
  writeInt<uint64_t>(file, totalClusters);
  writeInt<uint32_t>(file, bytesPerCluster);
  writeInt<uint8_t>(file, static_cast<uint8_t>(type & 0xFF));

  std::unique_ptr<uint8_t[]> bitmap;
  bool haveBitmap = volume.getVolumeBitmap(&bitmap);
  const uint64_t bitmapBytes = totalClusters / 8;
  if (!haveBitmap || !bitmap) {
    // Keep the record well-formed: a volume whose bitmap cannot be read is
    // dumped as wholly free.
    bitmap = std::make_unique<uint8_t[]>(static_cast<size_t>(bitmapBytes) + 1);
  }
  writeTag(file, kBitmapBegin);
  uint64_t written = 0;
  while (written < bitmapBytes) {
    size_t chunk = static_cast<size_t>(std::min<uint64_t>(kBitmapChunkBytes, bitmapBytes - written));
    size_t done = std::fwrite(bitmap.get() + written, 1, chunk, file);
    // A write that makes no progress (a full disk) would be retried for ever.
    if (done == 0) throw std::string("Error writing bitmap");
    written += done;
  }
  writeTag(file, kBitmapEnd);

  std::vector<DumpEntry> entries;
  getFileList(volume, std::wstring(1, letter) + L":", entries);
  writeTag(file, kEntryListHeader);
  writeInt<uint64_t>(file, entries.size());
  writeEntrys(ctx, file, entries);
}

}  // namespace glidewell

#include "sim/sim_image.h"

#include "logging/logger.h"

#include <algorithm>

#include "dump/volume_dump.h"
#include "engine/dfrg_exception.h"
#include "platform/text.h"
#include "sim/sim_volume_system.h"
#include "volume/volume_context.h"

namespace glidewell {

namespace {

const wchar_t* fileSystemNameOf(uint8_t type) {
  switch (type) {
    case 1: return L"NTFS";
    case 2: return L"FAT";
    case 3: return L"FAT32";
    default: return L"UNKNOWN";
  }
}

std::string describe(DWORD error) {
  switch (error) {
    case ERROR_FILE_EXISTS: return "the name is taken";
    case ERROR_PATH_NOT_FOUND: return "its directory is missing";
    case ERROR_INVALID_NAME: return "the name is not valid";
    case ERROR_INVALID_PARAMETER: return "its extents are not free or leave the volume";
    default: return "error " + std::to_string(error);
  }
}

// Runs of clusters the bitmap marks used that no file owns become the file
// system's; a file cluster that the bitmap marks free refuses the image.
bool settleBitmap(const VolumeDumpRecord& record, SimDisk& disk, std::string* error) {
  std::vector<uint8_t> files = disk.bitmapBytes();
  uint64_t runStart = kNoCluster;
  auto close = [&](uint64_t end) {
    if (runStart != kNoCluster) disk.reserveSystemClusters(runStart, end - runStart);
    runStart = kNoCluster;
  };
  for (size_t k = 0; k < record.bitmap.size(); ++k) {
    uint8_t used = record.bitmap[k], owned = files[k];
    if (owned & ~used) {
      uint64_t lcn = 8 * uint64_t{k} + static_cast<uint64_t>(__builtin_ctz(owned & ~used));
      *error = "a file owns cluster " + std::to_string(lcn) + ", which the bitmap marks free";
      return false;
    }
    uint8_t system = used & ~owned;
    // Whole bytes continue or leave a run as they are; mixed ones go bit by bit.
    if (system == 0) {
      close(8 * uint64_t{k});
    } else if (system == 0xFF) {
      if (runStart == kNoCluster) runStart = 8 * uint64_t{k};
    } else {
      for (int bit = 0; bit < 8; ++bit) {
        uint64_t lcn = 8 * uint64_t{k} + bit;
        if ((system >> bit) & 1) {
          if (runStart == kNoCluster) runStart = lcn;
        } else {
          close(lcn);
        }
      }
    }
  }
  close(8 * uint64_t{record.bitmap.size()});
  return true;
}

// Reads the records with read() and rebuilds the first.
template <typename Read>
std::unique_ptr<SimDisk> loadFirstRecord(Read read, std::string* error, wchar_t* letter) {
  std::vector<VolumeDumpRecord> records;
  try {
    records = read();
  } catch (const VolumeDumpError& e) {
    *error = std::string("image refused: ") + e.what();
    return nullptr;
  }
  if (records.empty()) {
    *error = "image refused: it holds no volume";
    return nullptr;
  }
  if (letter != nullptr) *letter = records[0].driveLetter;
  return loadSimImage(records[0], error);
}

}  // namespace

bool saveSimImage(const SimDisk& disk, wchar_t driveLetter, std::FILE* out, std::string* error) {
  // The dump writer's per-entry lines describe the engine's dumps, not the
  // write-back of an image: keep them out of the log.
  ScopedLogMute quiet;
  try {
    std::shared_ptr<SimDisk> copy = disk.clone();
    CStandaloneContext ctx(std::make_unique<SimVolumeSystem>(copy, driveLetter));
    writeVolumeDump(out, &ctx);
  } catch (const CDfrgException& e) {
    *error = "cannot save the image: " + e.message;
    return false;
  } catch (const std::wstring& e) {
    *error = "cannot save the image: " + narrow(e);
    return false;
  } catch (const std::string& e) {
    *error = "cannot save the image: " + e;
    return false;
  }
  if (std::fflush(out) != 0 || std::ferror(out)) {
    *error = "cannot save the image: write failed";
    return false;
  }
  return true;
}

bool saveSimImageBytes(const SimDisk& disk, wchar_t driveLetter, std::vector<uint8_t>* out, std::string* error) {
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::tmpfile(), &std::fclose);
  if (!file) {
    *error = "cannot save the image: no temporary file";
    return false;
  }
  if (!saveSimImage(disk, driveLetter, file.get(), error)) return false;
  long size = std::ftell(file.get());
  out->assign(static_cast<size_t>(size > 0 ? size : 0), 0);
  std::rewind(file.get());
  if (std::fread(out->data(), 1, out->size(), file.get()) != out->size()) {
    *error = "cannot save the image: read back failed";
    return false;
  }
  return true;
}

std::unique_ptr<SimDisk> loadSimImage(const VolumeDumpRecord& record, std::string* error) {
  SimGeometry geometry;
  geometry.totalClusters = record.totalClusters;
  geometry.bytesPerCluster = record.bytesPerCluster;
  geometry.label = record.label;
  geometry.fileSystemName = fileSystemNameOf(record.fileSystemType);
  std::unique_ptr<SimDisk> disk;
  try {
    disk = std::make_unique<SimDisk>(geometry);
  } catch (const CDfrgException& e) {
    *error = "image refused: " + e.message;
    return nullptr;
  }
  for (size_t i = 0; i < record.entries.size(); ++i) {
    const VolumeDumpEntry& entry = record.entries[i];
    DWORD result;
    if (entry.isDirectory) {
      result = entry.extents.empty() ? disk->createDirectory(entry.path) : ERROR_INVALID_PARAMETER;
    } else {
      std::vector<SimRun> runs;
      std::vector<uint64_t> breaks;
      uint64_t vcn = 0;
      for (size_t k = 0; k < entry.extents.size(); ++k) {
        const ClusterRange& e = entry.extents[k];
        // An extent that continues the one before it on disk was read in a
        // later reply; keep that reply boundary.
        if (k > 0 && entry.extents[k - 1].end + 1 == e.start) breaks.push_back(vcn);
        runs.push_back(SimRun{vcn, e.start, e.length(), 0});
        vcn += e.length();
      }
      result = disk->placeFile(entry.path, 0, vcn * record.bytesPerCluster, runs, breaks);
    }
    if (result != ERROR_SUCCESS) {
      *error = "image refused: entry " + std::to_string(i + 1) + " \"" + narrow(entry.path) + "\": " + describe(result);
      return nullptr;
    }
  }
  if (!settleBitmap(record, *disk, error)) {
    *error = "image refused: " + *error;
    return nullptr;
  }
  return disk;
}

std::unique_ptr<SimDisk> loadSimImage(const void* data, size_t size, std::string* error, wchar_t* letter) {
  return loadFirstRecord([&] { return readVolumeDump(data, size); }, error, letter);
}

std::unique_ptr<SimDisk> loadSimImage(std::FILE* in, std::string* error, wchar_t* letter) {
  return loadFirstRecord([&] { return readVolumeDump(in); }, error, letter);
}

bool readSimImageLabel(std::FILE* in, std::wstring* label) {
  uint8_t head[10];
  if (std::fread(head, 1, sizeof(head), in) != sizeof(head) || std::string(head, head + 4) != std::string("VDFH")) {
    return false;
  }
  uint32_t n = head[6] | (head[7] << 8) | (head[8] << 16) | (uint32_t{head[9]} << 24);
  if (n > 32767) return false;  // no label is that long
  std::vector<uint8_t> units(2 * size_t{n});
  if (std::fread(units.data(), 1, units.size(), in) != units.size()) return false;
  std::u16string text(n, u'\0');
  for (uint32_t i = 0; i < n; ++i) text[i] = static_cast<char16_t>(units[2 * i] | (units[2 * i + 1] << 8));
  *label = fromUtf16(text);
  return true;
}

}  // namespace glidewell

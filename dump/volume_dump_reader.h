// Reading volume dump files: the inverse of the dump writer
// (dump/volume_dump.h). A dump file is a plain concatenation of volume
// records; each record holds the volume's geometry, its allocation bitmap and
// every directory and file with the cluster ranges it occupies.
//
// The reader trusts nothing in the file. Every count is checked against the
// bytes that remain before anything is allocated for it, and a record that is
// truncated, carries a wrong tag, places an extent outside the volume, lets
// two extents overlap, or lists a path whose directory was not listed before
// it is refused with a VolumeDumpError that names the record, the field and
// the byte offset. Nothing of a refused input is returned.
//
// Format (all integers little-endian, strings UTF-16LE):
//   string  = uint32 n, then n UTF-16 code units and one NUL code unit
//   record  = "VDFH" letter(uint16) label(string) totalClusters(uint64)
//             bytesPerCluster(uint32) fsType(uint8)
//             "BMPB" bitmap(totalClusters / 8 bytes) "BMPE"
//             "EYLH" entryCount(uint64) entry*
//   entry   = path(string) isDirectory(int32: 1 or 0) extentCount(int64)
//             extentCount x (first LCN int64, last LCN int64, inclusive)
#ifndef GLIDEWELL_DUMP_VOLUME_DUMP_READER_H_
#define GLIDEWELL_DUMP_VOLUME_DUMP_READER_H_

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "volume/extent.h"

namespace glidewell {

// One directory or file of a dumped volume.
struct VolumeDumpEntry {
  // Relative to the volume root, without drive letter, ':' and the first '\'
  // ("dir\sub\file.txt"). Components are separated by '\'.
  std::wstring path;
  bool isDirectory = false;
  // Inclusive LCN ranges in the file's VCN order. Empty for directories, for
  // files whose data lives in their file record, and for files the writer
  // could not open (a locked file is dumped with no extents).
  std::vector<ClusterRange> extents;
};

// One volume record.
struct VolumeDumpRecord {
  wchar_t driveLetter = 0;     // as the volume reported it ('C', or 'c')
  std::wstring label;          // the volume label
  uint64_t totalClusters = 0;  // > 0
  uint32_t bytesPerCluster = 0;  // > 0
  // Low byte of the file-system type code: 1 NTFS, 2 FAT16, 3 FAT32, 0xFF unknown.
  uint8_t fileSystemType = 0;
  // totalClusters / 8 bytes (rounded down): bit i of byte k set when cluster
  // 8k + i is in use. The last totalClusters % 8 clusters are not in the
  // bitmap; whoever rebuilds a volume decides them (from the extents, say).
  std::vector<uint8_t> bitmap;
  // Directories and files in walk order: a directory comes before its contents.
  std::vector<VolumeDumpEntry> entries;

  // File-system type widened back to the engine's code (-1 for 0xFF).
  int32_t fileSystemTypeCode() const { return fileSystemType == 0xFF ? -1 : fileSystemType; }
  // The bitmap's bit for an LCN below 8 * (totalClusters / 8).
  bool isClusterUsed(uint64_t lcn) const { return (bitmap[lcn / 8] >> (lcn % 8)) & 1; }
};

// A dump that cannot be read. what() is one line naming the record (1-based),
// the field and the byte offset in the input, for example
// "volume dump, record 1 at byte 6: label is truncated (claims 4000 code units, 12 bytes left)".
class VolumeDumpError : public std::runtime_error {
 public:
  VolumeDumpError(const std::string& message, uint64_t offset) : std::runtime_error(message), offset_(offset) {}
  // Byte offset in the input where the fault was found.
  uint64_t offset() const { return offset_; }

 private:
  uint64_t offset_;
};

// Parses every volume record of a buffer. An empty buffer gives no records.
// Throws VolumeDumpError for any fault; never returns a partial result.
std::vector<VolumeDumpRecord> readVolumeDump(const void* data, size_t size);

// Reads an open stream from its current position to its end and parses it as
// above. The stream's size is taken first, so no more than the stream holds is
// ever allocated. Throws VolumeDumpError also when the stream cannot be read.
std::vector<VolumeDumpRecord> readVolumeDump(std::FILE* file);

// Opens a file through the engine's environment (Env::current(), a Windows
// path such as "C:\images\D.vdf") and parses it. Throws VolumeDumpError when
// the file cannot be opened or read, or is not a valid dump.
std::vector<VolumeDumpRecord> readVolumeDumpFile(const std::wstring& path);

}  // namespace glidewell

#endif  // GLIDEWELL_DUMP_VOLUME_DUMP_READER_H_

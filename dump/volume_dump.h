// The volume dump writer: a diagnostic snapshot of one volume (geometry,
// allocation bitmap, every directory and file with its cluster ranges),
// appended to a dump file as one volume record. The worker writes one record
// per enabled volume when the makeDump setting is on; the simulated disk saves
// its images with the same writer. dump/volume_dump_reader.h reads them back
// and describes the format.
//
// Failed writes of strings and entries end the record with an exception that
// is not a CDfrgException (the worker decides what to do with the rest of the
// file):
//   - the label or a path: std::wstring starting with "Error writing string";
//   - an entry's isDirectory or extent count: std::string "Error writing Entry";
//   - an extent: std::string "Error writing lStart".
// The tags, the header numbers and the bitmap writes are not checked.
#ifndef GLIDEWELL_DUMP_VOLUME_DUMP_H_
#define GLIDEWELL_DUMP_VOLUME_DUMP_H_

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace glidewell {

class CVolumeContext;
class CVolumeSystem;

// One entry of the list built before anything of the entries is written.
struct DumpEntry {
  std::wstring path;        // full path ("C:\dir\file")
  int32_t isDirectory;      // 1 directory, 0 file
  int64_t extentCount;      // 0 for directories, -1 for files until written
};

// Writes one volume record of the context's volume to the stream.
void writeVolumeDump(std::FILE* file, CVolumeContext* ctx);

// Appends the directories and files below dir ("C:" for the root) in
// enumeration order, a directory before its contents. Reparse points
// (junctions, mount points) are neither listed nor entered.
void getFileList(CVolumeSystem& volume, const std::wstring& dir, std::vector<DumpEntry>& out);

// Writes the entries: path relative to the root, isDirectory, extent count and
// each extent's first and last LCN. A file that cannot be opened is written
// with no extents.
// (The name, spelling included, is the one the dump's log lines carry.)
void writeEntrys(CVolumeContext* ctx, std::FILE* file, std::vector<DumpEntry>& entries);

}  // namespace glidewell

#endif  // GLIDEWELL_DUMP_VOLUME_DUMP_H_

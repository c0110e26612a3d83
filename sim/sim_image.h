// Disk images: a simulated disk saved as one record of the engine's volume
// dump format, and rebuilt from such a record. The engine's own dump writer,
// run over a SimVolumeSystem of the disk, is the one writer of the format, so
// a dump taken on a Windows machine replays here and an image saved here reads
// like any dump.
//
// A dump carries no attributes and no contents, so a loaded disk has plain
// files with fresh content tags, every cluster that is in use but owned by no
// file becomes the file system's, and a file whose extents continue each
// other on disk (its map was read in several replies) keeps those replies
// apart (see SimNode::recordBreaks). Saving a loaded disk gives back the
// bytes it was loaded from.
#ifndef GLIDEWELL_SIM_SIM_IMAGE_H_
#define GLIDEWELL_SIM_SIM_IMAGE_H_

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "dump/volume_dump_reader.h"
#include "sim/sim_disk.h"

namespace glidewell {

// Appends the disk, as drive driveLetter, to the stream as one volume record.
// The disk is copied first, so it may change meanwhile. False with *error
// when the writer fails.
bool saveSimImage(const SimDisk& disk, wchar_t driveLetter, std::FILE* out, std::string* error);
// The same record as bytes.
bool saveSimImageBytes(const SimDisk& disk, wchar_t driveLetter, std::vector<uint8_t>* out, std::string* error);

// Rebuilds a disk from a record. Null with *error (one line) when the record
// cannot be a volume: a bad geometry, files whose extents lie on clusters the
// bitmap calls free, names a volume cannot hold.
std::unique_ptr<SimDisk> loadSimImage(const VolumeDumpRecord& record, std::string* error);
// Reads the first record of an image (bytes or a stream to its end). *letter,
// when given, receives the record's drive letter.
std::unique_ptr<SimDisk> loadSimImage(const void* data, size_t size, std::string* error, wchar_t* letter = nullptr);
std::unique_ptr<SimDisk> loadSimImage(std::FILE* in, std::string* error, wchar_t* letter = nullptr);

// The label of an image from its first bytes, without reading the rest.
bool readSimImageLabel(std::FILE* in, std::wstring* label);

}  // namespace glidewell

#endif  // GLIDEWELL_SIM_SIM_IMAGE_H_

// Readers and writers of the small binary state files in the state directory
// (the resume info, the change tracking state): little-endian int32 and int64,
// one-byte bools, and "ustrings" (an int32 count of UTF-16 code units, then the
// units, no terminator).
//
// The reader knows how many bytes are left in the file, so a count read from
// the file is checked against them before anything is allocated for it: a
// short, damaged or hostile file fails a read, it never makes us allocate what
// it claims. Every read and write reports success; the caller decides what a
// failure means.
#ifndef GLIDEWELL_CONFIG_STATE_FILE_H_
#define GLIDEWELL_CONFIG_STATE_FILE_H_

#include <cstdint>
#include <memory>
#include <string>

#include "platform/env.h"

namespace glidewell {

class StateFileReader {
 public:
  // Opens path for reading (others may read; it must exist). ok() tells
  // whether it could be opened and its size read.
  explicit StateFileReader(const std::wstring& path);
  bool ok() const { return file_ != nullptr; }
  uint64_t remaining() const { return remaining_; }

  bool readInt32(int32_t* v);
  bool readInt64(int64_t* v);
  bool readBool(bool* v);
  // The text ends at its first NUL unit, if it holds one.
  bool readString(std::wstring* s);
  // The code units as they stand, NULs included.
  bool readUtf16(std::u16string* units);
  // A count of items that take at least minBytesEach bytes each: false when it
  // is negative or more than the rest of the file could hold.
  bool readCount(int32_t* count, uint32_t minBytesEach);

 private:
  bool readBytes(void* buffer, uint32_t n);

  std::unique_ptr<File> file_;
  uint64_t remaining_ = 0;
};

class StateFileWriter {
 public:
  // Creates path, replacing an existing file (write access, no sharing).
  explicit StateFileWriter(const std::wstring& path);
  bool ok() const { return file_ != nullptr; }

  // Each is false when not all bytes were written.
  bool writeInt32(int32_t v);
  bool writeInt64(int64_t v);
  bool writeBool(bool v);
  bool writeString(const std::wstring& s);
  bool writeUtf16(const std::u16string& units);

 private:
  bool writeBytes(const void* buffer, uint32_t n);

  std::unique_ptr<File> file_;
};

}  // namespace glidewell

#endif  // GLIDEWELL_CONFIG_STATE_FILE_H_

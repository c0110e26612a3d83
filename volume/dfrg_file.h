// CDfrgFile: a file opened for extent queries and moves.
#ifndef GLIDEWELL_VOLUME_DFRG_FILE_H_
#define GLIDEWELL_VOLUME_DFRG_FILE_H_

#include <cstdint>
#include <string>

#include "platform/wintypes.h"
#include "volume/extent.h"

namespace glidewell {

class CVolumeContext;
class CVolumeSystem;

class CDfrgFile {
 public:
  // Opens the file through the context's volume. A name whose second character
  // is ':' is a full path; any other name is taken relative to the volume root.
  // Throws CDfrgException(<Win32 error>, "Couldn't open file <path>") on failure.
  CDfrgFile(CVolumeContext& context, const std::wstring& name, bool isDirectory);
  virtual ~CDfrgFile();
  CDfrgFile(const CDfrgFile&) = delete;
  CDfrgFile& operator=(const CDfrgFile&) = delete;

  // Replaces the list with the file's extents read from its retrieval pointers.
  // True on success (an empty list for a file with no clusters of its own);
  // false when the map cannot be read or has a shape the engine does not
  // handle. May throw the stop exception between replies, and
  // CDfrgException(87) for an inconsistent reply.
  bool getFileExtents(ExtentList& extents);

  // 16 for compressed or sparse files (moves go in whole compression units), else 1.
  uint64_t getMoveGranularity() const;

  CVolumeContext& context() const { return context_; }
  CVolumeSystem& volume() const;
  HANDLE handle() const { return handle_; }
  DWORD attributes() const { return attributes_; }
  const std::wstring& path() const { return path_; }

 private:
  CVolumeContext& context_;
  std::wstring path_;
  HANDLE handle_ = INVALID_HANDLE_VALUE;
  DWORD attributes_ = INVALID_FILE_ATTRIBUTES;
};

}  // namespace glidewell

#endif  // GLIDEWELL_VOLUME_DFRG_FILE_H_

#include "volume/dfrg_file.h"

#include <algorithm>
#include <cstring>

#include "volume/volume_context.h"
#include "engine/dfrg_exception.h"
#include "logging/logger.h"
#include "platform/text.h"
#include "volume/volume_system.h"

namespace glidewell {

namespace {

// One FSCTL_GET_RETRIEVAL_POINTERS reply: the 16-byte header and 256 entries.
constexpr DWORD kRetrievalEntries = 256;
constexpr DWORD kRetrievalHeaderBytes = 16;
constexpr DWORD kRetrievalBufferBytes = kRetrievalHeaderBytes + 16 * kRetrievalEntries;  // 4112

bool isCompressedOrSparse(DWORD attributes) {
  return attributes != INVALID_FILE_ATTRIBUTES &&
         (attributes & (FILE_ATTRIBUTE_COMPRESSED | FILE_ATTRIBUTE_SPARSE_FILE)) != 0;
}

uint32_t readU32(const uint8_t* p) {
  uint32_t v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

uint64_t readU64(const uint8_t* p) {
  uint64_t v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

}  // namespace

CDfrgFile::CDfrgFile(CVolumeContext& context, const std::wstring& name, bool isDirectory) : context_(context) {
  CVolumeSystem& vol = context.volume();
  if (name.size() >= 2 && name[1] == L':') {
    path_ = name;
  } else {
    path_ = std::wstring(1, vol.getDriveLetter()) + L":\\" + name;
  }
  attributes_ = vol.getFileAttributes(path_);
  DWORD access = FILE_READ_ATTRIBUTES;
  // Moving an encrypted file needs read access to its data as well.
  if (attributes_ != INVALID_FILE_ATTRIBUTES && (attributes_ & FILE_ATTRIBUTE_ENCRYPTED) != 0) {
    access |= FILE_READ_DATA;
  }
  DWORD flags = isDirectory ? FILE_FLAG_BACKUP_SEMANTICS : FILE_FLAG_NO_BUFFERING;
  handle_ = vol.createFile(path_, access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                           OPEN_EXISTING, flags, nullptr);
  if (handle_ == INVALID_HANDLE_VALUE) {
    DWORD error = GetLastError();
    throw CDfrgException(static_cast<int>(error), "Couldn't open file " + narrow(path_));
  }
}

CDfrgFile::~CDfrgFile() {
  if (handle_ != INVALID_HANDLE_VALUE) context_.volume().closeHandle(handle_);
}

CVolumeSystem& CDfrgFile::volume() const { return context_.volume(); }

uint64_t CDfrgFile::getMoveGranularity() const { return isCompressedOrSparse(attributes_) ? 16 : 1; }

bool CDfrgFile::getFileExtents(ExtentList& extents) {
  Logger log("getFileExtents");
  CVolumeSystem& vol = context_.volume();
  bool result = true;
  extents.clear();
  bool hasSubRuns = isCompressedOrSparse(attributes_);

  alignas(8) uint8_t buffer[kRetrievalBufferBytes];
  int64_t startingVcn = 0;
  for (;;) {
    DWORD returned = 0;
    BOOL ok = vol.getRetrievalPointers(handle_, &startingVcn, buffer, sizeof buffer, &returned);
    DWORD error = ok ? ERROR_SUCCESS : GetLastError();
    if (!ok && error == ERROR_HANDLE_EOF) return result;  // no clusters of its own
    if (!ok && error != ERROR_MORE_DATA) return false;

    // Never trust the count beyond what the reply actually holds.
    DWORD count = 0;
    if (returned >= kRetrievalHeaderBytes) {
      DWORD held = std::min<DWORD>(returned, sizeof buffer);
      count = std::min<DWORD>(readU32(buffer), (held - kRetrievalHeaderBytes) / 16);
    }
    const uint8_t* entry = buffer + kRetrievalHeaderBytes;
    if (count > 0 && readU64(entry + 8) == kNoCluster) return false;  // may not begin with a virtual run

    uint64_t startVcn = readU64(buffer + 8);
    for (DWORD k = 0; k < count; ++k, entry += 16) {
      uint64_t nextVcn = readU64(entry);
      uint64_t lcn = readU64(entry + 8);
      if (k > 0 && nextVcn == 0) {
        log.log(kLogDebug) << "The File has a not first Zero VCN entry !"
                           << LogProperty("FileSystem", fileSystemName(vol.getFileSystemType()));
        return false;
      }
      ClusterRange vcnRange(startVcn, nextVcn - 1);  // throws 87 for an inconsistent reply
      uint64_t len = vcnRange.length();
      if (lcn == kNoCluster) {
        // A virtual run lengthens the last extent's VCN range and its last
        // sub-run; it never occupies clusters.
        if (!hasSubRuns) {
          if (extents.empty()) return false;
          Extent& last = extents.back();
          last.addSubRun(last.vcn.length(), last.vcn.length());
          hasSubRuns = true;
        }
        Extent& last = extents.back();
        if (last.vcn.end + 1 != startVcn) {
          uint64_t gap = startVcn - last.vcn.end - 1;
          last.growVcnEnd(gap);
          last.growLastSubRun(gap, 0);
        }
        last.growVcnEnd(len);
        last.growLastSubRun(len, 0);
      } else if (k > 0 && !extents.empty() && extents.back().lcn.end != kNoCluster &&
                 extents.back().lcn.end + 1 == lcn) {
        // Continues the previous run of this reply on disk. Runs are merged only
        // within one reply, so a run continuing across two replies starts anew.
        Extent& last = extents.back();
        last.growBoth(len);
        if (hasSubRuns) last.addSubRun(len, len);
      } else {
        Extent ext(vcnRange, ClusterRange(lcn, lcn + len - 1));
        if (hasSubRuns) ext.addSubRun(len, len);
        extents.push_back(std::move(ext));
      }
      startingVcn = static_cast<int64_t>(nextVcn);
      startVcn = nextVcn;
    }
    if (ok) return result;
    // A reply that asks for more but made no progress would loop for ever.
    if (count == 0) return false;
    context_.checkState();
  }
}

}  // namespace glidewell

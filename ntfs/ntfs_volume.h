// NtfsVolume: an unmounted NTFS volume (an image file or a block device)
// opened for defragmentation through libntfs-3g.
//
// It offers what CVolumeSystem needs, in the volume's own terms: geometry,
// bytes of $Bitmap, directory entries in index order, the runs of a file's
// unnamed data stream, and moves of a file's clusters (NtfsMover). Results
// are Win32 error numbers (kNtfsOk, 2, 3, 5, 87, ...), never exceptions.
//
// libntfs-3g is not thread safe: every public method takes the volume's lock,
// so several CVolumeSystem objects may share one NtfsVolume.
#ifndef GLIDEWELL_NTFS_NTFS_VOLUME_H_
#define GLIDEWELL_NTFS_NTFS_VOLUME_H_

#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "ntfs/device_file.h"

struct _ntfs_volume;

namespace glidewell {

// The Win32 error numbers this layer answers with (the values of winerror.h;
// the library's headers and wintypes.h cannot meet in one file).
enum NtfsError : uint32_t {
  kNtfsOk = 0,
  kNtfsFileNotFound = 2,
  kNtfsPathNotFound = 3,
  kNtfsAccessDenied = 5,
  kNtfsWriteFault = 29,
  kNtfsReadFault = 30,
  kNtfsSharingViolation = 32,
  kNtfsHandleEof = 38,
  kNtfsInvalidParameter = 87,
};

// Win32 file attributes (FILE_ATTRIBUTE_*), as NTFS stores them.
enum NtfsAttribute : uint32_t {
  kNtfsAttrDirectory = 0x10,
  kNtfsAttrNormal = 0x80,
  kNtfsAttrSparse = 0x200,
  kNtfsAttrReparse = 0x400,
  kNtfsAttrCompressed = 0x800,
  kNtfsAttrEncrypted = 0x4000,
};

// One name in a directory index.
struct NtfsName {
  std::u16string name;
  uint64_t mftNo = 0;
  bool directory = false;
};

// What a directory listing shows of a file or directory.
struct NtfsFileInfo {
  uint64_t mftNo = 0;
  uint32_t attributes = 0;  // Win32 attributes
  uint64_t size = 0;        // of the unnamed data stream; 0 for directories
  bool directory = false;
};

// One run of a data stream: lcn -1 for a hole (sparse or compressed-away clusters).
struct NtfsRun {
  int64_t vcn = 0;
  int64_t lcn = -1;
  int64_t length = 0;
};

// The cluster map of a file's unnamed data stream.
struct NtfsStreamMap {
  bool nonResident = false;  // false: the data lives in the file record, no clusters
  uint64_t vcnCount = 0;     // clusters the stream spans (allocated size)
  uint32_t unitClusters = 0; // compression unit in clusters; 0 when not compressed
  std::vector<NtfsRun> runs; // in VCN order, adjacent runs merged
};

// When pending moves are committed before the volume is closed (see
// NtfsMover): once the data waiting in memory, the file records waiting to
// be written or the extents the moves left pass these. Every commit costs
// two flushes; every extent left costs a little on each read of the bitmap.
struct NtfsCommitLimits {
  size_t heldBytes = size_t{64} << 20;
  size_t records = 256;
  size_t leftExtents = 4096;
};

class NtfsMover;
class NtfsDevice;

class NtfsVolume {
 public:
  struct Options {
    NtfsCommitLimits limits;
    DeviceFileWrapper wrapFile;  // tests: a layer over the device file
  };

  // Opens the volume at path for reading and writing after the safety checks:
  // NTFS boot sector, not mounted anywhere (block devices are opened
  // exclusively), not marked dirty, not hibernated, journal clean. On refusal
  // returns null with one line in *error and nothing written.
  static std::unique_ptr<NtfsVolume> open(const std::string& path, std::string* error,
                                          Options options = Options());
  ~NtfsVolume();  // commits the pending moves and unmounts
  NtfsVolume(const NtfsVolume&) = delete;
  NtfsVolume& operator=(const NtfsVolume&) = delete;

  const std::string& path() const { return path_; }
  uint64_t totalClusters() const { return totalClusters_; }
  uint32_t bytesPerCluster() const { return clusterSize_; }
  uint32_t bytesPerSector() const { return sectorSize_; }
  uint32_t serialNumber() const { return serial_; }
  const std::u16string& label() const { return label_; }

  // Copies count bytes of $Bitmap from byte first (cluster 8 * first); bytes
  // past the volume read as 0, and clusters that moves not yet committed left
  // read as free. kNtfsOk or kNtfsReadFault.
  uint32_t readBitmap(uint64_t first, size_t count, uint8_t* out);
  uint64_t freeClusters();

  static constexpr uint64_t kRootMft = 5;
  // The names of a directory in index (collation) order, without DOS names,
  // "." and "..", or the metafiles of the root.
  uint32_t listNames(uint64_t dirMft, std::vector<NtfsName>* names);
  // Follows the components from the root: an exact name first, else the one
  // name equal to it without regard to case, as Windows would open it.
  // kNtfsFileNotFound (last component), kNtfsPathNotFound (a directory on the
  // way), kNtfsAccessDenied (a metafile).
  uint32_t lookup(const std::vector<std::u16string>& components, uint64_t* mftNo);
  uint32_t fileInfo(uint64_t mftNo, NtfsFileInfo* info);
  // The runs after every move made, committed or not.
  uint32_t streamMap(uint64_t mftNo, NtfsStreamMap* map);
  // Moves clusters [vcn, vcn + count) of the file's unnamed data stream to
  // lcn (see NtfsMover). The volume shows the move at once; it is durable
  // after the next commit.
  uint32_t moveClusters(uint64_t mftNo, int64_t vcn, int64_t lcn, uint32_t count);

  // A name upper-cased through the volume's $UpCase table.
  std::u16string upcase(const std::u16string& name);

  // Metafiles ($MFT ... $Extend and the reserved records) are never listed
  // nor moved.
  static bool isMetafile(uint64_t mftNo) { return mftNo < 24 && mftNo != kRootMft; }

 private:
  NtfsVolume(std::string path, std::unique_ptr<NtfsDevice> device, _ntfs_volume* vol, const NtfsCommitLimits& limits);
  uint32_t listNamesLocked(uint64_t dirMft, const std::vector<NtfsName>** names);

  std::mutex mutex_;
  std::string path_;
  std::unique_ptr<NtfsDevice> device_;  // outlives the mount
  _ntfs_volume* vol_;
  std::unique_ptr<NtfsMover> mover_;
  uint64_t totalClusters_ = 0;
  uint32_t clusterSize_ = 0;
  uint32_t sectorSize_ = 0;
  uint32_t serial_ = 0;
  std::u16string label_;
  // The last directories listed: the engine lists a directory, then opens
  // each of its entries by path.
  std::list<std::pair<uint64_t, std::vector<NtfsName>>> recentDirs_;
};

}  // namespace glidewell

#endif  // GLIDEWELL_NTFS_NTFS_VOLUME_H_

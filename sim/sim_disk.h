// SimDisk: an in-memory NTFS-like volume, the stand-in for a real drive on
// Linux and the ground truth of every engine test.
//
// It has a geometry, an allocation bitmap, clusters that the file system owns
// itself (never movable, never listed), and a directory tree of files made of
// VCN -> LCN runs, with the attributes directory, compressed, sparse,
// encrypted and reparse point. Compressed and sparse files are stored in
// 16-cluster compression units: a unit that compresses keeps fewer clusters
// than it covers and the rest of it is a virtual run; a sparse hole is a
// virtual run of whole units.
//
// The engine reaches a disk through SimVolumeSystem handles (several may be
// open at once); "users" change it at the same time through the file
// operations below, which allocate like NTFS and notify change watchers.
// Every stored cluster carries a content tag; moves copy the tags, and
// verify() proves that nothing was lost.
//
// Thread safety: every public operation is atomic with respect to the others
// (one lock guards the whole disk). Change watchers are called after that lock
// is released, in the order of the changes.
//
// Paths are relative to the volume root ("dir\file"); "/" separates as well,
// doubled separators are harmless. Errors are Win32 numbers; 0 means success.
#ifndef GLIDEWELL_SIM_SIM_DISK_H_
#define GLIDEWELL_SIM_SIM_DISK_H_

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/wintypes.h"
#include "sim/sim_allocator.h"
#include "sim/sim_bitmap.h"
#include "sim/sim_node.h"
#include "sim/sim_notify.h"

namespace glidewell {

struct SimGeometry {
  uint64_t totalClusters = 0;
  uint32_t bytesPerCluster = 4096;
  std::wstring label = L"Simulated";
  std::wstring fileSystemName = L"NTFS";
  uint32_t serialNumber = 0x1D0C5EED;
};

// A file as the disk holds it (for tests, statistics and images).
struct SimFileInfo {
  std::wstring path;
  DWORD attributes = 0;
  uint64_t size = 0;
  std::vector<SimRun> runs;
};

// One line of a directory listing.
struct SimDirEntry {
  std::u16string name;
  DWORD attributes;
  uint64_t size;
};

struct SimStats {
  uint64_t files = 0;
  uint64_t directories = 0;
  uint64_t fragmentedFiles = 0;  // files stored in more than one place
  uint64_t fragments = 0;        // places that hold file data, over all files
  uint64_t fileClusters = 0;
  uint64_t systemClusters = 0;
  uint64_t freeClusters = 0;
  uint64_t freeRuns = 0;
  uint64_t largestFreeRun = 0;
};

class SimDisk {
 public:
  // An empty volume: no file-system clusters, an empty root directory. The
  // geometry needs at least one cluster and a power-of-two cluster size of at
  // least 512 bytes; CDfrgException(87) otherwise.
  explicit SimDisk(const SimGeometry& geometry);
  ~SimDisk();
  SimDisk(const SimDisk&) = delete;
  SimDisk& operator=(const SimDisk&) = delete;

  // A consistent copy of the volume as it is now: geometry, bitmap,
  // file-system clusters, tree, files and tags, locks. Faults, watchers and
  // files deleted while open are not copied. (Images are saved from a copy, so
  // users may go on changing the disk meanwhile.)
  std::unique_ptr<SimDisk> clone() const;

  // --- Geometry ---
  SimGeometry geometry() const;
  uint64_t totalClusters() const { return total_; }
  uint32_t bytesPerCluster() const { return bytesPerCluster_; }
  void setLabel(const std::wstring& label);
  uint64_t freeClusters() const;
  // Grows with every change of content or layout (not with faults or locks).
  uint64_t generation() const;

  // --- Clusters of the file system itself (boot sectors, MFT, log...) ---
  // Takes free clusters for the file system; 87 when any is not free.
  DWORD reserveSystemClusters(uint64_t lcn, uint64_t count);
  std::vector<SimPiece> systemRanges() const;
  // The allocator leaves [start, end) alone until nothing else is free.
  void setReservedZone(uint64_t start, uint64_t end);

  // --- User activity (notifies watchers) ---
  // 3: missing parent; 80: name exists; 123: invalid name; 112: disk full.
  // attributes may add hidden, system, compressed and reparse point (a
  // junction: listed, never entered by the engine).
  DWORD createDirectory(const std::wstring& path, DWORD attributes = 0);
  // A file of the given size, allocated like NTFS. attributes may add
  // compressed, sparse, encrypted, reparse point, read-only, hidden, system.
  DWORD createFile(const std::wstring& path, uint64_t bytes, DWORD attributes = 0);
  DWORD appendFile(const std::wstring& path, uint64_t bytes);
  DWORD truncateFile(const std::wstring& path, uint64_t bytes);
  // A file or an empty directory (145 when not empty, 32 when locked).
  DWORD deleteFile(const std::wstring& path);
  DWORD renameFile(const std::wstring& from, const std::wstring& to);
  // A file whose runs are given (images, tests): stored runs must be free
  // and inside the volume, virtual runs only for compressed or sparse files,
  // VCNs consecutive from 0. Tags are given fresh. recordBreaks: VCNs where a
  // retrieval-pointer reply ends (see SimNode). 87 for a bad layout.
  DWORD placeFile(const std::wstring& path, DWORD attributes, uint64_t bytes, const std::vector<SimRun>& runs,
                  const std::vector<uint64_t>& recordBreaks = {});

  // --- Queries ---
  DWORD fileInfo(const std::wstring& path, SimFileInfo* info) const;
  // Every file and directory in walk order (directory order, a directory
  // before its contents); directories have no runs.
  std::vector<SimFileInfo> listAll() const;
  SimStats stats() const;
  // The whole bitmap, ceil(totalClusters / 8) bytes.
  std::vector<uint8_t> bitmapBytes() const;

  // --- Proof of no data loss ---
  // Checks that every file reads back its own content in VCN order, that the
  // runs are well formed, and that the bitmap is exactly the union of the
  // files' clusters and the file system's, without overlap. Returns "" when
  // all holds, else a description of the first problem found.
  std::string verify() const;
  // Overwrites the content tag of one stored cluster (tests use it to show
  // that verify() notices). 2: no such file; 87: the VCN is not stored.
  DWORD corruptTag(const std::wstring& path, uint64_t vcn);

  // --- Fault injection ---
  // After `after` more moves, refuse the next `count` moves with error.
  void failMoves(uint32_t count, DWORD error, uint32_t after = 0);
  // Locked files fail to open with 32; denied ones with 5. 2 when missing.
  DWORD setLocked(const std::wstring& path, bool locked);
  DWORD setAccessDenied(const std::wstring& path, bool denied);
  // A vanished volume refuses new opens (of the volume and of its files).
  void setVanished(bool vanished);
  bool vanished() const;
  // Bitmap reads that start at or after lcn fail with error (kNoCluster: never).
  void failBitmapFrom(uint64_t lcn, DWORD error = ERROR_READ_FAULT);

  // --- Change watchers (see sim_notify.h) ---
  uint64_t addChangeWatcher(DWORD filter, ChangeWatcher watcher);
  void removeChangeWatcher(uint64_t id);

  // --- The controls, for SimVolumeSystem ---
  // Opens a file or directory (directories only with backup semantics). The
  // empty path is the root. 2, 3, 5 or 32 on failure.
  DWORD openNode(const std::wstring& path, bool backupSemantics, std::shared_ptr<SimNode>* node) const;
  DWORD attributesOf(const std::wstring& path, DWORD* attributes) const;
  // 5 for a file deleted while open.
  DWORD sizeOf(const SimNode& node, int64_t* size) const;
  // The entries of a directory that match pattern, in directory order, with
  // "." and ".." first in sub-directories. 3: no such directory; 2: no match.
  DWORD listDirectory(const std::wstring& dir, const std::u16string& pattern, std::vector<SimDirEntry>* out) const;
  // FSCTL_GET_VOLUME_BITMAP into a VOLUME_BITMAP_BUFFER.
  DWORD readBitmap(int64_t startingLcn, void* buffer, DWORD bufferSize, DWORD* bytesReturned) const;
  // FSCTL_GET_RETRIEVAL_POINTERS into a RETRIEVAL_POINTERS_BUFFER.
  DWORD readRetrievalPointers(const SimNode& node, int64_t startingVcn, void* buffer, DWORD bufferSize,
                              DWORD* bytesReturned) const;
  // FSCTL_MOVE_FILE. mayReadData: the handle was opened with read-data access
  // (needed for encrypted files).
  DWORD moveClusters(SimNode& node, bool mayReadData, int64_t startingVcn, int64_t startingLcn, uint32_t count);

 private:
  struct Resolved {
    SimNode* parent = nullptr;  // the directory that holds (or would hold) the leaf; null for the root
    SimNode* node = nullptr;    // null when the leaf does not exist
    std::u16string leaf;        // empty for the root
  };
  // 3 when a directory on the way is missing, 123 for an invalid name.
  DWORD resolve(const std::wstring& path, Resolved* out) const;
  std::u16string pathOf(const SimNode& node) const;
  void notify(const SimNode& node, DWORD action);
  // Resizes a file's data to newSize bytes: frees or allocates clusters,
  // re-lays the compression unit at the boundary. 112 when the disk is full
  // (then nothing changed).
  DWORD resize(SimNode& node, uint64_t newSize);
  void freeRunsFrom(SimNode& node, uint64_t vcn);
  uint64_t storedForUnit(const SimNode& node, uint64_t unit, uint64_t unitLength) const;
  void layoutUnits(SimNode& node, uint64_t fromVcn, uint64_t toVcn, const std::vector<SimPiece>& pieces);
  std::shared_ptr<SimNode> makeNode(const std::u16string& name, DWORD attributes);
  // Counts the move against the injected faults and checks what does not
  // depend on the target; *end receives the VCN after the range moved.
  DWORD checkMove(const SimNode& node, bool mayReadData, int64_t vcn, int64_t lcn, uint32_t count, uint64_t* end);
  // "" or the first problem of one file or directory; marks its clusters in seen.
  std::string verifyNode(const SimNode& node, SimBitmap& seen, const std::wstring& path) const;

  const uint64_t total_;
  const uint32_t bytesPerCluster_;
  mutable std::mutex mutex_;
  std::wstring label_;
  std::wstring fileSystemName_;
  uint32_t serial_;
  SimBitmap bitmap_;
  SimAllocator allocator_;
  std::map<uint64_t, uint64_t> systemRanges_;  // start -> length
  std::shared_ptr<SimNode> root_;
  uint64_t nextFileId_ = 1;
  uint64_t generation_ = 0;

  struct Faults {
    uint32_t movesToSkip = 0;
    uint32_t movesToFail = 0;
    DWORD moveError = 0;
    bool vanished = false;
    uint64_t bitmapFailFrom = kNoCluster;
    DWORD bitmapError = 0;
  } faults_;

  SimNotifier notifier_;
};

}  // namespace glidewell

#endif  // GLIDEWELL_SIM_SIM_DISK_H_

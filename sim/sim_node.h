// The files and directories of a simulated disk.
//
// A file's data is a list of runs in VCN order that covers VCN 0 up to its
// cluster count without gaps. A stored run maps VCNs to consecutive LCNs; a
// virtual run (compressed units that need fewer clusters, sparse holes) has
// no clusters. Every stored cluster carries a content tag: cluster i of a run
// holds tag + i, and a file that lost nothing holds tagBase + v at VCN v.
//
// Nodes are shared (open handles keep a removed file alive) but only read or
// changed under the lock of the disk that owns them.
#ifndef GLIDEWELL_SIM_SIM_NODE_H_
#define GLIDEWELL_SIM_SIM_NODE_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/wintypes.h"
#include "volume/extent.h"

namespace glidewell {

// Compressed and sparse files are stored and moved in units of 16 clusters.
constexpr uint64_t kCompressionUnit = 16;
// Files up to this many bytes live inside their file record and own no clusters.
constexpr uint64_t kResidentLimit = 700;

struct SimRun {
  uint64_t vcn = 0;
  uint64_t lcn = kNoCluster;  // kNoCluster: a virtual run
  uint64_t length = 0;
  uint64_t tag = 0;           // content tag of the first cluster (stored runs)

  bool isVirtual() const { return lcn == kNoCluster; }
  uint64_t vcnEnd() const { return vcn + length; }  // exclusive
  bool operator==(const SimRun& o) const {
    return vcn == o.vcn && lcn == o.lcn && length == o.length && (isVirtual() || tag == o.tag);
  }
};

// Appends a run, merging it into the last one when it continues it: a virtual
// run after a virtual run, or a stored run that follows on disk with the
// next tags.
void appendRun(std::vector<SimRun>& runs, const SimRun& run);
// The index of the run that holds vcn; runs.size() when none does.
size_t findRun(const std::vector<SimRun>& runs, uint64_t vcn);
// The parts of the runs inside [from, to), cut at the range's ends.
std::vector<SimRun> sliceRuns(const std::vector<SimRun>& runs, uint64_t from, uint64_t to);
uint64_t storedClusters(const std::vector<SimRun>& runs);
// The number of places on disk that hold the file: stored runs, with runs that
// continue each other on disk counted once.
uint64_t countFragments(const std::vector<SimRun>& runs);

struct SimNode {
  std::u16string name;
  DWORD attributes = 0;        // FILE_ATTRIBUTE_* as GetFileAttributesW reports them
  SimNode* parent = nullptr;   // null for the root and for removed nodes
  uint64_t size = 0;           // bytes
  uint64_t tagBase = 0;
  uint64_t layoutSeed = 0;     // decides how well each compression unit compresses
  bool resident = true;        // data inside the file record (no clusters)
  bool locked = false;         // opens fail with a sharing violation
  bool accessDenied = false;   // opens fail with access denied
  bool removed = false;        // deleted while a handle was open
  std::vector<SimRun> runs;
  // VCNs at which the file's map continues in another file record: a
  // retrieval-pointer reply ends there. Only images set them (to replay a map
  // read in several replies exactly); a move or resize forgets them.
  std::vector<uint64_t> recordBreaks;
  std::vector<std::shared_ptr<SimNode>> children;  // directories: in directory order

  bool isDirectory() const { return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0; }
  // Compressed and sparse files keep compression units.
  bool hasUnits() const { return (attributes & (FILE_ATTRIBUTE_COMPRESSED | FILE_ATTRIBUTE_SPARSE_FILE)) != 0; }
  uint64_t vcnCount() const { return runs.empty() ? 0 : runs.back().vcnEnd(); }
  // The child of that name, or null.
  SimNode* child(const std::u16string& name) const;
  std::shared_ptr<SimNode> sharedChild(const std::u16string& name) const;
  // Inserts a child in directory order (the name must be new).
  void addChild(std::shared_ptr<SimNode> node);
  // Removes the child and returns it.
  std::shared_ptr<SimNode> takeChild(const SimNode* node);

 private:
  const std::shared_ptr<SimNode>* findChild(const std::u16string& name) const;
};

}  // namespace glidewell

#endif  // GLIDEWELL_SIM_SIM_NODE_H_

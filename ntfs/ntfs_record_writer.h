// Writing a new runlist into the MFT records of a file's unnamed data stream
// so that a crash between any two of the writes leaves a readable file.
#ifndef GLIDEWELL_NTFS_NTFS_RECORD_WRITER_H_
#define GLIDEWELL_NTFS_NTFS_RECORD_WRITER_H_

#include <cstdint>
#include <vector>

#include "ntfs/ntfs_volume.h"

struct _ntfs_volume;

namespace glidewell {

// Points the records of file mftNo at runs (the same VCNs, the same holes;
// only the clusters differ). Each record keeps the VCNs it covers and gets
// mapping pairs of its own, so the records stand alone whatever order they
// reach the disk in. When a record has no room for its new mapping pairs,
// the library lays the records out afresh and *repacked is set: then, with
// an attribute list, no order of the writes is safe at every instant. False
// when the records could not be written.
bool writeStreamRuns(_ntfs_volume* vol, uint64_t mftNo, const std::vector<NtfsRun>& runs, bool* repacked);

}  // namespace glidewell

#endif  // GLIDEWELL_NTFS_NTFS_RECORD_WRITER_H_

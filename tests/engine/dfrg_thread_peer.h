// Access to a worker's private state for the engine's tests: contexts built
// over small simulated volumes, and the pass state the resume info carries.
#ifndef GLIDEWELL_TESTS_ENGINE_DFRG_THREAD_PEER_H_
#define GLIDEWELL_TESTS_ENGINE_DFRG_THREAD_PEER_H_

#include <memory>
#include <string>
#include <vector>

#include "engine/dfrg_thread.h"
#include "sim/sim_disk.h"
#include "sim/sim_volume_system.h"

namespace glidewell {

class DfrgThreadTestPeer {
 public:
  static void addVolume(DfrgThread& t, wchar_t letter, CDfrgConfig* config) {
    SimGeometry g;
    g.totalClusters = 64;
    auto volume = std::make_unique<SimVolumeSystem>(std::make_shared<SimDisk>(g), letter);
    t.contexts_.push_back(std::make_unique<CDfrgContext>(std::move(volume), static_cast<int>(t.contexts_.size()), config));
  }
  static CDfrgContext& context(DfrgThread& t, size_t i) { return *t.contexts_[i]; }

  static PassCounters& counters(DfrgThread& t) { return t.counters_; }
  static std::vector<std::wstring>& deferred(DfrgThread& t) { return t.deferred_; }
  static bool& deferredOverflow(DfrgThread& t) { return t.deferredOverflow_; }
  static std::wstring& resumePath(DfrgThread& t) { return t.resumePath_; }
  static bool& scanInProgress(DfrgThread& t) { return t.scanInProgress_; }
  static bool& reactInProgress(DfrgThread& t) { return t.reactInProgress_; }
};

}  // namespace glidewell

#endif  // GLIDEWELL_TESTS_ENGINE_DFRG_THREAD_PEER_H_

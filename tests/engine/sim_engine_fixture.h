// A simulated volume with a worker and a context on it, for tests of the
// walk and the movers. Free space is shaped with file-system clusters (which
// nothing can move and the walk never lists), files are placed cluster by
// cluster, and every test ends by proving that no file lost content.
#ifndef GLIDEWELL_TESTS_ENGINE_SIM_ENGINE_FIXTURE_H_
#define GLIDEWELL_TESTS_ENGINE_SIM_ENGINE_FIXTURE_H_

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "config/dfrg_config.h"
#include "engine/dfrg_context.h"
#include "engine/dfrg_thread.h"
#include "logging/log_manager.h"
#include "logging/log_test_util.h"
#include "sim/sim_disk.h"
#include "sim/sim_volume_system.h"
#include "support/volume_wrapper.h"
#include "volume/dfrg_file.h"

namespace glidewell {

class SimEngineTest : public ::testing::Test {
 protected:
  static constexpr uint64_t kClusterBytes = 4096;

  void SetUp() override {
    LogManager::release();
    recorder = dynamic_cast<testing_log::RecordingAppender*>(manager()->createAppender("Recording"));
    config = CDfrgConfig::detached();
    probe = std::make_shared<VolumeProbe>();
    resetCheckStateClock();
  }
  void TearDown() override {
    files_.clear();
    ctx_.reset();
    if (disk) {
      EXPECT_EQ(disk->verify(), "");
    }
    LogManager::release();
  }

  static LogManager* manager() {
    LogManager* m = LogManager::instance();
    m->setGenericFactory(LogObjectFactory{testing_log::createTestLogObject, destroyLogObject});
    return m;
  }

  // An empty volume of n clusters.
  void makeDisk(uint64_t clusters) {
    SimGeometry g;
    g.totalClusters = clusters;
    disk = std::make_shared<SimDisk>(g);
  }
  // Takes clusters for the file system, so only the given ranges stay free.
  void keepFreeOnly(const std::vector<std::pair<uint64_t, uint64_t>>& freeRanges) {
    uint64_t at = 0;
    for (auto& r : freeRanges) {
      blockRange(at, r.first);
      at = r.second + 1;
    }
    blockRange(at, disk->totalClusters());
  }
  void blockRange(uint64_t from, uint64_t to) {  // [from, to)
    for (uint64_t lcn = from; lcn < to; ++lcn) {
      // One cluster at a time so that clusters already taken by files are skipped.
      if (disk->reserveSystemClusters(lcn, 1) != 0) continue;
    }
  }
  // A file made of the given (lcn, length) pieces, in VCN order.
  void place(const std::wstring& path, const std::vector<std::pair<uint64_t, uint64_t>>& pieces,
             DWORD attributes = 0) {
    std::vector<SimRun> runs;
    uint64_t vcn = 0;
    for (auto& p : pieces) {
      SimRun r;
      r.vcn = vcn;
      r.lcn = p.first;
      r.length = p.second;
      runs.push_back(r);
      vcn += p.second;
    }
    ASSERT_EQ(disk->placeFile(path, attributes, vcn * kClusterBytes, runs), 0u) << narrowPath(path);
  }

  // A compressed file whose 16-cluster units each keep `stored` clusters on
  // disk (the rest of each unit is virtual); pieces are (lcn, units).
  void placeCompressed(const std::wstring& path, const std::vector<std::pair<uint64_t, uint64_t>>& pieces,
                       uint64_t stored = 12) {
    std::vector<SimRun> runs;
    uint64_t vcn = 0;
    for (auto& p : pieces) {
      uint64_t lcn = p.first;
      for (uint64_t u = 0; u < p.second; ++u) {
        SimRun r;
        r.vcn = vcn;
        r.lcn = lcn;
        r.length = stored;
        runs.push_back(r);
        if (stored < 16) {
          SimRun hole;
          hole.vcn = vcn + stored;
          hole.length = 16 - stored;
          runs.push_back(hole);
        }
        vcn += 16;
        lcn += stored;
      }
    }
    ASSERT_EQ(disk->placeFile(path, FILE_ATTRIBUTE_COMPRESSED, vcn * kClusterBytes, runs), 0u) << narrowPath(path);
  }

  CDfrgContext& ctx() {
    if (!ctx_) {
      auto volume = std::make_unique<SimVolumeSystem>(disk, L'C');
      ctx_ = std::make_unique<CDfrgContext>(wrapVolume(std::move(volume), probe), 0, config.get());
      worker.setConfig(config.get());
    }
    return *ctx_;
  }
  CDfrgFile& open(const std::wstring& relative) {
    files_.push_back(std::make_unique<CDfrgFile>(ctx(), L"C:\\" + relative, false));
    return *files_.back();
  }
  ExtentList extentsOf(CDfrgFile& file) {
    ExtentList list;
    EXPECT_TRUE(file.getFileExtents(list));
    return list;
  }
  void snapshot() { ASSERT_TRUE(makeExtentSnapshot(ctx())); }

  // The file's clusters as (lcn, length) pieces, merged where they touch.
  std::vector<std::pair<uint64_t, uint64_t>> layout(const std::wstring& relative) {
    SimFileInfo info;
    EXPECT_EQ(disk->fileInfo(relative, &info), 0u);
    std::vector<std::pair<uint64_t, uint64_t>> out;
    for (const SimRun& r : info.runs) {
      if (r.isVirtual()) continue;
      if (!out.empty() && out.back().first + out.back().second == r.lcn) {
        out.back().second += r.length;
      } else {
        out.push_back({r.lcn, r.length});
      }
    }
    return out;
  }

  std::vector<testing_log::SeenEvent> logged(const std::string& message) {
    std::vector<testing_log::SeenEvent> out;
    for (auto& e : recorder->seen()) {
      if (e.message == message) out.push_back(e);
    }
    return out;
  }
  static std::string property(const testing_log::SeenEvent& e, const std::string& name) {
    for (auto& p : e.properties) {
      if (p.name() == name) return p.value();
    }
    return "<none>";
  }
  static std::string narrowPath(const std::wstring& p) { return std::string(p.begin(), p.end()); }

  std::shared_ptr<SimDisk> disk;
  std::unique_ptr<CDfrgConfig> config;
  std::shared_ptr<VolumeProbe> probe;
  DfrgThread worker{""};
  testing_log::RecordingAppender* recorder = nullptr;

 private:
  std::unique_ptr<CDfrgContext> ctx_;
  std::vector<std::unique_ptr<CDfrgFile>> files_;
};

}  // namespace glidewell

#endif  // GLIDEWELL_TESTS_ENGINE_SIM_ENGINE_FIXTURE_H_

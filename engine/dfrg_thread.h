// DfrgThread: the worker. It builds one CDfrgContext per enabled volume, runs
// the driver of the requested mode over them, and keeps the pass counters, the
// deferred files and the resume point that the drivers and movers share.
//
// run() and everything it calls execute on the worker thread; end() and
// pause() are called from host threads (through the engine) and touch the
// contexts only under `lock`.
#ifndef GLIDEWELL_ENGINE_DFRG_THREAD_H_
#define GLIDEWELL_ENGINE_DFRG_THREAD_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "engine/dfrg_context.h"
#include "engine/engine.h"
#include "platform/sync.h"
#include "volume/dfrg_file.h"
#include "volume/extent.h"

namespace glidewell {

class CDfrgConfig;

// Per-volume state that the smart driver keeps beside each context.
struct VolumeState {
  virtual ~VolumeState() = default;
};

// A volume's persistent mode in the smart driver. Other stored values leave
// the volume alone. Panic passes are scan mode with a panic pass number >= 0.
enum VolumeMode : int32_t { kVolumeModeScan = 0, kVolumeModeReact = 1 };

// The pass counters, logged as "Processed", "Defragged", "Moved", "Errors",
// "Non-Defraggable" and "Non-Defraggable because of pure space reasons".
struct PassCounters {
  int64_t processed = 0;
  int64_t defragged = 0;
  int64_t moved = 0;
  int64_t errors = 0;
  int64_t nonDefraggable = 0;
  int64_t spaceOnly = 0;
};

// At most this many files wait for a retry after a scan pass.
constexpr size_t kMaxDeferredFiles = 1000;

class DfrgThread {
 public:
  explicit DfrgThread(const std::string& registryKeyPath);
  virtual ~DfrgThread();
  DfrgThread(const DfrgThread&) = delete;
  DfrgThread& operator=(const DfrgThread&) = delete;

  // The worker's main routine. Never lets a CDfrgException escape.
  void run(ThreadStartRecord& rec);
  // Stops every context (and any built later); with wait, blocks until the
  // worker has finished.
  void end(bool wait);
  void pause(bool pause);

  // --- Pass statistics and deferred files (pass_loop.cc) ---
  void resetPassStatistics();
  void deferFile(const std::wstring& path);
  void logPassStatistics(const char* message, const std::wstring& volume, CDfrgContext& ctx);

  // --- Resume info (state directory) and volume modes (registry) (resume_info.cc) ---
  // Neither reports errors: a file that cannot be written is not saved; one
  // that cannot be read or is invalid resets the pass state.
  bool saveResumeInfo();
  bool loadResumeInfo();
  std::wstring resumeInfoPath() const;
  // The stored mode (scan when none); *ageDays = days since it was set, 0 when
  // unknown.
  int32_t getVolumeMode(CDfrgContext& ctx, double* ageDays);
  // Stores mode and the time, then updates the engine status; returns mode.
  int32_t setVolumeMode(CDfrgContext& ctx, int32_t mode);
  // Drops mode values of older versions (once per start of the smart driver).
  void migrateVolumeModes();
  // Keeps the statistics' engine status in step with the volume modes.
  void updateEngineStatus();

  // --- Drivers: the pass loop (pass_loop.cc) and the smart driver (smart_driver.cc) ---
  void runPasses();
  void defragSmart();

  // --- Walk and per-file processing (file_walk.cc) ---
  bool walkDirectory(CDfrgContext& ctx, const std::wstring& dir, const std::wstring& resumePath,
                     bool skipResumeEntry, bool reverse, bool noClimb, int* fileCount);
  bool processFile(CDfrgContext& ctx, const std::wstring& path, int* result, bool isDirectory);

  // --- Movers: defragFile (whole_file_move.cc), moveToLeftBorder (left_border_move.cc),
  // moveToBetterPlace (better_place_move.cc) ---
  bool defragFile(CDfrgContext& ctx, CDfrgFile& file, ExtentList& extents, bool& defragged);
  bool moveToLeftBorder(CDfrgContext& ctx, CDfrgFile& file, ExtentList& extents, bool& moved);
  bool moveToBetterPlace(CDfrgContext& ctx, CDfrgFile& file, ExtentList& extents, bool& moved);

  Event& stoppedEvent() { return stoppedEvent_; }
  Event& initDoneEvent() { return initDoneEvent_; }
  CDfrgConfig* config() const { return config_; }
  void setConfig(CDfrgConfig* config) { config_ = config; }
  const std::string& registryKeyPath() const { return registryKeyPath_; }
  // For tests and the smart driver: the contexts of the current run.
  size_t contextCount();

  // What a pass has done so far, the files deferred for a retry, and where the
  // smart driver will resume. Written by the worker only; read them from
  // another thread only once the worker has ended.
  const PassCounters& passCounters() const { return counters_; }
  const std::vector<std::wstring>& deferredFiles() const { return deferred_; }
  bool deferredOverflow() const { return deferredOverflow_; }
  const std::wstring& resumePath() const { return resumePath_; }
  const std::wstring& currentFile() const { return currentFile_; }
  bool scanInProgress() const { return scanInProgress_; }
  bool reactInProgress() const { return reactInProgress_; }

 private:
  friend class ReactStepScope;

  // --- The smart driver's steps (smart_driver.cc) ---
  // One iteration over one volume. Returns normally or by the exceptions the
  // driver passes on (a stop, unexpected errors).
  void smartIteration(int& lastIndex, bool& waitBeforeReact, const std::vector<std::wstring>& excluded);
  // The resume volume, else a random one (not lastIndex when there is a choice).
  CDfrgContext& chooseSmartVolume(int& lastIndex);
  void retryDeferredFiles(CDfrgContext& ctx);
  // The volume's mode after a scan pass: react when clean or after giving up.
  int32_t judgeScanPass(CDfrgContext& ctx, const std::wstring& volume);
  void reactStep(CDfrgContext& ctx, const std::wstring& volume, int32_t& mode, bool& dirty, bool& waitBeforeReact,
                 const std::vector<std::wstring>& excluded);
  // After an unexpected error: the volume starts again with a fresh scan.
  void abandonVolume(CDfrgContext& ctx, const std::wstring& volume);

  // Builds the contexts of the enabled volumes (or writes the dump).
  void buildContexts();
  void deleteContexts();
  void dispatch(DefragMode mode);

  engine* engine_ = nullptr;
  CDfrgConfig* config_ = nullptr;
  std::vector<std::unique_ptr<CDfrgContext>> contexts_;
  std::vector<std::unique_ptr<VolumeState>> volumeStates_;
  Event stoppedEvent_{true, false};
  Event initDoneEvent_{true, false};
  // Set by end(): remembered for contexts built after the stop request (a
  // retry that is rebuilding its contexts), and wakes the pause between retries.
  Event stopRequested_{true, false};
  RecursiveLock lock;  // guards contexts_ against end() and pause() from host threads
  std::string registryKeyPath_;

  PassCounters counters_;
  std::vector<std::wstring> deferred_;
  bool deferredOverflow_ = false;
  // The smart driver's resume point: the file its interrupted scan pass had
  // reached (saved in the resume info), and the file the walk is on now.
  std::wstring resumePath_;
  std::wstring currentFile_;
  bool scanInProgress_ = false;
  bool reactInProgress_ = false;
  std::atomic<bool> started_{false};

  friend class DfrgThreadTestPeer;
};

}  // namespace glidewell

#endif  // GLIDEWELL_ENGINE_DFRG_THREAD_H_

#include "cli/engine_run.h"

#include <fmt/format.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <thread>

#include "cli/console.h"
#include "cli/host_files.h"
#include "cli/registry_access.h"
#include "engine/dfrg_exception.h"
#include "glidewell/dfrg.h"
#include "platform/text.h"

namespace glidewell {

namespace {

constexpr auto kPollInterval = std::chrono::milliseconds(50);

// The library's process-wide state, held for one run.
class EngineSession {
 public:
  explicit EngineSession(const std::string& installDir) {
    std::wstring dir = widen(installDir);
    if (dfrg_initialize(dir.c_str(), "") == 0) {
      throw HostError("the engine could not be initialised on " + installDir);
    }
    handle_ = dfrg_createDefragInstance();
    if (handle_ == nullptr) {
      int code = dfrg_getLastErrorCode();
      dfrg_deinitialize();
      throw HostError(fmt::format("the engine could not create an instance: error {} ({})", code, errorName(code)));
    }
  }
  ~EngineSession() { close(); }
  // Deletes the instance (the engine closes its volumes, which writes the
  // images back) and lets go of the library.
  void close() {
    if (handle_ == nullptr) return;
    dfrg_deleteDefragInstance(handle_);
    dfrg_deinitialize();
    handle_ = nullptr;
  }
  EngineSession(const EngineSession&) = delete;
  EngineSession& operator=(const EngineSession&) = delete;
  DfrgHandle handle() const { return handle_; }

 private:
  DfrgHandle handle_ = nullptr;
};

uint64_t readProcessed(HostRegistry& registry, std::string* lastFile) {
  std::string key = HostRegistry::userKey("statistics");
  uint64_t processed = 0;
  if (auto v = registry.get(key, L"Processed Files"); v && v->type == REG_QWORD && v->data.size() == 8) {
    for (int i = 7; i >= 0; --i) processed = (processed << 8) | v->data[i];
  }
  if (auto v = registry.get(key, L"Last File"); v && v->type == REG_SZ) *lastFile = formatValue(*v);
  return processed;
}

}  // namespace

std::string EngineRunResult::describe() const {
  switch (end) {
    case RunEnd::kCompleted:
      return "the pass ended";
    case RunEnd::kStopped:
      return fmt::format("stopped on request after {:.1f} s", stopRequestedAt);
    case RunEnd::kInterrupted:
      return "interrupted";
    case RunEnd::kFailed:
      break;
  }
  if (firstError != 0) {
    return fmt::format("the engine reported error {} ({}) during the run and was stopped", firstError,
                       errorName(firstError));
  }
  return fmt::format("the engine ended the run with error {} ({}){}{}", errorCode, errorName(errorCode),
                     errorMessage.empty() ? "" : ": ", errorMessage);
}

EngineRunResult runEngineOnce(const EngineRunSettings& settings) {
  using Clock = std::chrono::steady_clock;
  InterruptGuard interrupts;
  EngineSession session(settings.installDir);
  std::unique_ptr<HostRegistry> registry = HostRegistry::open(settings.installDir, true);

  EngineRunResult result;
  std::optional<RunEnd> stopReason;
  Clock::time_point start = Clock::now();
  auto elapsed = [&] { return std::chrono::duration<double>(Clock::now() - start).count(); };
  auto nowMs = [&] {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
  };
  if (dfrg_startDefrag(session.handle()) == 0) {
    int code = dfrg_getLastErrorCode();
    throw HostError(fmt::format("the engine refused to start: error {} ({})", code, errorName(code)));
  }
  std::string lastFile;
  // dfrg_stopDefrag returns only when the worker has ended, which may take a
  // while (it closes its volumes); it runs on its own thread so the display
  // goes on meanwhile.
  std::thread stopper;
  struct Joiner {
    std::thread& thread;
    ~Joiner() {
      if (thread.joinable()) thread.join();
    }
  } joiner{stopper};
  while (dfrg_isRunning(session.handle()) != 0) {
    result.processed = readProcessed(*registry, &lastFile);
    if (settings.progress != nullptr) {
      settings.progress->update(nowMs(), result.processed, settings.totalEntries,
                                stopReason ? "stopping..." : lastFile);
    }
    if (!stopReason) {
      int code = dfrg_getLastErrorCode();
      if (interruptRequested()) {
        stopReason = RunEnd::kInterrupted;
      } else if (code != 0 && code != ErrorStopRequested && code != ErrorNoVolumesSelected) {
        // These two end the worker by themselves. After any other error it
        // rebuilds its volumes and starts the pass again; for one pass from
        // the command line that is the end of it.
        result.firstError = code;
        stopReason = RunEnd::kFailed;
      } else if (settings.stopAfterSeconds > 0 && elapsed() >= settings.stopAfterSeconds) {
        stopReason = RunEnd::kStopped;
      }
      if (stopReason) {
        result.stopRequestedAt = elapsed();
        DfrgHandle handle = session.handle();
        stopper = std::thread([handle] { dfrg_stopDefrag(handle); });
      }
    }
    std::this_thread::sleep_for(kPollInterval);
  }
  uint64_t endMs = nowMs();
  result.seconds = static_cast<double>(endMs) / 1000.0;
  if (stopper.joinable()) {
    // The worker has signalled its end; the stop call may still be closing
    // the volumes it left open.
    if (settings.progress != nullptr) settings.progress->note("waiting for the engine to stop...");
    stopper.join();
  }
  // The worker has ended: its last error is settled and safe to read.
  result.errorCode = dfrg_getLastErrorCode();
  result.errorMessage = dfrg_getLastErrorMessage();
  uint64_t processed = readProcessed(*registry, &lastFile);
  result.processed = std::max(result.processed, processed);
  if (result.errorCode == 0) {
    // A pass that ended before a stop took effect is a complete pass.
    result.end = stopReason == RunEnd::kInterrupted ? RunEnd::kInterrupted : RunEnd::kCompleted;
  } else if (stopReason && (result.errorCode == ErrorStopRequested || *stopReason == RunEnd::kFailed)) {
    result.end = *stopReason;
  } else {
    result.end = RunEnd::kFailed;
  }
  if (settings.progress != nullptr) {
    // The engine writes its counters at most once a second; a pass that
    // ended by itself has been through every entry.
    uint64_t shown = result.end == RunEnd::kCompleted ? settings.totalEntries
                                                       : std::min(result.processed, settings.totalEntries);
    settings.progress->finish(endMs, shown, settings.totalEntries, result.describe());
    settings.progress->note("closing the engine and writing the drive images back...");
  }
  registry.reset();
  session.close();
  if (settings.progress != nullptr) settings.progress->interrupt();
  return result;
}

}  // namespace glidewell

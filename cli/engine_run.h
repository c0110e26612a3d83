// One run of the engine through its ten exported functions, as the service
// drives it: initialise on an install directory, create an instance, start,
// poll until the run ends (showing progress from the statistics the engine
// keeps in the registry database), delete, deinitialise.
#ifndef GLIDEWELL_CLI_ENGINE_RUN_H_
#define GLIDEWELL_CLI_ENGINE_RUN_H_

#include <cstdint>
#include <string>

#include "cli/progress_bar.h"

namespace glidewell {

enum class RunEnd {
  kCompleted,    // the pass loop ended by itself
  kStopped,      // stopped by request after the time given
  kInterrupted,  // stopped because the user pressed Ctrl-C
  kFailed,       // the engine reported an error (the run was stopped if it went on)
};

struct EngineRunSettings {
  std::string installDir;         // with its trailing '/'; the images are in volumes/
  double stopAfterSeconds = 0;    // 0: let the run end by itself
  uint64_t totalEntries = 0;      // files and directories of every drive, for the progress bar
  ProgressDisplay* progress = nullptr;  // may be null
};

struct EngineRunResult {
  RunEnd end = RunEnd::kFailed;
  int32_t errorCode = 0;          // dfrg_getLastErrorCode() at the end
  std::string errorMessage;       // dfrg_getLastErrorMessage() at the end
  int32_t firstError = 0;         // a code the engine reported while it ran (then it was stopped)
  double seconds = 0;             // from the start until the worker had ended
  double stopRequestedAt = 0;     // when the host asked the engine to stop, if it did
  uint64_t processed = 0;         // "Processed Files" as last read

  // One line on how the run ended.
  std::string describe() const;
};

// Runs one pass. Only one run per process at a time (the exports keep
// process-wide state). HostError when the engine cannot be initialised,
// cannot create an instance or refuses to start.
EngineRunResult runEngineOnce(const EngineRunSettings& settings);

}  // namespace glidewell

#endif  // GLIDEWELL_CLI_ENGINE_RUN_H_

// A run of the smart driver from the command line: the engine object started
// in mode 0 over the enabled drives, the live display while it runs, and a
// clean stop when the time given is up, on Ctrl-C or on SIGTERM (the worker
// ends; the state directory keeps the resume info and the change tracking
// files). The caller prepares the drives before and checks them after.
#ifndef GLIDEWELL_CLI_SMART_RUN_H_
#define GLIDEWELL_CLI_SMART_RUN_H_

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "cli/smart_host.h"

namespace glidewell {

enum class SmartEnd {
  kTimeUp,       // stopped after the seconds given
  kInterrupted,  // stopped on Ctrl-C or SIGTERM
  kEnded,        // the worker ended by itself (no volume it could use)
};

struct SmartRunResult {
  SmartEnd end = SmartEnd::kEnded;
  double seconds = 0;       // from the start to the stop request
  double stopSeconds = 0;   // how long the stop took
  int modeChanges = 0;      // as the display saw them
  int32_t error = 0;        // the last error the worker reported
  std::string errorMessage;

  std::string describe() const;
};

// Starts the smart driver on host and shows `letters` until `seconds` have
// passed (0: until interrupted) or the worker ends. `extra`, when given,
// supplies one more line for the display (called on this thread). Stops the
// worker before it returns.
SmartRunResult runSmartDriver(SmartEngineHost& host, const std::string& installDir,
                              const std::vector<wchar_t>& letters, double seconds,
                              const std::function<std::string()>& extra);

}  // namespace glidewell

#endif  // GLIDEWELL_CLI_SMART_RUN_H_

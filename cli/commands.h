// The commands of the glidewell host. Each returns the process exit status
// (0 success, 1 failure) and throws HostError (exit status 1) or UsageError
// (exit status 2) for a problem it reports as one line.
#ifndef GLIDEWELL_CLI_COMMANDS_H_
#define GLIDEWELL_CLI_COMMANDS_H_

#include <cstdint>
#include <string>
#include <vector>

#include "cli/host_files.h"

namespace glidewell {

// How an aged volume is made (demo and age).
struct AgingChoice {
  uint64_t seed = 1;
  uint64_t clusters = 1 << 16;
  double fill = 0.6;
  int churn = 4;
  uint64_t files = 200000;
  std::string from;  // a real directory whose tree and sizes to copy
};

struct DemoOptions {
  std::string dir;  // "" for a fresh temporary directory
  AgingChoice aging;
  std::string program = "glidewell";  // how the user called us, for the hints printed
};
int demoCommand(const DemoOptions& options);

struct AnalyzeOptions {
  std::string image;
  std::string png;  // "" for no picture
};
int analyzeCommand(const AnalyzeOptions& options);

struct AgeOptions {
  std::string out;
  AgingChoice aging;
  char letter = 'C';
  std::string label = "Aged";
};
int ageCommand(const AgeOptions& options);

struct RunOptions {
  std::vector<std::string> images;
  int mode = 1;
  double seconds = 0;
  std::string dir;
  std::string maps;  // a directory for before/after cluster maps, "" for none
  double activity = 0;  // mode 0: user changes a second on the drives, 0 for none
  uint64_t seed = 1;    // of the user activity
};
int runCommand(const RunOptions& options);
// run --mode 0: the smart driver over the images until the time is up or the
// user stops it.
int runSmartCommand(const RunOptions& options);

// Windows: the machine's own drives, named by letter ("C:").
// analyze: options.image holds the drive.
int analyzeDriveCommand(const AnalyzeOptions& options);
// run: options.images hold the drives; only they are enabled for the run.
int runDrivesCommand(const RunOptions& options);

struct ConfigOptions {
  std::string action;  // "get", "set" or "list"
  std::string name;
  std::string value;
  std::string dir;
};
int configCommand(const ConfigOptions& options);

struct StatsOptions {
  std::string dir;
};
int statsCommand(const StatsOptions& options);

}  // namespace glidewell

#endif  // GLIDEWELL_CLI_COMMANDS_H_

// Helpers for the host's tests: running the built glidewell command, and
// making small drive images.
#ifndef GLIDEWELL_TESTS_CLI_CLI_TEST_UTIL_H_
#define GLIDEWELL_TESTS_CLI_CLI_TEST_UTIL_H_

#include <csignal>
#include <cstdint>
#include <string>
#include <vector>

namespace glidewell {

struct CommandResult {
  int status = -1;  // exit status; -1 when the process did not exit normally
  std::string out;
  std::string err;
};

// Runs the built glidewell with these arguments (each passed as it is, no
// shell), with $HOME and $GLIDEWELL_HOME pointed at `home` so that nothing
// outside the test's directory is touched, and stdin closed.
// With signalAfterMs > 0, the signal is sent that long after the start.
CommandResult runGlidewell(const std::vector<std::string>& args, const std::string& home, int signalAfterMs = 0,
                           int signal = SIGTERM);

// The number in the given column (1 = first value) of the table row whose
// name is `row` ("fragmented files"); -1 when there is no such row.
int64_t tableValue(const std::string& output, const std::string& row, int column);

// Whole lines of text.
std::vector<std::string> lines(const std::string& text);

// A file's bytes as text ("" when it cannot be read).
std::string fileText(const std::string& path);

// Writes an aged 4096-cluster volume of the given seed (and fill ratio, when
// positive) as drive C:'s image at `path`, and returns the path.
std::string writeAgedImage(const std::string& path, uint64_t seed, double fill = 0);

}  // namespace glidewell

#endif  // GLIDEWELL_TESTS_CLI_CLI_TEST_UTIL_H_

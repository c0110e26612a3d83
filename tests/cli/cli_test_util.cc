#include "cli_test_util.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "cli/image_io.h"
#include "sim/sim_aging.h"

namespace glidewell {

std::string fileText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

CommandResult runGlidewell(const std::vector<std::string>& args, const std::string& home, int signalAfterMs,
                           int signal) {
  std::string outPath = home + "/.command-out", errPath = home + "/.command-err";
  pid_t pid = ::fork();
  if (pid == 0) {
    int in = ::open("/dev/null", O_RDONLY);
    int out = ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int err = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (in < 0 || out < 0 || err < 0) ::_exit(126);
    ::dup2(in, 0);
    ::dup2(out, 1);
    ::dup2(err, 2);
    ::setenv("HOME", home.c_str(), 1);
    ::setenv("GLIDEWELL_HOME", (home + "/glidewell-home").c_str(), 1);
    std::vector<char*> argv;
    std::string program = GLIDEWELL_CLI_PATH;
    argv.push_back(program.data());
    std::vector<std::string> copies = args;
    for (std::string& a : copies) argv.push_back(a.data());
    argv.push_back(nullptr);
    ::execv(program.c_str(), argv.data());
    ::_exit(127);
  }
  if (pid > 0 && signalAfterMs > 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(signalAfterMs));
    ::kill(pid, signal);
  }
  CommandResult result;
  int status = 0;
  if (pid > 0 && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status)) result.status = WEXITSTATUS(status);
  result.out = fileText(outPath);
  result.err = fileText(errPath);
  return result;
}

int64_t tableValue(const std::string& output, const std::string& row, int column) {
  for (const std::string& line : lines(output)) {
    if (line.compare(0, row.size(), row) != 0) continue;
    // The name is followed by at least two spaces; values are separated by
    // two or more.
    std::istringstream rest(line.substr(row.size()));
    if (line.size() > row.size() && line[row.size()] != ' ') continue;
    std::string cell;
    for (int c = 0; c < column; ++c) {
      if (!(rest >> cell)) return -1;
    }
    char* end = nullptr;
    long long v = std::strtoll(cell.c_str(), &end, 10);
    return end != cell.c_str() ? v : -1;
  }
  return -1;
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) out.push_back(line);
  return out;
}

std::string writeAgedImage(const std::string& path, uint64_t seed, double fill) {
  SimAgingOptions options;
  options.seed = seed;
  options.totalClusters = 4096;
  if (fill > 0) options.fillRatio = fill;
  std::string error;
  std::unique_ptr<SimDisk> disk = ageDisk(options, &error);
  if (!disk) throw std::runtime_error(error);
  saveImage(*disk, L'C', path);
  return path;
}

}  // namespace glidewell

#include "ntfs_test_util.h"

#include <sys/wait.h>

#include <cstdio>
#include <fstream>
#include <sstream>

namespace glidewell {
namespace ntfstest {

int runShell(const std::string& command, std::string* output) {
  output->clear();
  std::FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return -1;
  char buffer[4096];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0) output->append(buffer, n);
  int status = ::pclose(pipe);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::vector<std::string> manifests(const std::vector<std::string>& images) {
  std::string command = std::string("/usr/bin/python3 ") + GW_NTFS_MANIFEST;
  for (const std::string& image : images) command += " '" + image + "'";
  std::string out;
  int status = runShell(command, &out);
  std::vector<std::string> each;
  const std::string end = "--- end\n";
  for (size_t at = 0, next; (next = out.find(end, at)) != std::string::npos; at = next + end.size()) {
    each.push_back(out.substr(at, next - at));
  }
  if (status != 0 || each.size() != images.size()) {
    each.assign(images.size(), "PROBLEM the reader failed: " + out);
  }
  return each;
}

std::string manifest(const std::string& image) { return manifests({image})[0]; }

std::string ntfsfixProblem(const std::string& image) {
  std::string out;
  int status = runShell("ntfsfix -n '" + image + "'", &out);
  bool clean = status == 0 && out.find("processed successfully") != std::string::npos &&
               out.find("scheduled for check") == std::string::npos;
  return clean ? "" : out;
}

std::string readWhole(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

}  // namespace ntfstest
}  // namespace glidewell

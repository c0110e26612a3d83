// Catches an include that reaches a higher layer (or a sideways one between
// the simulated disk and real NTFS), which would tie a lower library to code
// above it; the build's include trees refuse it too, this names file and line.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace {

// Lowest first; folders of one rank may not include each other either.
const std::map<std::string, int> kRank = {{"platform", 1}, {"logging", 2}, {"config", 3}, {"volume", 4},
                                          {"changes", 5},  {"dump", 6},    {"sim", 7},    {"ntfs", 7},
                                          {"engine", 8},   {"api", 9},     {"cli", 10}};
// The engine's error codes and exception: leaf headers every layer may use.
bool isLeafHeader(const std::string& include) {
  return include == "engine/error_codes.h" || include == "engine/dfrg_exception.h";
}

// The upward includes of one file of folder `from`, as "file:line includes x".
std::vector<std::string> upwardIncludes(const std::string& from, const std::string& name, std::istream& text) {
  static const std::regex kInclude("^\\s*#\\s*include\\s+\"([^\"/]+)/([^\"]+)\"");
  std::vector<std::string> found;
  std::string line;
  for (int number = 1; std::getline(text, line); ++number) {
    std::smatch m;
    if (!std::regex_search(line, m, kInclude)) continue;
    std::string folder = m[1], include = m[1].str() + "/" + m[2].str();
    auto to = kRank.find(folder);
    if (to == kRank.end() || folder == from || isLeafHeader(include)) continue;
    if (to->second >= kRank.at(from)) found.push_back(name + ":" + std::to_string(number) + " includes " + include);
  }
  return found;
}

TEST(IncludeLayers, TheCheckerSeesUpwardSidewaysAndLeafIncludes) {
  std::istringstream text(
      "#include \"platform/env.h\"\n#include \"engine/dfrg_context.h\"\n"
      "  #  include \"ntfs/ntfs_volume.h\"\n#include \"engine/dfrg_exception.h\"\n#include \"sim/sim_disk.h\"\n");
  EXPECT_EQ(upwardIncludes("sim", "sim/x.cc", text),
            (std::vector<std::string>{"sim/x.cc:2 includes engine/dfrg_context.h",
                                      "sim/x.cc:3 includes ntfs/ntfs_volume.h"}));
}

TEST(IncludeLayers, NoSourceFileIncludesAHigherLayer) {
  namespace fs = std::filesystem;
  const fs::path root(GLIDEWELL_SOURCE_DIR);
  std::vector<std::string> violations;
  int files = 0;
  for (const auto& layer : kRank) {
    if (!fs::exists(root / layer.first)) continue;
    for (const auto& entry : fs::recursive_directory_iterator(root / layer.first)) {
      std::string ext = entry.path().extension().string();
      if (!entry.is_regular_file() || (ext != ".cc" && ext != ".h")) continue;
      std::ifstream in(entry.path());
      ++files;
      for (std::string& v : upwardIncludes(layer.first, fs::relative(entry.path(), root).string(), in)) {
        violations.push_back(v);
      }
    }
  }
  EXPECT_GT(files, 100);
  for (const std::string& v : violations) ADD_FAILURE() << v;
}

}  // namespace

// main() of the programs that run under Wine. The last line it prints is the
// runner's proof that the program really ran to the end: Wine exits with
// status 0 and prints nothing when it cannot load a program at all.
#include "wine_main.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace {
std::vector<std::string> arguments;
}

const std::vector<std::string>& wineTestArguments() { return arguments; }

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  arguments.assign(argv + 1, argv + argc);
  int failed = RUN_ALL_TESTS();
  std::fflush(stdout);
  std::printf("GLIDEWELL-WINE-RESULT: %s\n", failed == 0 ? "PASS" : "FAIL");
  std::fflush(stdout);
  return failed;
}

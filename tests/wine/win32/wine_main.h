// What the Wine test programs' main() leaves for the tests.
#ifndef GLIDEWELL_TESTS_WINE_WIN32_WINE_MAIN_H_
#define GLIDEWELL_TESTS_WINE_WIN32_WINE_MAIN_H_

#include <string>
#include <vector>

// The program's arguments after GoogleTest took its own flags out.
const std::vector<std::string>& wineTestArguments();

#endif  // GLIDEWELL_TESTS_WINE_WIN32_WINE_MAIN_H_

// The command lines of `config` and `stats`, the same on every system.
#ifndef GLIDEWELL_CLI_REGISTRY_COMMAND_LINE_H_
#define GLIDEWELL_CLI_REGISTRY_COMMAND_LINE_H_

#include <CLI/CLI.hpp>

#include <string>

#include "cli/commands.h"

namespace glidewell {

class RegistryCommandLine {
 public:
  // Adds `config get|set|list` and `stats` to app; dirHelp describes --dir.
  RegistryCommandLine(CLI::App& app, const std::string& dirHelp);
  // After parsing: runs the command given and returns its exit status, or
  // returns -1 when neither was given.
  int runIfParsed();

 private:
  ConfigOptions config_;
  StatsOptions stats_;
  CLI::App* configCmd_;
  CLI::App* getCmd_;
  CLI::App* setCmd_;
  CLI::App* statsCmd_;
};

}  // namespace glidewell

#endif  // GLIDEWELL_CLI_REGISTRY_COMMAND_LINE_H_

// The live display of a smart-driver run: for each drive its volume mode
// (scan, panic pass k, react), its pass counters and how long ago the mode
// was set; the engine status; the counters of the last iteration saved and
// of the run. On a terminal the block is redrawn in place (at most ten times
// a second); otherwise a plain line is written when something changed (at
// most once a second). Every change of a drive's mode is printed on a line
// of its own as soon as it is seen.
//
// SmartObserver reads what the display shows from where a front end finds
// it: the registry and the state directory (never from the worker itself).
#ifndef GLIDEWELL_CLI_SMART_DISPLAY_H_
#define GLIDEWELL_CLI_SMART_DISPLAY_H_

#include <cstdint>
#include <cstdio>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "cli/volume_modes.h"

namespace glidewell {

struct DriveView {
  wchar_t letter = L'C';
  int32_t mode = 0;               // what the engine reads: scan when nothing is stored
  std::optional<int64_t> ageMs;   // since the mode was set, when known
  uint64_t setAt = 0;             // the stored time (0 when none): a new value is a new mode change
  int32_t pass = -1;
  int32_t panicPass = -1;
};

struct SmartView {
  std::vector<DriveView> drives;
  std::optional<int64_t> status;
  std::optional<ResumeInfoView> iteration;  // the last resume info read whole
  uint64_t runProcessed = 0, runMoved = 0, runDefragged = 0;
  std::string extra;  // the host's own line ("activity: ..."), "" for none
};

class SmartObserver {
 public:
  SmartObserver(HostRegistry& registry, std::string installDir, std::vector<wchar_t> letters);
  // Keeps the last resume info that read whole, since the engine may be
  // rewriting the file at the moment it is read.
  SmartView read();

 private:
  HostRegistry& registry_;
  std::string installDir_;
  std::vector<wchar_t> letters_;
  std::optional<ResumeInfoView> lastResumeInfo_;
};

class SmartDisplay {
 public:
  // out is not owned. terminal: redraw in place; else plain lines.
  SmartDisplay(std::FILE* out, bool terminal, int width);

  // nowMs: milliseconds since the run started.
  void update(uint64_t nowMs, const SmartView& view);
  // Clears the live block and prints the view as plain lines, then `outcome`.
  void finish(uint64_t nowMs, const SmartView& view, const std::string& outcome);
  // Clears the live block so the caller can print; the next update redraws it.
  void interrupt();

  int modeChanges() const { return modeChanges_; }

 private:
  void printModeChanges(uint64_t nowMs, const SmartView& view);
  std::vector<std::string> block(uint64_t nowMs, const SmartView& view) const;
  std::string plainLine(const SmartView& view) const;
  std::string fit(const std::string& line) const;

  std::FILE* out_;
  bool terminal_;
  int width_;
  bool started_ = false;
  std::map<wchar_t, std::pair<std::string, uint64_t>> shown_;  // label and stamp per drive
  int drawnLines_ = 0;
  uint64_t lastDrawMs_ = 0;
  std::string lastPlain_;
  int modeChanges_ = 0;
};

}  // namespace glidewell

#endif  // GLIDEWELL_CLI_SMART_DISPLAY_H_

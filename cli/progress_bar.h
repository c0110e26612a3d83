// The progress display of a run: one line redrawn in place on a terminal
// (at most ten times a second), or a plain line now and then when the output
// goes to a file or a pipe.
#ifndef GLIDEWELL_CLI_PROGRESS_BAR_H_
#define GLIDEWELL_CLI_PROGRESS_BAR_H_

#include <cstdint>
#include <cstdio>
#include <string>

namespace glidewell {

// The bar line: "[=====>    ]  52%  421/812  3.1 s  dir\file", cut to at
// most `width` characters (the detail gives way first). total 0 shows no share.
std::string renderProgressLine(uint64_t done, uint64_t total, double seconds, const std::string& detail, int width);

class ProgressDisplay {
 public:
  // out is not owned. terminal: redraw in place; else plain lines.
  ProgressDisplay(std::FILE* out, bool terminal, int width);

  // nowMs: milliseconds since the run started (the time shown). Draws when
  // enough time has passed since the last drawing (100 ms on a terminal; 1 s
  // and a changed count for plain lines); the first call always draws.
  void update(uint64_t nowMs, uint64_t done, uint64_t total, const std::string& detail);
  // Draws the final state, followed by `outcome`, and ends the line.
  void finish(uint64_t nowMs, uint64_t done, uint64_t total, const std::string& outcome);
  // Shows a passing remark on a terminal (cleared by the next drawing or by
  // interrupt()); nothing on plain output.
  void note(const std::string& text);
  // Clears the bar or remark so another line can be written; the next
  // update draws it again.
  void interrupt();

  int drawings() const { return drawings_; }

 private:
  void draw(uint64_t nowMs, uint64_t done, uint64_t total, const std::string& detail);

  std::FILE* out_;
  bool terminal_;
  int width_;
  bool started_ = false;
  bool drawn_ = false;
  uint64_t lastDrawMs_ = 0;
  uint64_t lastDone_ = 0;
  int drawings_ = 0;
};

}  // namespace glidewell

#endif  // GLIDEWELL_CLI_PROGRESS_BAR_H_

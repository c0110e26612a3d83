// The progress display: the bar line and how often it is drawn.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <memory>

#include "cli/progress_bar.h"
#include "cli_test_util.h"

namespace glidewell {
namespace {

TEST(ProgressLine, BarShareAndCountsClampAtTheTotal) {
  EXPECT_EQ(renderProgressLine(0, 100, 0, "", 80), "[>                       ]   0%  0/100  0.0 s");
  EXPECT_EQ(renderProgressLine(50, 100, 1.25, "", 80), "[============>           ]  50%  50/100  1.2 s");
  EXPECT_EQ(renderProgressLine(100, 100, 2, "", 80), "[========================] 100%  100/100  2.0 s");
  // The engine may count more entries than the host expected: the bar stops full.
  EXPECT_EQ(renderProgressLine(130, 100, 2, "", 80), "[========================] 100%  130/100  2.0 s");
  // Nothing known to compare with: just the count.
  EXPECT_EQ(renderProgressLine(7, 0, 0.5, "", 80), "7  0.5 s");
}

TEST(ProgressLine, TheFileNameGivesWayAndKeepsItsEnd) {
  std::string base = renderProgressLine(1, 2, 0, "", 200);
  std::string line = renderProgressLine(1, 2, 0, "C:\\some\\directory\\file.txt", static_cast<int>(base.size()) + 14);
  EXPECT_EQ(line, base + "  ...\\file.txt");
  EXPECT_EQ(line.size(), base.size() + 14);
  // UTF-8 names are cut between characters, never inside one.
  std::string wide = renderProgressLine(1, 2, 0, "C:\\\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9", static_cast<int>(base.size()) + 8);
  EXPECT_EQ(wide, base + "  ...\xC3\xA9\xC3\xA9\xC3\xA9");
  // No room at all: the line itself is cut to the width.
  EXPECT_EQ(renderProgressLine(1, 2, 0, "name", 10).size(), 10u);
}

// A display writing into memory.
class Capture {
 public:
  Capture() : file_(std::tmpfile(), &std::fclose) {}
  std::FILE* get() { return file_.get(); }
  std::string text() {
    std::fflush(file_.get());
    std::rewind(file_.get());
    std::string out;
    char buffer[4096];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, file_.get())) > 0) out.append(buffer, n);
    return out;
  }

 private:
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file_;
};

TEST(ProgressDisplay, TerminalRedrawsAtMostTenTimesASecondInPlace) {
  Capture out;
  ProgressDisplay display(out.get(), true, 80);
  for (uint64_t ms = 0; ms <= 1000; ms += 10) display.update(ms, ms, 1000, "");
  // At 0, 100, 200, ... 1000 ms: 11 drawings out of 101 updates.
  EXPECT_EQ(display.drawings(), 11);
  display.finish(1200, 1000, 1000, "done");
  std::string text = out.text();
  EXPECT_EQ(lines(text).size(), 1u) << "a terminal gets one line, redrawn in place";
  EXPECT_NE(text.find("\r\x1b[K[========================] 100%  1000/1000  1.2 s  done\n"), std::string::npos);
}

TEST(ProgressDisplay, PlainOutputGetsALineASecondOnlyWhenSomethingChanged) {
  Capture out;
  ProgressDisplay display(out.get(), false, 80);
  for (uint64_t ms = 0; ms <= 5000; ms += 50) display.update(ms, std::min<uint64_t>(ms / 100, 20), 50, "a\\name");
  display.finish(6000, 50, 50, "the pass ended");
  std::vector<std::string> got = lines(out.text());
  // 0 s, 1 s, 2 s (counts 0, 10, 20); from then on the count stands still.
  ASSERT_EQ(got.size(), 4u);
  EXPECT_EQ(got[0], "progress: [>                       ]   0%  0/50  0.0 s");
  EXPECT_EQ(got[2], "progress: [=========>              ]  40%  20/50  2.0 s");
  EXPECT_EQ(got[3], "progress: [========================] 100%  50/50  6.0 s  the pass ended");
  EXPECT_EQ(out.text().find('\r'), std::string::npos);
  EXPECT_EQ(out.text().find("name"), std::string::npos) << "file names are for the terminal only";
}

}  // namespace
}  // namespace glidewell

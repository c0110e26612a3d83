// The live display of a smart-driver run: catches mode changes missed,
// repeated or misnamed (panic passes, a mode set again between two looks),
// plain output that floods or carries terminal controls, and a terminal block
// that is not redrawn over itself.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>

#include "cli/smart_display.h"
#include "cli_test_util.h"

namespace glidewell {
namespace {

std::string drain(std::FILE* f) {
  std::fflush(f);
  std::rewind(f);
  std::string text;
  for (int c; (c = std::fgetc(f)) != EOF;) text += static_cast<char>(c);
  return text;
}

SmartView viewOf(std::vector<DriveView> drives, uint64_t processed = 0) {
  SmartView v;
  v.drives = std::move(drives);
  v.status = 3;
  v.runProcessed = processed;
  return v;
}

DriveView drive(wchar_t letter, int32_t mode, uint64_t setAt, int32_t panicPass = -1) {
  DriveView d;
  d.letter = letter;
  d.mode = mode;
  d.setAt = setAt;
  d.panicPass = panicPass;
  if (setAt != 0) d.ageMs = 1000;
  return d;
}

TEST(SmartDisplay, EachModeChangeIsPrintedOnceAsItIsSeen) {
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> out(std::tmpfile(), &std::fclose);
  SmartDisplay display(out.get(), false, 200);
  DriveView d = drive(L'D', 1, 7);
  display.update(0, viewOf({drive(L'C', 0, 0), d}));
  display.update(100, viewOf({drive(L'C', 0, 0), d}));
  display.update(200, viewOf({drive(L'C', 0, 5, 0), d}));   // a panic pass begins
  display.update(300, viewOf({drive(L'C', 1, 9), d}));      // gives up: react
  display.update(400, viewOf({drive(L'C', 1, 12), d}));     // scan and back to react between two looks
  display.update(500, viewOf({drive(L'C', 1, 12), d}));
  std::vector<std::string> changes;
  for (const std::string& l : lines(drain(out.get()))) {
    if (l.find(" C: ") != std::string::npos || l.find(" D: ") != std::string::npos) {
      if (l.find(" | ") == std::string::npos) changes.push_back(l.substr(l.find("] ") + 2));
    }
  }
  EXPECT_EQ(changes, (std::vector<std::string>{"C: starts in scan, nothing stored yet", "D: starts in react, set 1 s ago",
                                               "C: scan -> panic pass 0", "C: panic pass 0 -> react",
                                               "C: react -> react (set again)"}));
  EXPECT_EQ(display.modeChanges(), 3);
}

TEST(SmartDisplay, PlainLinesOnlyForChangesOnceASecondAndATerminalBlockRedrawnInPlace) {
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> plain(std::tmpfile(), &std::fclose);
  SmartDisplay p(plain.get(), false, 80);
  p.update(0, viewOf({drive(L'C', 1, 3)}, 10));
  p.update(500, viewOf({drive(L'C', 1, 3)}, 11));   // too soon
  p.update(1600, viewOf({drive(L'C', 1, 3)}, 11));  // shows 11
  p.update(2700, viewOf({drive(L'C', 1, 3)}, 11));  // nothing new
  std::string text = drain(plain.get());
  EXPECT_EQ(text.find('\x1b'), std::string::npos);
  size_t statusLines = 0;
  for (const std::string& l : lines(text)) statusLines += l.find("| run: processed") != std::string::npos;
  EXPECT_EQ(statusLines, 2u) << text;
  EXPECT_NE(text.find("run: processed 11"), std::string::npos);

  std::unique_ptr<std::FILE, int (*)(std::FILE*)> tty(std::tmpfile(), &std::fclose);
  SmartDisplay t(tty.get(), true, 40);
  SmartView v = viewOf({drive(L'C', 1, 3), drive(L'D', 0, 0)});
  v.extra = "activity: a line far longer than the forty columns of this terminal";
  t.update(0, v);
  t.update(50, v);  // within 100 ms: not drawn
  t.update(150, v);
  std::string drawn = drain(tty.get());
  // The block (header, two drives, the run, the extra line) is drawn, then
  // once more over itself: five lines up, cleared, each line cut to the width.
  const std::string redraw = "\x1b[5F\x1b[J";
  size_t at = drawn.find(redraw);
  ASSERT_NE(at, std::string::npos) << drawn;
  EXPECT_EQ(drawn.find("\x1b[", at + redraw.size()), std::string::npos);
  for (const std::string& r : lines(drawn.substr(at + redraw.size()))) EXPECT_LE(r.size(), 39u) << r;
}

}  // namespace
}  // namespace glidewell

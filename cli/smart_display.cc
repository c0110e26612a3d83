#include "cli/smart_display.h"

#include <fmt/format.h>

#include "platform/env.h"
#include "platform/text.h"

namespace glidewell {

namespace {

constexpr uint64_t kTerminalRedrawMs = 100;
constexpr uint64_t kPlainLineMs = 1000;

std::string letterOf(wchar_t letter) { return narrow(std::wstring(1, letter)) + ":"; }
std::string passText(int32_t n) { return n < 0 ? "-" : std::to_string(n); }
std::string stamp(uint64_t nowMs) { return fmt::format("[{:6.1f} s]", static_cast<double>(nowMs) / 1000.0); }

std::optional<uint64_t> qword(HostRegistry& registry, const std::wstring& name) {
  auto v = registry.get(HostRegistry::userKey("statistics"), name);
  if (!v || v->type != REG_QWORD || v->data.size() != 8) return std::nullopt;
  uint64_t n = 0;
  for (int i = 7; i >= 0; --i) n = (n << 8) | v->data[i];
  return n;
}

std::string iterationText(const ResumeInfoView& i) {
  return fmt::format("processed {}, defragged {}, moved {}, errors {}, non-defraggable {} ({} for space)",
                     i.processed, i.defragged, i.moved, i.errors, i.nonDefraggable, i.spaceOnly);
}

std::string runText(const SmartView& v) {
  return fmt::format("processed {}, moved {}, defragged {}", v.runProcessed, v.runMoved, v.runDefragged);
}

}  // namespace

SmartObserver::SmartObserver(HostRegistry& registry, std::string installDir, std::vector<wchar_t> letters)
    : registry_(registry), installDir_(std::move(installDir)), letters_(std::move(letters)) {}

SmartView SmartObserver::read() {
  SmartView view;
  std::vector<StoredVolumeMode> modes = readVolumeModes(registry_);
  uint64_t now = Env::current()->fileTimeNow();
  if (auto info = readResumeInfo(installDir_)) lastResumeInfo_ = std::move(info);
  for (wchar_t letter : letters_) {
    DriveView d;
    d.letter = letter;
    for (const StoredVolumeMode& m : modes) {
      if (m.letter != letter) continue;
      d.mode = m.mode.value_or(0);
      if (m.setAt) {
        d.setAt = *m.setAt;
        d.ageMs = fileTimeMsBetween(*m.setAt, now);
      }
    }
    if (lastResumeInfo_) {
      for (const auto& v : lastResumeInfo_->volumes) {
        if (v.letter != letter) continue;
        d.pass = v.pass;
        d.panicPass = v.panicPass;
      }
    }
    view.drives.push_back(d);
  }
  view.status = readEngineStatus(registry_);
  view.iteration = lastResumeInfo_;
  view.runProcessed = qword(registry_, L"Processed Files").value_or(0);
  view.runMoved = qword(registry_, L"Moved Files").value_or(0);
  view.runDefragged = qword(registry_, L"Defragged Files").value_or(0);
  return view;
}

SmartDisplay::SmartDisplay(std::FILE* out, bool terminal, int width)
    : out_(out), terminal_(terminal), width_(std::max(width, 40)) {}

void SmartDisplay::printModeChanges(uint64_t nowMs, const SmartView& view) {
  std::vector<std::string> lines;
  for (const DriveView& d : view.drives) {
    std::string label = modeLabel(d.mode, d.panicPass);
    auto it = shown_.find(d.letter);
    if (it == shown_.end()) {
      std::string since = d.ageMs ? fmt::format(", set {} ago", describeAge(*d.ageMs)) : ", nothing stored yet";
      lines.push_back(fmt::format("{} {} starts in {}{}", stamp(nowMs), letterOf(d.letter), label, since));
      shown_[d.letter] = {label, d.setAt};
      continue;
    }
    if (it->second.first != label) {
      lines.push_back(fmt::format("{} {} {} -> {}", stamp(nowMs), letterOf(d.letter), it->second.first, label));
    } else if (it->second.second != d.setAt) {
      // Changed and changed back between two looks: the stored time tells.
      lines.push_back(fmt::format("{} {} {} -> {} (set again)", stamp(nowMs), letterOf(d.letter), label, label));
    } else {
      continue;
    }
    it->second = {label, d.setAt};
    modeChanges_ += 1;
  }
  if (lines.empty()) return;
  interrupt();
  for (const std::string& line : lines) fmt::print(out_, "{}\n", line);
  std::fflush(out_);
}

std::vector<std::string> SmartDisplay::block(uint64_t nowMs, const SmartView& view) const {
  std::vector<std::string> lines;
  lines.push_back(fmt::format("smart driver {:.1f} s   engine status {}", static_cast<double>(nowMs) / 1000.0,
                              statusText(view.status)));
  for (const DriveView& d : view.drives) {
    lines.push_back(fmt::format("  {}  {:<13} pass {:<4} panic pass {:<3} {}", letterOf(d.letter),
                                modeLabel(d.mode, d.panicPass), passText(d.pass), passText(d.panicPass),
                                d.ageMs ? "mode set " + describeAge(*d.ageMs) + " ago" : "no mode stored"));
  }
  if (view.iteration) lines.push_back("  last iteration: " + iterationText(*view.iteration));
  lines.push_back("  this run: " + runText(view));
  if (!view.extra.empty()) lines.push_back("  " + view.extra);
  return lines;
}

std::string SmartDisplay::plainLine(const SmartView& view) const {
  std::string line = "status " + statusText(view.status);
  for (const DriveView& d : view.drives) {
    line += fmt::format(" | {} {}, pass {}", letterOf(d.letter), modeLabel(d.mode, d.panicPass), passText(d.pass));
  }
  if (view.iteration) line += " | last iteration: " + iterationText(*view.iteration);
  line += " | run: " + runText(view);
  if (!view.extra.empty()) line += " | " + view.extra;
  return line;
}

std::string SmartDisplay::fit(const std::string& line) const {
  // A line that wraps would throw the count of lines to redraw off.
  size_t limit = static_cast<size_t>(width_ - 1);
  return line.size() > limit ? line.substr(0, limit) : line;
}

void SmartDisplay::update(uint64_t nowMs, const SmartView& view) {
  printModeChanges(nowMs, view);
  if (terminal_) {
    if (drawnLines_ > 0 && nowMs - lastDrawMs_ < kTerminalRedrawMs) return;
    interrupt();
    std::vector<std::string> lines = block(nowMs, view);
    for (const std::string& line : lines) fmt::print(out_, "{}\n", fit(line));
    drawnLines_ = static_cast<int>(lines.size());
  } else {
    std::string line = plainLine(view);
    if (started_ && (line == lastPlain_ || nowMs - lastDrawMs_ < kPlainLineMs)) return;
    fmt::print(out_, "{} {}\n", stamp(nowMs), line);
    lastPlain_ = line;
  }
  started_ = true;
  lastDrawMs_ = nowMs;
  std::fflush(out_);
}

void SmartDisplay::interrupt() {
  if (!terminal_ || drawnLines_ == 0) return;
  // To the start of the block's first line, then clear to the end of the screen.
  fmt::print(out_, "\x1b[{}F\x1b[J", drawnLines_);
  drawnLines_ = 0;
}

void SmartDisplay::finish(uint64_t nowMs, const SmartView& view, const std::string& outcome) {
  printModeChanges(nowMs, view);
  interrupt();
  for (const std::string& line : block(nowMs, view)) fmt::print(out_, "{}\n", line);
  fmt::print(out_, "{}\n", outcome);
  std::fflush(out_);
}

}  // namespace glidewell

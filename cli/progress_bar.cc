#include "cli/progress_bar.h"

#include <fmt/format.h>

#include <algorithm>

namespace glidewell {

namespace {

constexpr uint64_t kTerminalIntervalMs = 100;
constexpr uint64_t kPlainIntervalMs = 1000;
constexpr int kBarCells = 24;

// Characters, not bytes: a UTF-8 continuation byte starts no character.
size_t characters(const std::string& text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

// The last `keep` characters of text, led by "..." when anything was cut.
std::string keepTail(const std::string& text, size_t keep) {
  if (characters(text) <= keep) return text;
  if (keep <= 3) return std::string(keep, '.');
  size_t wanted = keep - 3, seen = 0, at = text.size();
  while (at > 0 && seen < wanted) {
    --at;
    if ((text[at] & 0xC0) != 0x80) ++seen;
  }
  return "..." + text.substr(at);
}

}  // namespace

std::string renderProgressLine(uint64_t done, uint64_t total, double seconds, const std::string& detail, int width) {
  std::string line;
  if (total > 0) {
    uint64_t shown = std::min(done, total);
    int filled = static_cast<int>(shown * kBarCells / total);
    std::string bar(static_cast<size_t>(filled), '=');
    if (filled < kBarCells) bar += '>';
    bar.resize(kBarCells, ' ');
    line = fmt::format("[{}] {:3}%  {}/{}", bar, shown * 100 / total, done, total);
  } else {
    line = fmt::format("{}", done);
  }
  line += fmt::format("  {:.1f} s", seconds);
  size_t limit = width > 0 ? static_cast<size_t>(width) : 0;
  if (!detail.empty() && characters(line) + 2 < limit) line += "  " + keepTail(detail, limit - characters(line) - 2);
  if (characters(line) > limit) line = keepTail(line, limit);
  return line;
}

ProgressDisplay::ProgressDisplay(std::FILE* out, bool terminal, int width)
    : out_(out), terminal_(terminal), width_(std::max(width, 20)) {}

void ProgressDisplay::update(uint64_t nowMs, uint64_t done, uint64_t total, const std::string& detail) {
  if (!started_) {
    started_ = true;
    draw(nowMs, done, total, detail);
    return;
  }
  uint64_t since = nowMs - lastDrawMs_;
  if (terminal_ ? since >= kTerminalIntervalMs : (since >= kPlainIntervalMs && done != lastDone_)) {
    draw(nowMs, done, total, detail);
  }
}

void ProgressDisplay::finish(uint64_t nowMs, uint64_t done, uint64_t total, const std::string& outcome) {
  started_ = true;
  double seconds = static_cast<double>(nowMs) / 1000.0;
  // One column is kept free: a line that fills the terminal wraps on some.
  std::string line = renderProgressLine(done, total, seconds, "", width_ - 1);
  if (!outcome.empty()) line += "  " + outcome;
  fmt::print(out_, "{}{}\n", terminal_ ? "\r\x1b[K" : "progress: ", line);
  std::fflush(out_);
  drawn_ = false;
  ++drawings_;
}

void ProgressDisplay::note(const std::string& text) {
  if (!terminal_) return;
  fmt::print(out_, "\r\x1b[K{}", keepTail(text, static_cast<size_t>(width_ - 1)));
  std::fflush(out_);
  drawn_ = true;
}

void ProgressDisplay::interrupt() {
  if (terminal_ && drawn_) {
    fmt::print(out_, "\r\x1b[K");
    std::fflush(out_);
  }
  drawn_ = false;
}

void ProgressDisplay::draw(uint64_t nowMs, uint64_t done, uint64_t total, const std::string& detail) {
  double seconds = static_cast<double>(nowMs) / 1000.0;
  std::string line = renderProgressLine(done, total, seconds, terminal_ ? detail : "", width_ - 1);
  if (terminal_) {
    fmt::print(out_, "\r\x1b[K{}", line);
  } else {
    fmt::print(out_, "progress: {}\n", line);
  }
  std::fflush(out_);
  lastDrawMs_ = nowMs;
  lastDone_ = done;
  drawn_ = true;
  ++drawings_;
}

}  // namespace glidewell

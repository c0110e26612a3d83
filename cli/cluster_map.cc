#include "cli/cluster_map.h"

#include <stb/stb_image_write.h>

#include <algorithm>
#include <array>

#include "cli/pixel_font.h"

namespace glidewell {

namespace {

constexpr int kCellPixels = 6;  // 5 pixels of colour and a 1-pixel gap
constexpr int kMargin = 12;
constexpr int kTextScale = 2;
constexpr int kLineHeight = kGlyphHeight * kTextScale;
constexpr int kSwatch = kLineHeight;

struct Rgb {
  uint8_t r, g, b;
};
constexpr Rgb kColours[] = {
    {222, 228, 234},  // free
    {92, 98, 108},    // file-system clusters
    {52, 118, 206},   // files in one piece
    {220, 60, 46},    // fragmented files
};
constexpr const char* kLegend[] = {"free", "file system", "file in one piece", "fragmented file"};
constexpr Rgb kBackground = {255, 255, 255};
constexpr Rgb kTitleInk = {20, 24, 30};
constexpr Rgb kCaptionInk = {90, 96, 106};

class Canvas {
 public:
  Canvas(int width, int height) : width_(width), height_(height), pixels_(size_t(width) * height * 3) {
    fill(0, 0, width, height, kBackground);
  }
  void fill(int x, int y, int w, int h, Rgb c) {
    for (int yy = std::max(y, 0); yy < std::min(y + h, height_); ++yy) {
      for (int xx = std::max(x, 0); xx < std::min(x + w, width_); ++xx) {
        size_t at = (size_t(yy) * width_ + xx) * 3;
        pixels_[at] = c.r;
        pixels_[at + 1] = c.g;
        pixels_[at + 2] = c.b;
      }
    }
  }
  void text(int x, int y, const std::string& s, Rgb ink) {
    for (char ch : s) {
      const uint8_t* rows = glyphRows(ch);
      for (int row = 0; row < kGlyphHeight; ++row) {
        for (int col = 0; col < kGlyphWidth; ++col) {
          if ((rows[row] >> (kGlyphWidth - 1 - col)) & 1) {
            fill(x + col * kTextScale, y + row * kTextScale, kTextScale, kTextScale, ink);
          }
        }
      }
      x += (kGlyphWidth + 1) * kTextScale;
    }
  }
  std::vector<uint8_t> take() { return std::move(pixels_); }

 private:
  int width_, height_;
  std::vector<uint8_t> pixels_;
};

int legendWidth() {
  int w = 0;
  for (const char* label : kLegend) w += kSwatch + 8 + textWidth(label, kTextScale) + 24;
  return w - 24;
}

}  // namespace

std::vector<CellState> buildCells(uint64_t totalClusters, const std::vector<MapRange>& ranges, size_t cellCount) {
  if (totalClusters == 0 || cellCount == 0) return {};
  cellCount = static_cast<size_t>(std::min<uint64_t>(cellCount, totalClusters));
  // Cell i covers clusters [start(i), start(i + 1)).
  auto start = [&](size_t cell) {
    return static_cast<uint64_t>((static_cast<unsigned __int128>(cell) * totalClusters) / cellCount);
  };
  auto cellOf = [&](uint64_t lcn) {
    return static_cast<size_t>((static_cast<unsigned __int128>(lcn) * cellCount) / totalClusters);
  };
  std::vector<std::array<uint64_t, 4>> counts(cellCount, std::array<uint64_t, 4>{});
  for (const MapRange& r : ranges) {
    if (r.first >= totalClusters || r.last < r.first) continue;
    uint64_t end = std::min(r.last, totalClusters - 1) + 1;  // exclusive
    // The cell holding r.first: the last cell whose start is at or before it
    // (the estimate may be one off where the division rounds).
    size_t c = cellOf(r.first);
    while (c > 0 && start(c) > r.first) --c;
    while (c + 1 < cellCount && start(c + 1) <= r.first) ++c;
    for (; c < cellCount && start(c) < end; ++c) {
      uint64_t lo = std::max(start(c), r.first), hi = std::min(start(c + 1), end);
      counts[c][static_cast<int>(r.state)] += hi - lo;
    }
  }
  std::vector<CellState> cells(cellCount, CellState::kFree);
  for (size_t c = 0; c < cellCount; ++c) {
    std::array<uint64_t, 4>& n = counts[c];
    uint64_t size = start(c + 1) - start(c);
    uint64_t used = n[1] + n[2] + n[3];
    n[0] = size > used ? size - used : 0;
    n[3] *= 2;
    int best = 0;
    for (int s = 1; s < 4; ++s) {
      if (n[s] >= n[best]) best = s;
    }
    cells[c] = static_cast<CellState>(best);
  }
  return cells;
}

std::vector<uint8_t> renderClusterMap(const ClusterMapPicture& picture, int* width, int* height) {
  int columns = std::max(picture.columns, 1);
  int rows = static_cast<int>((picture.cells.size() + columns - 1) / columns);
  int gridWidth = columns * kCellPixels + 1;
  int contentWidth = std::max({gridWidth, textWidth(picture.title, kTextScale),
                               textWidth(picture.caption, kTextScale), legendWidth()});
  int w = contentWidth + 2 * kMargin;
  int titleY = kMargin;
  int captionY = titleY + kLineHeight + 8;
  int gridY = captionY + kLineHeight + 12;
  int legendY = gridY + rows * kCellPixels + 1 + 14;
  int h = legendY + kSwatch + kMargin;
  Canvas canvas(w, h);
  canvas.text(kMargin, titleY, picture.title, kTitleInk);
  canvas.text(kMargin, captionY, picture.caption, kCaptionInk);
  for (size_t i = 0; i < picture.cells.size(); ++i) {
    int row = static_cast<int>(i / columns), col = static_cast<int>(i % columns);
    canvas.fill(kMargin + col * kCellPixels + 1, gridY + row * kCellPixels + 1, kCellPixels - 1, kCellPixels - 1,
                kColours[static_cast<int>(picture.cells[i])]);
  }
  int x = kMargin;
  for (int k = 0; k < 4; ++k) {
    canvas.fill(x, legendY, kSwatch, kSwatch, kColours[k]);
    x += kSwatch + 8;
    canvas.text(x, legendY, kLegend[k], kTitleInk);
    x += textWidth(kLegend[k], kTextScale) + 24;
  }
  *width = w;
  *height = h;
  return canvas.take();
}

bool writeClusterMapPng(const std::string& path, const ClusterMapPicture& picture, std::string* error) {
  if (picture.cells.empty()) {
    if (error != nullptr) *error = "nothing to draw";
    return false;
  }
  int width = 0, height = 0;
  std::vector<uint8_t> pixels = renderClusterMap(picture, &width, &height);
  if (stbi_write_png(path.c_str(), width, height, 3, pixels.data(), width * 3) == 0) {
    if (error != nullptr) *error = "cannot write " + path;
    return false;
  }
  return true;
}

}  // namespace glidewell

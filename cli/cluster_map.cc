#include "cli/cluster_map.h"

#include <stb/stb_image_write.h>

#include <algorithm>

namespace glidewell {

namespace {
constexpr int kCellPixels = 5;  // 4 pixels of colour and a 1-pixel gap
struct Rgb {
  uint8_t r, g, b;
};
constexpr Rgb kColours[] = {
    {236, 240, 244},  // free
    {120, 124, 130},  // file-system clusters
    {46, 110, 200},   // files in one piece
    {214, 64, 52},    // fragmented files
};
}  // namespace

std::vector<CellState> buildCells(uint64_t totalClusters, const std::vector<MapRange>& ranges, size_t cellCount) {
  if (totalClusters == 0 || cellCount == 0) return {};
  cellCount = static_cast<size_t>(std::min<uint64_t>(cellCount, totalClusters));
  std::vector<CellState> cells(cellCount, CellState::kFree);
  // Cell i covers clusters [i * total / n, (i + 1) * total / n).
  auto cellOf = [&](uint64_t lcn) {
    return static_cast<size_t>((static_cast<unsigned __int128>(lcn) * cellCount) / totalClusters);
  };
  for (const MapRange& r : ranges) {
    if (r.first >= totalClusters || r.last < r.first) continue;
    uint64_t last = std::min(r.last, totalClusters - 1);
    for (size_t c = cellOf(r.first), end = cellOf(last); c <= end; ++c) {
      if (r.state > cells[c]) cells[c] = r.state;
    }
  }
  return cells;
}

bool writeClusterMapPng(const std::string& path, const std::vector<CellState>& cells, int columns,
                        std::string* error) {
  if (columns <= 0 || cells.empty()) {
    if (error != nullptr) *error = "nothing to draw";
    return false;
  }
  int rows = static_cast<int>((cells.size() + columns - 1) / columns);
  int legendRows = 2;  // a strip of the four colours, for orientation
  int width = columns * kCellPixels + 1;
  int height = (rows + legendRows) * kCellPixels + 1;
  std::vector<uint8_t> pixels(static_cast<size_t>(width) * height * 3, 255);
  auto fillCell = [&](int row, int col, Rgb colour) {
    for (int y = 0; y < kCellPixels - 1; ++y) {
      for (int x = 0; x < kCellPixels - 1; ++x) {
        size_t at = (static_cast<size_t>(row * kCellPixels + 1 + y) * width + col * kCellPixels + 1 + x) * 3;
        pixels[at] = colour.r;
        pixels[at + 1] = colour.g;
        pixels[at + 2] = colour.b;
      }
    }
  };
  for (size_t i = 0; i < cells.size(); ++i) {
    fillCell(static_cast<int>(i / columns), static_cast<int>(i % columns), kColours[static_cast<int>(cells[i])]);
  }
  for (int k = 0; k < 4 && k * 4 < columns; ++k) {
    for (int j = 0; j < 3 && k * 4 + j < columns; ++j) fillCell(rows + 1, k * 4 + j, kColours[k]);
  }
  if (stbi_write_png(path.c_str(), width, height, 3, pixels.data(), width * 3) == 0) {
    if (error != nullptr) *error = "cannot write " + path;
    return false;
  }
  return true;
}

}  // namespace glidewell

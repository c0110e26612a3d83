// A 5x7 pixel font for the captions of the cluster-map pictures: capital
// letters (small ones are drawn as capitals), digits and common punctuation.
#ifndef GLIDEWELL_CLI_PIXEL_FONT_H_
#define GLIDEWELL_CLI_PIXEL_FONT_H_

#include <cstdint>
#include <string>

namespace glidewell {

constexpr int kGlyphWidth = 5;
constexpr int kGlyphHeight = 7;

// Seven rows of five bits, the leftmost pixel in bit 4. A character the font
// lacks is drawn as '?'.
const uint8_t* glyphRows(char c);

// Width in pixels of text drawn at `scale` (one blank column between glyphs).
int textWidth(const std::string& text, int scale);

}  // namespace glidewell

#endif  // GLIDEWELL_CLI_PIXEL_FONT_H_

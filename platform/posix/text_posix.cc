// Narrow text is UTF-8 on POSIX systems.
#include <cstdint>

#include "platform/text.h"

namespace glidewell {

std::string narrow(const std::wstring& text) {
  std::string out;
  out.reserve(text.size());
  for (wchar_t wc : text) {
    uint32_t c = static_cast<uint32_t>(wc);
    if (c < 0x80) {
      out.push_back(static_cast<char>(c));
    } else if (c < 0x800) {
      out.push_back(static_cast<char>(0xC0 | (c >> 6)));
      out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else if (c < 0x10000) {
      out.push_back(static_cast<char>(0xE0 | (c >> 12)));
      out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else if (c <= 0x10FFFF) {
      out.push_back(static_cast<char>(0xF0 | (c >> 18)));
      out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else {
      out.push_back('?');
    }
  }
  return out;
}

std::wstring widen(const std::string& text) {
  std::wstring out;
  out.reserve(text.size());
  size_t i = 0;
  while (i < text.size()) {
    uint8_t b = static_cast<uint8_t>(text[i]);
    uint32_t c;
    int extra;
    if (b < 0x80) {
      c = b;
      extra = 0;
    } else if ((b & 0xE0) == 0xC0) {
      c = b & 0x1F;
      extra = 1;
    } else if ((b & 0xF0) == 0xE0) {
      c = b & 0x0F;
      extra = 2;
    } else if ((b & 0xF8) == 0xF0) {
      c = b & 0x07;
      extra = 3;
    } else {
      out.push_back(static_cast<wchar_t>(0xFFFD));  // stray byte
      ++i;
      continue;
    }
    bool ok = true;
    for (int k = 1; k <= extra; ++k) {
      if (i + k >= text.size() || (static_cast<uint8_t>(text[i + k]) & 0xC0) != 0x80) {
        ok = false;
        break;
      }
      c = (c << 6) | (static_cast<uint8_t>(text[i + k]) & 0x3F);
    }
    if (!ok) {
      out.push_back(static_cast<wchar_t>(0xFFFD));
      ++i;
      continue;
    }
    out.push_back(static_cast<wchar_t>(c));
    i += extra + 1;
  }
  return out;
}

}  // namespace glidewell

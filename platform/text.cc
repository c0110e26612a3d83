#include "platform/text.h"

namespace glidewell {

// wchar_t is 16 bits on Windows (already UTF-16) and 32 bits elsewhere.
std::u16string toUtf16(const std::wstring& text) {
  std::u16string out;
  out.reserve(text.size());
  for (wchar_t wc : text) {
    uint32_t c = static_cast<uint32_t>(wc);
    if (sizeof(wchar_t) > 2 && c > 0xFFFF && c <= 0x10FFFF) {
      c -= 0x10000;
      out.push_back(static_cast<char16_t>(0xD800 + (c >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + (c & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(c));
    }
  }
  return out;
}

std::wstring fromUtf16(const char16_t* units, size_t count) {
  std::wstring out;
  out.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    uint32_t c = units[i];
    if (sizeof(wchar_t) > 2 && c >= 0xD800 && c < 0xDC00 && i + 1 < count && units[i + 1] >= 0xDC00 &&
        units[i + 1] < 0xE000) {
      c = 0x10000 + ((c - 0xD800) << 10) + (units[i + 1] - 0xDC00);
      ++i;
    }
    out.push_back(static_cast<wchar_t>(c));
  }
  return out;
}

}  // namespace glidewell

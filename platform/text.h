// Conversions between the engine's two kinds of text.
//
// Wide text (std::wstring) holds paths, file names and registry value names;
// it is UTF-16 on Windows and UTF-32 elsewhere, and every file format writes it
// as UTF-16 code units (toUtf16 / fromUtf16). Narrow text (std::string) holds
// log text and messages: the ANSI code page on Windows, UTF-8 elsewhere.
#ifndef GLIDEWELL_PLATFORM_TEXT_H_
#define GLIDEWELL_PLATFORM_TEXT_H_

#include <cstddef>
#include <string>

namespace glidewell {

std::string narrow(const std::wstring& text);
std::wstring widen(const std::string& text);

// UTF-16 code units of wide text (surrogate pairs for characters past U+FFFF).
std::u16string toUtf16(const std::wstring& text);
// Wide text from UTF-16 code units; unpaired surrogates are kept as they are.
std::wstring fromUtf16(const char16_t* units, size_t count);
inline std::wstring fromUtf16(const std::u16string& units) { return fromUtf16(units.data(), units.size()); }

}  // namespace glidewell

#endif  // GLIDEWELL_PLATFORM_TEXT_H_

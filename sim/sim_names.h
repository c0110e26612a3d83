// Names and paths of the simulated disk. Names are kept as UTF-16 code units,
// as NTFS keeps them, and compare the way an NTFS directory index orders them:
// code unit by code unit after upper-casing, so "a" and "A" are the same name.
#ifndef GLIDEWELL_SIM_SIM_NAMES_H_
#define GLIDEWELL_SIM_SIM_NAMES_H_

#include <string>
#include <vector>

namespace glidewell {

// The upper-case form of one UTF-16 code unit (ASCII, Latin-1, Latin
// Extended-A, Greek, Cyrillic and full-width Latin; others are their own).
char16_t upcaseUnit(char16_t c);

// <0, 0, >0 in directory order (case-insensitive, code-unit order).
int compareNames(const std::u16string& a, const std::u16string& b);
inline bool sameName(const std::u16string& a, const std::u16string& b) { return compareNames(a, b) == 0; }

// A name a file may have: 1-255 units, no control characters, none of
// \ / : * ? " < > |, and not "." or "..".
bool isValidName(const std::u16string& name);

// Splits a path relative to the volume root at "\" (and "/"); empty
// components (doubled or leading separators) are dropped.
std::vector<std::u16string> splitPath(const std::wstring& path);
std::wstring joinPath(const std::vector<std::u16string>& components);

// FindFirstFile patterns: '*' and '?' wildcards, case-insensitive; a trailing
// ".*" also matches names without an extension ("*.*" matches everything).
bool matchesPattern(const std::u16string& name, const std::u16string& pattern);

}  // namespace glidewell

#endif  // GLIDEWELL_SIM_SIM_NAMES_H_

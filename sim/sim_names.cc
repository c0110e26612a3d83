#include "sim/sim_names.h"

#include "platform/text.h"

namespace glidewell {

char16_t upcaseUnit(char16_t c) {
  if (c < 0x80) return (c >= u'a' && c <= u'z') ? static_cast<char16_t>(c - 0x20) : c;
  if (c >= 0xE0 && c <= 0xFE && c != 0xF7) return static_cast<char16_t>(c - 0x20);
  if (c == 0xFF) return 0x178;
  if (c >= 0x100 && c <= 0x17F) {
    // Latin Extended-A pairs an upper-case letter with the lower-case one after
    // it; 0x139-0x148 and 0x179-0x17E start the pairs one unit later.
    bool oddPairs = (c >= 0x139 && c <= 0x148) || (c >= 0x179 && c <= 0x17E);
    if (c == 0x130 || c == 0x131 || c == 0x138 || c == 0x149 || c == 0x178 || c == 0x17F) return c;
    bool lower = oddPairs ? (c % 2 == 0) : (c % 2 == 1);
    return lower ? static_cast<char16_t>(c - 1) : c;
  }
  if (c >= 0x3B1 && c <= 0x3C9) return c == 0x3C2 ? char16_t{0x3A3} : static_cast<char16_t>(c - 0x20);
  if (c >= 0x430 && c <= 0x44F) return static_cast<char16_t>(c - 0x20);
  if (c >= 0x450 && c <= 0x45F) return static_cast<char16_t>(c - 0x50);
  if (c >= 0xFF41 && c <= 0xFF5A) return static_cast<char16_t>(c - 0x20);
  return c;
}

int compareNames(const std::u16string& a, const std::u16string& b) {
  size_t n = a.size() < b.size() ? a.size() : b.size();
  for (size_t i = 0; i < n; ++i) {
    char16_t x = a[i], y = b[i];
    if (x == y) continue;  // most units of two names in one directory are equal
    x = upcaseUnit(x);
    y = upcaseUnit(y);
    if (x != y) return x < y ? -1 : 1;
  }
  if (a.size() == b.size()) return 0;
  return a.size() < b.size() ? -1 : 1;
}

bool isValidName(const std::u16string& name) {
  if (name.empty() || name.size() > 255 || name == u"." || name == u"..") return false;
  for (char16_t c : name) {
    if (c < 0x20) return false;
    switch (c) {
      case u'\\': case u'/': case u':': case u'*': case u'?': case u'"': case u'<': case u'>': case u'|':
        return false;
      default:
        break;
    }
  }
  return true;
}

std::vector<std::u16string> splitPath(const std::wstring& path) {
  std::vector<std::u16string> parts;
  std::wstring current;
  for (wchar_t c : path) {
    if (c == L'\\' || c == L'/') {
      if (!current.empty()) parts.push_back(toUtf16(current));
      current.clear();
    } else {
      current += c;
    }
  }
  if (!current.empty()) parts.push_back(toUtf16(current));
  return parts;
}

std::wstring joinPath(const std::vector<std::u16string>& components) {
  std::wstring out;
  for (size_t i = 0; i < components.size(); ++i) {
    if (i > 0) out += L'\\';
    out += fromUtf16(components[i]);
  }
  return out;
}

namespace {

bool glob(const char16_t* name, size_t n, const char16_t* pat, size_t p) {
  // Iterative matcher with one backtrack point for the last '*'.
  size_t i = 0, j = 0, star = std::u16string::npos, mark = 0;
  while (i < n) {
    if (j < p && (pat[j] == u'?' || upcaseUnit(pat[j]) == upcaseUnit(name[i]))) {
      ++i;
      ++j;
    } else if (j < p && pat[j] == u'*') {
      star = j++;
      mark = i;
    } else if (star != std::u16string::npos) {
      j = star + 1;
      i = ++mark;
    } else {
      return false;
    }
  }
  while (j < p && pat[j] == u'*') ++j;
  return j == p;
}

}  // namespace

bool matchesPattern(const std::u16string& name, const std::u16string& pattern) {
  if (glob(name.data(), name.size(), pattern.data(), pattern.size())) return true;
  size_t n = pattern.size();
  if (n >= 2 && pattern[n - 2] == u'.' && pattern[n - 1] == u'*') {
    return glob(name.data(), name.size(), pattern.data(), n - 2);
  }
  return false;
}

}  // namespace glidewell

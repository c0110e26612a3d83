// Narrow text is the ANSI code page on Windows; characters it cannot hold
// become the code page's default character, as in every ANSI system call.
// The conversion calls count in int: text of 2 GiB or more (which no path,
// name or message reaches) converts to nothing rather than to a wrong length.
#include <climits>

#include "platform/text.h"
#include "platform/wintypes.h"

namespace glidewell {

std::string narrow(const std::wstring& text) {
  if (text.empty() || text.size() > INT_MAX) return std::string();
  int n = static_cast<int>(text.size());
  int bytes = ::WideCharToMultiByte(CP_ACP, 0, text.data(), n, nullptr, 0, nullptr, nullptr);
  if (bytes <= 0) return std::string();
  std::string out(static_cast<size_t>(bytes), '\0');
  ::WideCharToMultiByte(CP_ACP, 0, text.data(), n, &out[0], bytes, nullptr, nullptr);
  return out;
}

std::wstring widen(const std::string& text) {
  if (text.empty() || text.size() > INT_MAX) return std::wstring();
  int n = static_cast<int>(text.size());
  int chars = ::MultiByteToWideChar(CP_ACP, 0, text.data(), n, nullptr, 0);
  if (chars <= 0) return std::wstring();
  std::wstring out(static_cast<size_t>(chars), L'\0');
  ::MultiByteToWideChar(CP_ACP, 0, text.data(), n, &out[0], chars);
  return out;
}

}  // namespace glidewell

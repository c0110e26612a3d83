#include "support/temp_dir.h"

#include <stdlib.h>

#include <cstdlib>
#include <filesystem>

#include "platform/text.h"

namespace glidewell {

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/glidewell-test-XXXXXX";
  char* made = ::mkdtemp(&pattern[0]);
  dir_ = made != nullptr ? made : "";
}

TempDir::~TempDir() {
  std::error_code ignored;
  if (!dir_.empty()) std::filesystem::remove_all(dir_, ignored);
}

std::wstring TempDir::path() const { return widen(dir_) + L"/"; }

}  // namespace glidewell

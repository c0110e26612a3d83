#include "logging/configurable.h"

namespace glidewell {

bool settingIsTrue(const std::string& text) { return text == "true" || text == "1"; }

std::string Configurable::setting(const std::string& key, const std::string& fallback) {
  auto inserted = settings_.emplace(key, fallback);
  return inserted.first->second;
}

}  // namespace glidewell

// Configurable: the common base of every appender, layout and filter of the
// logging configuration. Each object carries its settings as a map of text
// keys to text values, filled from logconfig.xml, and reads the keys it knows
// in configure().
#ifndef GLIDEWELL_LOGGING_CONFIGURABLE_H_
#define GLIDEWELL_LOGGING_CONFIGURABLE_H_

#include <map>
#include <string>

namespace glidewell {

// Settings ordered by key with plain byte comparison. Keys are element paths
// below <settings>: "filename", "includeTime/timeformat".
using LogSettings = std::map<std::string, std::string>;

// A boolean setting is true exactly when its text is "true" or "1".
bool settingIsTrue(const std::string& text);

class Configurable {
 public:
  Configurable() = default;
  virtual ~Configurable() = default;
  Configurable(const Configurable&) = delete;
  Configurable& operator=(const Configurable&) = delete;

  // Reads the settings the concrete class knows. Called once, and only when
  // the configuration file gave the object at least one setting.
  virtual void configure() {}

  // The value of key; when the key is absent, fallback is stored under it
  // and returned (so the map shows every default that was used).
  std::string setting(const std::string& key, const std::string& fallback);
  bool flagSetting(const std::string& key, const std::string& fallback) {
    return settingIsTrue(setting(key, fallback));
  }
  // Writes a key, replacing an earlier value.
  void setSetting(const std::string& key, const std::string& value) { settings_[key] = value; }
  const LogSettings& settings() const { return settings_; }

 private:
  LogSettings settings_;
};

}  // namespace glidewell

#endif  // GLIDEWELL_LOGGING_CONFIGURABLE_H_

#include "cli/log_config_file.h"

#include "cli/host_files.h"

namespace glidewell {

namespace {

std::string xmlEscape(const std::string& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      default: out += c;
    }
  }
  return out;
}

}  // namespace

bool fitLogConfigToHost(const std::string& text, const std::string& logFilePath, std::string* out) {
  std::string xml = text;
  const std::string nameStart = "<filename value=\"";
  size_t at = xml.find(nameStart);
  if (at == std::string::npos) return false;
  size_t valueStart = at + nameStart.size();
  size_t valueEnd = xml.find('"', valueStart);
  if (valueEnd == std::string::npos) return false;
  xml.replace(valueStart, valueEnd - valueStart, xmlEscape(logFilePath));

  size_t begin = xml.find("<appender name=\"StdAppender\"");
  if (begin == std::string::npos) return false;
  size_t end = xml.find("</appender>", begin);
  if (end == std::string::npos) return false;
  end += std::string("</appender>").size();
  // Take the comment that introduces the appender along with it.
  size_t lineStart = xml.rfind('\n', begin);
  lineStart = lineStart == std::string::npos ? 0 : lineStart + 1;
  size_t before = xml.find_last_not_of(" \t\r\n", begin - 1);
  if (before != std::string::npos && before >= 2 && xml.compare(before - 2, 3, "-->") == 0) {
    size_t comment = xml.rfind("<!--", before);
    if (comment != std::string::npos) {
      size_t commentLine = xml.rfind('\n', comment);
      lineStart = commentLine == std::string::npos ? 0 : commentLine + 1;
    }
  }
  size_t lineEnd = xml.find('\n', end);
  lineEnd = lineEnd == std::string::npos ? xml.size() : lineEnd + 1;
  xml.erase(lineStart, lineEnd - lineStart);
  if (xml.find("<appender name=\"StdAppender\"") != std::string::npos) return false;
  *out = xml;
  return true;
}

std::string installLogConfig(const std::string& installDir) {
  std::string logFile = installDir + "glidewell.log";
  std::string configDir = installDir + "config";
  std::string path = configDir + "/logconfig.xml";
  if (isRegularFile(path)) return logFile;
  std::string xml;
  if (!fitLogConfigToHost(defaultLogConfigText(), logFile, &xml)) {
    throw HostError("the built-in logging configuration has an unexpected shape");
  }
  prepareDirectory(configDir);
  writeFileAtomically(path, std::vector<uint8_t>(xml.begin(), xml.end()));
  return logFile;
}

}  // namespace glidewell

#include "logging/simple_layout.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include "platform/env.h"

namespace glidewell {

namespace {

// The conversions of the C90 strftime, which every runtime implements.
bool portableConversion(char c) { return c != '\0' && std::strchr("aAbBcdHIjmMpSUwWxXyYZ%", c) != nullptr; }

int dayOfYear(const SYSTEMTIME& t) {
  static const int kBefore[12] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
  int month = t.wMonth >= 1 && t.wMonth <= 12 ? t.wMonth : 1;
  bool leap = (t.wYear % 4 == 0 && t.wYear % 100 != 0) || t.wYear % 400 == 0;
  return kBefore[month - 1] + (leap && month > 2 ? 1 : 0) + t.wDay - 1;
}

}  // namespace

void SimpleLayout::configure() {
  includeTime_ = flagSetting("includeTime", "false");
  if (includeTime_) timeFormat_ = setting("includeTime/timeformat", "%X");
  includeThread_ = flagSetting("includeThread", "false");
  includeProperties_ = flagSetting("includeProperties", "false");
  includePriorities_ = flagSetting("includePriorities", "false");
}

std::string SimpleLayout::timeText(const std::string& format, const SYSTEMTIME& now) {
  if (format == "%ms") {
    char buf[48];
    std::snprintf(buf, sizeof(buf), "%02u:%02u:%02u.%u", unsigned{now.wHour}, unsigned{now.wMinute},
                  unsigned{now.wSecond}, unsigned{now.wMilliseconds});
    return buf;
  }
  std::string safe;
  for (size_t i = 0; i < format.size(); ++i) {
    safe += format[i];
    if (format[i] != '%') continue;
    if (i + 1 < format.size() && portableConversion(format[i + 1])) {
      safe += format[++i];
    } else {
      safe += '%';  // "%%": the lone "%" is printed as it stands
    }
  }
  struct tm tmv = {};
  tmv.tm_year = now.wYear - 1900;
  tmv.tm_mon = now.wMonth - 1;
  tmv.tm_mday = now.wDay;
  tmv.tm_hour = now.wHour;
  tmv.tm_min = now.wMinute;
  tmv.tm_sec = now.wSecond;
  tmv.tm_wday = now.wDayOfWeek;
  tmv.tm_yday = dayOfYear(now);
  tmv.tm_isdst = -1;
  std::vector<char> buf(2048);
  size_t n = std::strftime(buf.data(), buf.size(), safe.c_str(), &tmv);
  return std::string(buf.data(), n);  // 0 when the text does not fit: no time
}

std::string SimpleLayout::loggerPath(const Logger* logger) {
  std::string path;
  for (const Logger* l = logger; l != nullptr; l = l->parent()) {
    path = path.empty() ? l->name() : l->name() + "." + path;
  }
  return path;
}

void SimpleLayout::renderProperties(const LogPropertyList& properties, int depth, std::string* out) {
  for (const LogProperty& p : properties) {
    out->append(static_cast<size_t>(depth), ' ');
    *out += p.name();
    *out += ": ";
    *out += p.value();
    *out += '\n';
    renderProperties(p.children(), depth + 1, out);
  }
}

std::string SimpleLayout::format(const LoggingEvent& event) const {
  std::string line = loggerPath(event.logger) + ": -> " + event.message;
  if (includePriorities_) line = "(" + priorityName(event.priority) + ") " + line;
  if (includeThread_) {
    if (const LogThread* thread = currentLogThread()) line = "(" + thread->name + ")" + line;
  }
  if (includeTime_) line = "(" + timeText(timeFormat_, Env::current()->localTime()) + ")" + line;
  if (includeProperties_ && event.properties != nullptr && !event.properties->empty()) {
    line += '\n';
    renderProperties(*event.properties, 0, &line);
  }
  return line;
}

std::string SimpleLayout::formatBrief(const LoggingEvent& event) const {
  if (!includeTime_) return event.message;
  return "(" + timeText(timeFormat_, Env::current()->localTime()) + "): " + event.message;
}

}  // namespace glidewell

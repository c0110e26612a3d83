#include "logging/std_appender.h"

#include <iostream>

namespace glidewell {

StdAppender::StdAppender() : out_(std::cout) {}

void StdAppender::configure() { serializer_.enable(flagSetting("multithreading", "false")); }

void StdAppender::append(const LoggingEvent& event) {
  AppenderSerializer::Scope scope(serializer_);
  std::string text = render(event);
  text += '\n';
  // A detached or closed standard output just swallows the line.
  out_.write(text.data(), static_cast<std::streamsize>(text.size()));
  out_.flush();
  out_.clear();
}

}  // namespace glidewell

// FileAppender ("FileAppender" in logconfig.xml): writes each message as one
// line (ended by CR LF) to a log file, and flushes the file after every line,
// so that a message is on disk when append returns (the crash report relies
// on it). The file is created afresh by configure, replacing a log of an
// earlier run; there is no rotation and no size limit.
#ifndef GLIDEWELL_LOGGING_FILE_APPENDER_H_
#define GLIDEWELL_LOGGING_FILE_APPENDER_H_

#include <memory>
#include <string>

#include "logging/appender.h"
#include "platform/env.h"

namespace glidewell {

class FileAppender : public Appender {
 public:
  FileAppender() = default;
  ~FileAppender() override = default;

  // Settings: "filename" (default "log.txt"; relative to the current
  // directory unless absolute), "postfix" (default ""), "multithreading"
  // (default "false"). Opens the file when its name changed. A file that
  // cannot be created leaves the appender silent for the rest of the run.
  void configure() override;
  void append(const LoggingEvent& event) override;

  // The name actually opened (with the postfix); empty until configured.
  const std::string& fileName() const { return fileName_; }
  bool isOpen() const { return file_ != nullptr; }
  bool multithreading() const { return serializer_.enabled(); }

  // "log.txt" + "_svc" -> "log_svc.txt"; a name without "." stays as it is.
  static std::string withPostfix(const std::string& name, const std::string& postfix);

 private:
  AppenderSerializer serializer_;
  std::string fileName_;
  std::string postfix_;
  std::unique_ptr<File> file_;
};

}  // namespace glidewell

#endif  // GLIDEWELL_LOGGING_FILE_APPENDER_H_

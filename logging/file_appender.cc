#include "logging/file_appender.h"

#include <algorithm>
#include <limits>

#include "platform/text.h"

namespace glidewell {

std::string FileAppender::withPostfix(const std::string& name, const std::string& postfix) {
  size_t dot = name.rfind('.');
  if (postfix.empty() || dot == std::string::npos) return name;
  return name.substr(0, dot) + postfix + name.substr(dot);
}

void FileAppender::configure() {
  serializer_.enable(false);
  postfix_ = setting("postfix", "");
  std::string name = withPostfix(setting("filename", "log.txt"), postfix_);
  if (name != fileName_) {
    file_.reset();
    fileName_ = name;
    if (!name.empty()) {
      DWORD error = 0;
      file_ = Env::current()->openFile(widen(name), FileOpen::kCreateShareRead, &error);
    }
  }
  serializer_.enable(flagSetting("multithreading", "false"));
}

void FileAppender::append(const LoggingEvent& event) {
  AppenderSerializer::Scope scope(serializer_);
  if (file_ == nullptr) return;
  std::string text = render(event) + "\r\n";
  // One write call per line; only a line beyond 4 GiB would need more.
  const char* p = text.data();
  size_t left = text.size();
  while (left > 0) {
    uint32_t piece = static_cast<uint32_t>(std::min<size_t>(left, std::numeric_limits<uint32_t>::max()));
    uint32_t done = 0;
    if (!file_->write(p, piece, &done) || done == 0) break;  // a failed write loses this line only
    p += done;
    left -= done;
  }
  file_->flush();
}

}  // namespace glidewell

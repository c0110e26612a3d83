// PausePipeClient: the client end of the host service's pause pipe. An
// instance holds it open for as long as it exists; the engine never reads or
// writes it. No error of the pipe is reported: an instance without the
// connection works exactly like one with it.
#ifndef GLIDEWELL_API_PAUSE_PIPE_CLIENT_H_
#define GLIDEWELL_API_PAUSE_PIPE_CLIENT_H_

#include <memory>
#include <string>

#include "platform/env.h"

namespace glidewell {

constexpr const wchar_t* kPausePipeName = L"\\\\.\\pipe\\QuorvaneDefragServicePausePipe";

class PausePipeClient {
 public:
  explicit PausePipeClient(std::wstring name) : name_(std::move(name)) {}
  virtual ~PausePipeClient() { close(); }
  PausePipeClient(const PausePipeClient&) = delete;
  PausePipeClient& operator=(const PausePipeClient&) = delete;

  // Opens the client end. While every instance of the pipe is busy it waits up
  // to 1000 ms for one and tries again, for as long as each wait succeeds.
  bool connect();
  // Closes the connection (harmless when there is none). Always true.
  bool close();
  bool connected() const { return handle_ != nullptr; }

 private:
  std::unique_ptr<OsHandle> handle_;
  std::wstring name_;
};

}  // namespace glidewell

#endif  // GLIDEWELL_API_PAUSE_PIPE_CLIENT_H_

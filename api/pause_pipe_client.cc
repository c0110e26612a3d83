#include "api/pause_pipe_client.h"

namespace glidewell {

bool PausePipeClient::connect() {
  Env* env = Env::current();
  for (;;) {
    DWORD error = 0;
    handle_ = env->openPipeClient(name_, &error);
    if (handle_) return true;
    if (error != ERROR_PIPE_BUSY) return false;
    if (!env->waitNamedPipe(name_, 1000)) return false;
  }
}

bool PausePipeClient::close() {
  handle_.reset();
  return true;
}

}  // namespace glidewell

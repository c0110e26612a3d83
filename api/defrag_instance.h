// DefragInstance: the record behind the handle a host holds. The host never
// looks inside it.
#ifndef GLIDEWELL_API_DEFRAG_INSTANCE_H_
#define GLIDEWELL_API_DEFRAG_INSTANCE_H_

#include <memory>

#include "api/pause_pipe_client.h"
#include "engine/engine.h"
#include "platform/sync.h"

namespace glidewell {

struct DefragInstance {
  // Auto-reset; the worker signals it as its last act, dfrg_isRunning polls
  // it. Declared first so it is destroyed last, after the engine and its worker.
  std::unique_ptr<Event> doneEvent;
  std::unique_ptr<engine> owner;
  std::unique_ptr<PausePipeClient> pausePipe;
};

}  // namespace glidewell

#endif  // GLIDEWELL_API_DEFRAG_INSTANCE_H_

// CDfrgContext: the state of one volume during a run: its volume object, its
// free-space snapshot (with the lock that guards it, both kept by the
// CVolumeContext base), the run and stop events through which the host pauses
// and stops the worker, and the driver's per-volume pass state.
#ifndef GLIDEWELL_ENGINE_DFRG_CONTEXT_H_
#define GLIDEWELL_ENGINE_DFRG_CONTEXT_H_

#include <cstdint>
#include <memory>

#include "changes/change_tracker.h"
#include "platform/sync.h"
#include "volume/volume_context.h"
#include "volume/volume_system.h"

namespace glidewell {

class CDfrgConfig;

class CDfrgContext : public CVolumeContext {
 public:
  // Takes ownership of the volume. config may be null (settings then take
  // their defaults).
  CDfrgContext(std::unique_ptr<CVolumeSystem> volume, int index, CDfrgConfig* config);
  ~CDfrgContext() override;
  CDfrgContext(const CDfrgContext&) = delete;
  CDfrgContext& operator=(const CDfrgContext&) = delete;

  // Sets the stop event: the next checkState on this context throws -2.
  void stopAll();
  // true: reset the run event (the worker blocks in its next checkState);
  // false: set it again.
  void pause(bool pause);

  CVolumeSystem& volume() const override { return *volume_; }
  CDfrgConfig* config() const override { return config_; }
  // The free function checkState below, on this context.
  void checkState() override;

  Event runEvent{true, true};   // set = running
  Event stopEvent{true, false};  // set = stop
  int index;
  std::unique_ptr<CChangeTracker> changeTracker;  // used by the smart driver
  int32_t pass = -1;
  int32_t panicPass = -1;
  bool blocked = false;         // the volume could not be opened; see blockUntil
  uint32_t blockUntil = 0;      // milliseconds of the system clock

 private:
  std::unique_ptr<CVolumeSystem> volume_;
  CDfrgConfig* config_;
};

// The stop and pause check of every long loop: returns at once when less than
// 500 ms passed since the last check (process-wide); otherwise blocks while the
// context is paused and throws CDfrgException(-2) when its stop event is set.
void checkState(CDfrgContext& ctx);

// Forgets the time of the last check, so the next checkState really checks.
// For tests that need a deterministic check.
void resetCheckStateClock();

}  // namespace glidewell

#endif  // GLIDEWELL_ENGINE_DFRG_CONTEXT_H_

// CVolumeContext: what the volume layer needs from the context in which a
// volume is being worked on: the volume itself, the settings it reads, the
// stop and pause check of long loops, and the free-space snapshot with the
// lock that guards it.
//
// The engine's CDfrgContext is the context of a run; CStandaloneContext below
// serves code that reads a volume outside a run (an image being saved in the
// dump format, a tool that analyses a volume).
#ifndef GLIDEWELL_VOLUME_VOLUME_CONTEXT_H_
#define GLIDEWELL_VOLUME_VOLUME_CONTEXT_H_

#include <memory>

#include "platform/sync.h"
#include "volume/extent_snapshot.h"
#include "volume/volume_system.h"

namespace glidewell {

class CDfrgConfig;

class CVolumeContext {
 public:
  virtual ~CVolumeContext() = default;

  virtual CVolumeSystem& volume() const = 0;
  // The settings of the run; null when they take their defaults.
  virtual CDfrgConfig* config() const = 0;
  // Called between steps of every long loop: blocks while the run is paused
  // and throws CDfrgException(-2) when a stop was requested.
  virtual void checkState() = 0;

  RecursiveLock lock;                         // guards the snapshot
  std::unique_ptr<CExtentSnapshot> snapshot;  // null until first built
};

// A context with no run around it: it owns its volume, is never paused or
// stopped, and reads default settings.
class CStandaloneContext : public CVolumeContext {
 public:
  explicit CStandaloneContext(std::unique_ptr<CVolumeSystem> volume) : volume_(std::move(volume)) {}
  CVolumeSystem& volume() const override { return *volume_; }
  CDfrgConfig* config() const override { return nullptr; }
  void checkState() override {}

 private:
  std::unique_ptr<CVolumeSystem> volume_;
};

}  // namespace glidewell

#endif  // GLIDEWELL_VOLUME_VOLUME_CONTEXT_H_

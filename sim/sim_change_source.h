// Change notification over the simulated disk of a drive letter, in the shape
// of the directory change source the engine's watcher reads (see
// platform/change_source.h).
#ifndef GLIDEWELL_SIM_SIM_CHANGE_SOURCE_H_
#define GLIDEWELL_SIM_SIM_CHANGE_SOURCE_H_

#include <memory>

#include "platform/change_source.h"

namespace glidewell {

// The source over the disk plugged in or open on letter (SimDrives); null
// when there is none or it has vanished.
std::unique_ptr<ChangeSource> openSimChangeSource(wchar_t letter);

}  // namespace glidewell

#endif  // GLIDEWELL_SIM_SIM_CHANGE_SOURCE_H_

// Access to the system objects behind the portable synchronisation types, for
// the Win32 code that must hand them to the system itself (an overlapped read
// that waits on its own event together with a stop event).
#ifndef GLIDEWELL_PLATFORM_WIN32_WIN32_SYNC_H_
#define GLIDEWELL_PLATFORM_WIN32_WIN32_SYNC_H_

#include "platform/sync.h"
#include "platform/wintypes.h"

namespace glidewell {

// The event's handle. It stays owned by the Event and is valid as long as it.
HANDLE nativeHandle(const Event& event);

}  // namespace glidewell

#endif  // GLIDEWELL_PLATFORM_WIN32_WIN32_SYNC_H_

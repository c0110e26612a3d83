// Change notification on a real directory of a Windows volume (the root
// "X:\\" for a drive's change tracker), watching the whole tree below it.
#ifndef GLIDEWELL_PLATFORM_WIN32_DIRECTORY_CHANGE_SOURCE_H_
#define GLIDEWELL_PLATFORM_WIN32_DIRECTORY_CHANGE_SOURCE_H_

#include <memory>
#include <string>

#include "platform/change_source.h"

namespace glidewell {

// Null when the directory cannot be opened for change notification.
std::unique_ptr<ChangeSource> openDirectoryChangeSource(const std::wstring& directoryPath);

}  // namespace glidewell

#endif  // GLIDEWELL_PLATFORM_WIN32_DIRECTORY_CHANGE_SOURCE_H_

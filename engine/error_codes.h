// The engine's error codes.
//
// Positive codes are Win32 error numbers used as they are (an ErrorCode holds
// any of them, named or not); negative codes are the engine's own; 0 is "no
// error". This header and engine/dfrg_exception.h are leaf headers: every
// layer may include them.
#ifndef GLIDEWELL_ENGINE_ERROR_CODES_H_
#define GLIDEWELL_ENGINE_ERROR_CODES_H_

#include <cstdint>
#include <string>

namespace glidewell {

enum ErrorCode : int32_t {
  ErrorNone = 0,
  ErrorFileNotFound = 2,
  ErrorAccessDenied = 5,
  ErrorInvalidParameter = 87,
  ErrorVolumeUnavailable = -1,
  ErrorStopRequested = -2,
  ErrorAssertion = -3,
  ErrorNotAdmin = -4,
  ErrorPerformanceObjectNotFound = -5,
  ErrorPerformanceCounterNotFound = -6,
  ErrorNameNotFound = -7,
  ErrorEnumeratingInstances = -8,
  ErrorAddingPerformanceCounter = -9,
  ErrorQueringPerformanceCounter = -10,  // spelled as hosts and logs know it
  ErrorFindingPerformanceIndex = -11,
  ErrorInitialising = -13,
  ErrorOpenFile = -15,
  ErrorWriteFile = -16,
  ErrorReadFile = -17,
  ErrorImpossible = -18,
  ErrorInternal = -19,
  ErrorFailed = -20,
  ErrorNoVolumesSelected = -21,
};

// The name of a code ("ErrorNoVolumesSelected"), or the code in signed decimal
// ("-12", "32") when it has none. For diagnostics only.
std::string errorName(int code);

}  // namespace glidewell

#endif  // GLIDEWELL_ENGINE_ERROR_CODES_H_

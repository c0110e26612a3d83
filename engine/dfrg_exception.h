// The engine's error codes and its one exception type.
//
// Positive codes are Win32 error numbers used as they are; negative codes are
// the engine's own; 0 is "no error". Errors travel as CDfrgException, thrown
// and caught by value, and are caught only at a few boundaries (the exports,
// the worker's top level, per-volume set-up and per-file processing).
#ifndef GLIDEWELL_ENGINE_DFRG_EXCEPTION_H_
#define GLIDEWELL_ENGINE_DFRG_EXCEPTION_H_

#include <cstdint>
#include <string>

namespace glidewell {

enum ErrorCode : int32_t {
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
  ErrorQueringPerformanceCounter = -10,
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

class CDfrgException {
 public:
  explicit CDfrgException(int code) : code(code) {}
  CDfrgException(int code, const char* message) : code(code), message(message != nullptr ? message : "") {}
  CDfrgException(int code, const std::string& message) : code(code), message(message) {}

  int32_t code;
  std::string message;
};

}  // namespace glidewell

#endif  // GLIDEWELL_ENGINE_DFRG_EXCEPTION_H_

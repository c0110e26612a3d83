#include "engine/error_codes.h"

namespace glidewell {

std::string errorName(int code) {
  switch (code) {
    case ErrorFileNotFound: return "ErrorFileNotFound";
    case ErrorAccessDenied: return "ErrorAccessDenied";
    case ErrorInvalidParameter: return "ErrorInvalidParameter";
    case ErrorVolumeUnavailable: return "ErrorVolumeUnavailable";
    case ErrorStopRequested: return "ErrorStopRequested";
    case ErrorAssertion: return "ErrorAssertion";
    case ErrorNotAdmin: return "ErrorNotAdmin";
    case ErrorPerformanceObjectNotFound: return "ErrorPerformanceObjectNotFound";
    case ErrorPerformanceCounterNotFound: return "ErrorPerformanceCounterNotFound";
    case ErrorNameNotFound: return "ErrorNameNotFound";
    case ErrorEnumeratingInstances: return "ErrorEnumeratingInstances";
    case ErrorAddingPerformanceCounter: return "ErrorAddingPerformanceCounter";
    case ErrorQueringPerformanceCounter: return "ErrorQueringPerformanceCounter";
    case ErrorFindingPerformanceIndex: return "ErrorFindingPerformanceIndex";
    case ErrorInitialising: return "ErrorInitialising";
    case ErrorOpenFile: return "ErrorOpenFile";
    case ErrorWriteFile: return "ErrorWriteFile";
    case ErrorReadFile: return "ErrorReadFile";
    case ErrorImpossible: return "ErrorImpossible";
    case ErrorInternal: return "ErrorInternal";
    case ErrorFailed: return "ErrorFailed";
    case ErrorNoVolumesSelected: return "ErrorNoVolumesSelected";
    default: return std::to_string(code);
  }
}

}  // namespace glidewell

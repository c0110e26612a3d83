// The engine's one exception type.
//
// Errors travel as CDfrgException (engine/error_codes.h has the codes), thrown
// and caught by value, and are caught only at a few boundaries (the exports,
// the worker's top level, per-volume set-up and per-file processing).
#ifndef GLIDEWELL_ENGINE_DFRG_EXCEPTION_H_
#define GLIDEWELL_ENGINE_DFRG_EXCEPTION_H_

#include <cstdint>
#include <string>

#include "engine/error_codes.h"

namespace glidewell {

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

#!/usr/bin/env bash
# Builds the three targets (Linux, 32-bit and 64-bit Windows) and runs every
# test that is not a benchmark: unit, sim and wine labels, then the threaded
# tests again under ThreadSanitizer. Installs missing Debian packages first.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

echo "== Windows builds (mingw-w64)"
cmake --preset win32 >/dev/null
cmake --build --preset win32
cmake --preset win64 >/dev/null
cmake --build --preset win64

echo "== Linux build"
cmake --preset linux >/dev/null
cmake --build --preset linux

echo "== Tests"
ctest --preset linux

if [ "${GLIDEWELL_SKIP_TSAN:-0}" != "1" ]; then
  echo "== Threaded tests under ThreadSanitizer"
  cmake --preset tsan >/dev/null
  cmake --build --preset tsan
  ctest --preset tsan -L threads
fi

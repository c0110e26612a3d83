#!/usr/bin/env bash
# Builds Glidewell for Linux and runs the demonstration: an aged simulated
# volume is defragmented by one pass through the exported functions.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake --preset linux >/dev/null
cmake --build --preset linux --target glidewell_cli
exec build/linux/cli/glidewell demo "$@"

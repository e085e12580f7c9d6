#!/usr/bin/env bash
# Set-up, build and tests in one command: scripts/test.sh [preset] (default: default).
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-default}"
bash scripts/setup.sh
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" -j "$(nproc)"
ctest --preset "$preset"

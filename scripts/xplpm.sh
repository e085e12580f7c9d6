#!/usr/bin/env bash
# Set-up, build, then the xplpm tool with the given arguments:
#   bash scripts/xplpm.sh run --verify
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc)" --target xplpm_cli >/dev/null
exec build/default/tools/xplpm "$@"

#!/usr/bin/env bash
# Set-up, build, then the xplpm tool with the given arguments, run from the caller's
# folder so that relative paths (--routes, --profile, --svg) mean what they say:
#   bash scripts/xplpm.sh run --verify
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
(
  cd "$root"
  bash scripts/setup.sh
  cmake --preset default >/dev/null
  cmake --build --preset default -j "$(nproc)" --target xplpm_cli >/dev/null
)
exec "$root/build/default/tools/xplpm" "$@"

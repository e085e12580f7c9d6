#!/usr/bin/env bash
# Installs the library to a temporary prefix, moves the installed tree elsewhere (the
# package must not remember where it was installed), and builds and runs two consumers
# of it: one through find_package(xplpm), one through pkg-config.
#   bash scripts/install-check.sh [BUILD_DIR]   (default: build/default, built already)
set -euo pipefail
cd "$(dirname "$0")/.."
build="${1:-build/default}"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/opt/xplpm" >/dev/null
mv "$work/opt/xplpm" "$work/moved"
prefix="$work/moved"
libdir="$(dirname "$(find "$prefix" -name 'libxplpm.so' | head -1)")"

cmake -S tests/consumer -B "$work/cmake-consumer" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake-consumer" >/dev/null
LD_LIBRARY_PATH="$libdir" "$work/cmake-consumer/consumer"

export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
g++ tests/consumer/main.cpp -o "$work/pkg-consumer" $(pkg-config --cflags --libs xplpm)
LD_LIBRARY_PATH="$libdir" "$work/pkg-consumer"
echo "install-check: both consumers built and ran against $prefix (installed elsewhere)"

#!/usr/bin/env bash
# Installs what a fresh Debian machine lacks to build and test xplpm. Safe to rerun.
# clang and its runtime build the fuzz targets; pkg-config builds the install check's consumer;
# libarchive reads compressed route files; rsvg-convert renders the tool's SVG charts for a look
# and xmllint checks in the tests that they are well-formed XML; frr (zebra, staticd, vtysh) feeds
# `xplpm serve` in the tests labelled frr.
set -euo pipefail

packages=(cmake g++ make libgtest-dev libgmock-dev libbenchmark-dev zlib1g-dev libcli11-dev nlohmann-json3-dev
          pkg-config clang libclang-rt-14-dev libarchive-dev librsvg2-bin
          libxml2-utils frr)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "setup: installing ${missing[*]}" >&2
sudo=""
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "setup: need root to install: ${missing[*]}" >&2; exit 1; }
  sudo=sudo
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -q
$sudo apt-get install -y -q --no-install-recommends "${missing[@]}"

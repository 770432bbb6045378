#!/usr/bin/env bash
# Installs the built library into a scratch prefix, then builds and runs a consumer that finds it
# through the CMake package and through pkg-config.
set -euo pipefail
build_dir="$1"
source_dir="$(cd "$(dirname "$0")" && pwd)"
scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT

cmake --install "$build_dir" --prefix "$scratch/prefix" >/dev/null
libdir="$(find "$scratch/prefix" -name 'liborvelkit.so' -printf '%h\n' | head -n1)"
export PKG_CONFIG_PATH="$libdir/pkgconfig"
cmake -S "$source_dir/consumer" -B "$scratch/build" -G Ninja -DCMAKE_PREFIX_PATH="$scratch/prefix" >/dev/null
cmake --build "$scratch/build" >/dev/null
LD_LIBRARY_PATH="$libdir" "$scratch/build/consumer_cmake"
LD_LIBRARY_PATH="$libdir" "$scratch/build/consumer_pkgconfig"

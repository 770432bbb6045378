#!/usr/bin/env bash
# Installs the built library into a scratch prefix, then builds and runs a consumer that finds it
# through the CMake package and through pkg-config. A second argument names the sanitizers the
# library was built with; the consumer is built with them too.
set -euo pipefail
build_dir="$1"
sanitize="${2:-}"
source_dir="$(cd "$(dirname "$0")" && pwd)"
scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT

cmake --install "$build_dir" --prefix "$scratch/prefix" >/dev/null
libdir="$(find "$scratch/prefix" -name 'liborvelkit.so' -printf '%h\n' | head -n1)"
export PKG_CONFIG_PATH="$libdir/pkgconfig"
flags=()
if [[ -n "$sanitize" ]]; then
  flags=(-DCMAKE_CXX_FLAGS="-fsanitize=$sanitize" -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=$sanitize")
fi
cmake -S "$source_dir/consumer" -B "$scratch/build" -G Ninja -DCMAKE_PREFIX_PATH="$scratch/prefix" \
  "${flags[@]}" >/dev/null
cmake --build "$scratch/build" >/dev/null
LD_LIBRARY_PATH="$libdir" "$scratch/build/consumer_cmake"
LD_LIBRARY_PATH="$libdir" "$scratch/build/consumer_pkgconfig"

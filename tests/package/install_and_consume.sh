#!/usr/bin/env bash
# usage: install_and_consume.sh <build dir> <consumer source> <scratch dir> <cmake>
set -euo pipefail
build_dir=$1 consumer=$2 scratch=$3 cmake=$4

rm -rf "$scratch"
mkdir -p "$scratch"
prefix=$scratch/prefix
"$cmake" --install "$build_dir" --prefix "$prefix" >/dev/null

libdir=$(find "$prefix" -name 'libbase.so' -printf '%h\n' | head -n 1)
test -n "$libdir" || { echo "libbase.so was not installed"; exit 1; }
soname=$(objdump -p "$libdir/libbase.so" | awk '/SONAME/ {print $2}')
[[ $soname == libbase.so.* ]] || { echo "unexpected SONAME '$soname'"; exit 1; }
test -f "$prefix/include/kestrel/settings.h" || { echo "settings.h was not installed"; exit 1; }
"$(dirname "$0")/exported_symbols.sh" "$libdir/libbase.so"

echo "== CMake package"
"$cmake" -S "$consumer" -B "$scratch/by-cmake" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
"$cmake" --build "$scratch/by-cmake" >/dev/null
LD_LIBRARY_PATH=$libdir "$scratch/by-cmake/consumer"

echo "== pkg-config"
export PKG_CONFIG_PATH=$libdir/pkgconfig
flags=$(pkg-config --cflags --libs kestrel-base)
# shellcheck disable=SC2086
c++ -fPIC "$consumer/main.cpp" -o "$scratch/by-pkgconfig" $flags
LD_LIBRARY_PATH=$libdir "$scratch/by-pkgconfig"

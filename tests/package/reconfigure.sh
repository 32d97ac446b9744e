#!/usr/bin/env bash
# usage: reconfigure.sh <cmake> <source dir> <scratch dir> <generator> <c++ compiler>
# Configures one build tree as `scripts/dev.sh demo` does (tests and
# benchmarks off), then again as `scripts/dev.sh test` does (tests on): the
# second configure must not inherit anything the first one cached.
set -euo pipefail
cmake=$1 source=$2 scratch=$3 generator=$4 cxx=$5

rm -rf "$scratch"
configure() {
  "$cmake" -S "$source" -B "$scratch" -G "$generator" -DCMAKE_CXX_COMPILER="$cxx" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >"$scratch.log" 2>&1 || {
    cat "$scratch.log"
    echo "configure failed with $*"
    exit 1
  }
}
configure -DKESTREL_BUILD_TESTS=OFF -DKESTREL_BUILD_BENCH=OFF
configure -DKESTREL_BUILD_TESTS=ON
targets=$("$cmake" --build "$scratch" --target help)
grep -qw memory_test <<<"$targets" || {
  echo "the reconfigured tree has no memory_test target"
  exit 1
}
rm -rf "$scratch" "$scratch.log"
echo "demo configure, then test configure: both succeeded"

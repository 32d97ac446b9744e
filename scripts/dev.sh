#!/usr/bin/env bash
# The two entry points of the README:
#   scripts/dev.sh demo   install what is missing, build, run the kestrel-info tour
#   scripts/dev.sh test   install what is missing, build, run the whole test suite
# BUILD_DIR (default: build) and JOBS (default: the number of cores) may be set.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build_dir=${BUILD_DIR:-$root/build}
jobs=${JOBS:-$(nproc)}

configure_and_build() {
  "$root/scripts/deps.sh"
  cmake -S "$root" -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@"
  cmake --build "$build_dir" -j "$jobs"
}

case "${1:-}" in
  demo)
    configure_and_build -DKESTREL_BUILD_TESTS=OFF -DKESTREL_BUILD_BENCH=OFF
    "$build_dir/tools/kestrel-info/kestrel-info" tour
    ;;
  test)
    configure_and_build -DKESTREL_BUILD_TESTS=ON
    export QT_QPA_PLATFORM=offscreen
    ctest --test-dir "$build_dir" --output-on-failure --no-tests=error -j "$jobs"
    ;;
  *)
    echo "usage: scripts/dev.sh demo|test" >&2
    exit 2
    ;;
esac

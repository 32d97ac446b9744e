#!/usr/bin/env bash
# Installs the Debian 12 packages that libbase needs to build, test, benchmark
# and fuzz. This is the only place where packages are named. Idempotent: when
# everything is present it only asks dpkg and returns.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkgconf git
  qt6-base-dev zlib1g-dev libexpat1-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libjemalloc-dev libmimalloc-dev
  libgeographiclib-dev libhowardhinnant-date-dev libminizip-dev
  clang libclang-rt-14-dev
)

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$package")
  fi
done

if ((${#missing[@]} == 0)); then
  exit 0
fi

echo "deps: installing ${missing[*]}"
if [[ $(id -u) -ne 0 ]]; then
  echo "deps: run as root (or through sudo) to install packages" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"

#!/usr/bin/env bash
# Installs the Debian packages cimcore needs, only those missing.
# Usage: scripts/deps.sh [build|test|bench]
set -euo pipefail

packages=(g++ cmake ninja-build pkg-config
          libboost-thread-dev libboost-date-time-dev libboost-system-dev libboost-chrono-dev)
case "${1:-build}" in
  build) ;;
  test)  packages+=(libgtest-dev libgmock-dev clang clang-format libclang-rt-14-dev iproute2) ;;
  bench) packages+=(libace-dev libpoco-dev) ;;
  *) echo "usage: $0 [build|test|bench]" >&2; exit 2 ;;
esac

missing=()
for package in "${packages[@]}"; do
  dpkg -s "$package" >/dev/null 2>&1 || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "deps.sh: run as root or install sudo" >&2; exit 1; }
  sudo="sudo"
fi
echo "Installing: ${missing[*]}"
# A list that fails to come down (another architecture's index, say) need
# not stop the packages that are there.
$sudo apt-get update -qq || echo "apt-get update reported errors; installing anyway" >&2
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"

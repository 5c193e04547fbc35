#!/usr/bin/env bash
# Builds the library, the tools and every test for the device's 32-bit ARM
# (Debian armhf) with -O2 and runs the tests under qemu-arm.
#
# Steps, each checked first and skipped when already done: the cross compiler
# and qemu-user; Debian's armhf Boost packages unpacked into
# build/armhf-sysroot (apt-get download + dpkg -x: nothing is installed for
# armhf, which keeps the host's packages out of it); GoogleTest built from
# /usr/src/googletest with the cross compiler into the same sysroot; then the
# `armhf` preset is configured, built and tested.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
sysroot=$root/build/armhf-sysroot
downloads=$sysroot/.debs
jobs=${CIM_JOBS:-2}
start=$(date +%s)

die() { echo "test-arm.sh: $*" >&2; exit 1; }

sudo=""
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || die "run as root or install sudo"
  sudo="sudo"
fi

# ---- host tools ----------------------------------------------------------------
scripts/deps.sh test
host_packages=(crossbuild-essential-armhf qemu-user file)
missing=()
for package in "${host_packages[@]}"; do
  dpkg -s "$package" >/dev/null 2>&1 || missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  $sudo apt-get update -qq || echo "apt-get update reported errors; installing anyway" >&2
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
for tool in arm-linux-gnueabihf-g++ qemu-arm file; do
  command -v "$tool" >/dev/null || die "$tool is missing after installing ${host_packages[*]}"
done
[ -d /usr/src/googletest ] || die "/usr/src/googletest is missing (package libgtest-dev)"

# ---- sysroot: Debian's armhf Boost -------------------------------------------
boost_version=1.74
boost_packages=(libboost${boost_version}-dev)
for component in thread chrono date-time system atomic; do
  boost_packages+=("libboost-$component$boost_version.0" "libboost-$component$boost_version-dev")
done
stamp=$sysroot/.boost-${boost_version}
if [ ! -f "$stamp" ]; then
  if ! dpkg --print-foreign-architectures | grep -qx armhf; then
    echo "Adding the armhf architecture to apt (package lists only)"
    $sudo dpkg --add-architecture armhf
  fi
  # The armhf lists may come down only in part (a mirror without them);
  # whether the packages below can be had is what counts.
  $sudo apt-get update -qq || echo "apt-get update reported errors; trying the download anyway"
  mkdir -p "$downloads"
  wanted=()
  for package in "${boost_packages[@]}"; do wanted+=("$package:armhf"); done
  (cd "$downloads" && apt-get download "${wanted[@]}") ||
    die "could not download the armhf Boost packages: ${wanted[*]}"
  for package in "${boost_packages[@]}"; do
    deb=$(ls "$downloads/${package}_"*_armhf.deb 2>/dev/null | head -n 1)
    [ -n "$deb" ] || die "downloaded package missing: $package:armhf"
    dpkg -x "$deb" "$sysroot"
  done
  touch "$stamp"
fi
[ -f "$sysroot/usr/lib/arm-linux-gnueabihf/libboost_thread.so" ] ||
  die "$sysroot lacks libboost_thread.so; remove $stamp to unpack again"

# ---- sysroot: GoogleTest built with the cross compiler -----------------------
if [ ! -f "$sysroot/usr/lib/cmake/GTest/GTestConfig.cmake" ]; then
  echo "=== GoogleTest for armhf ==="
  cmake -S /usr/src/googletest -B "$sysroot/.gtest-build" -G Ninja \
        -DCMAKE_TOOLCHAIN_FILE="$root/cmake/arm-linux-gnueabihf.cmake" \
        -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$sysroot/usr" >/dev/null
  cmake --build "$sysroot/.gtest-build" -j "$jobs"
  cmake --install "$sysroot/.gtest-build" >/dev/null
fi
prepared=$(date +%s)

# ---- build and test ------------------------------------------------------------
echo "=== armhf ==="
cmake --preset armhf >/dev/null
cmake --build --preset armhf -j "$jobs"
library=$(ls build/armhf/libcimcore.so.*.*.* | head -n 1)
# Printed from a variable: `tee /dev/stderr` would reopen, and so truncate, a
# log file that standard error is redirected to.
kind=$(file -L "$library")
echo "$kind"
grep -q "ELF 32-bit LSB shared object, ARM" <<<"$kind" ||
  die "$library is not a 32-bit ARM library"
built=$(date +%s)
# One test at a time, like the native builds; the preset stretches the
# timing bounds for emulation.
ctest --preset armhf
done_at=$(date +%s)
echo "armhf: sysroot $((prepared - start)) s, build $((built - prepared)) s," \
     "tests $((done_at - built)) s, total $((done_at - start)) s"

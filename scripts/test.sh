#!/usr/bin/env bash
# Installs what is missing, checks the formatting, then builds and runs every
# test: the debug build, the ASan+UBSan build, the TSan build, a short fuzz
# run, a consumer project built against the installed package, and the
# 32-bit ARM build with its tests under emulation (scripts/test-arm.sh).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh test

echo "=== format ==="
git ls-files -z '*.cpp' '*.h' | xargs -0 clang-format --dry-run --Werror

jobs=$(nproc)
export CTEST_OUTPUT_ON_FAILURE=1

for preset in debug asan-ubsan tsan; do
  echo "=== $preset ==="
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs"
  # One test at a time: the timing checks keep their margins. Sanitized
  # programs run slower, so their generous upper bounds stretch further.
  scale=1
  [ "$preset" = debug ] || scale=3
  CIM_TEST_TIME_SCALE=$scale ctest --preset "$preset"
done

if [ -x scripts/fuzz.sh ]; then
  echo "=== fuzz ==="
  scripts/fuzz.sh
fi

echo "=== installed package ==="
prefix=$(mktemp -d /tmp/cimcore-install-XXXXXX)
trap 'rm -rf "$prefix"' EXIT
cmake --install build/debug --prefix "$prefix" >/dev/null
# The API only: no private helper, no platform stand-in header.
private=$(find "$prefix/include" \( -name CIMLog.h -o -name dlog.h -o -name app_control.h \
          -o -name debug_menu.h -o -name cim_api.h -o -name CIMFormat.h \
          -o -name CIMIpConnectionImpl.h -o -name CIMThreadId.h \) -print)
if [ -n "$private" ]; then
  echo "private headers installed: $private" >&2
  exit 1
fi
# Installed tools find the library through their run path alone.
env -u LD_LIBRARY_PATH "$prefix/bin/cim-logctl" --file "$prefix/logctl.txt" list >/dev/null
cmake -S examples/consumer -B "$prefix/consumer-build" -G Ninja \
      -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$prefix/consumer-build"
ctest --test-dir "$prefix/consumer-build" --output-on-failure
# The same consumer through pkg-config alone.
PKG_CONFIG_PATH="$prefix/lib/pkgconfig" sh -c 'c++ -std=c++17 -o "$1/consumer-pc" \
  examples/consumer/main.cpp $(pkg-config --cflags --libs cimcore)' sh "$prefix"
LD_LIBRARY_PATH="$prefix/lib" CIM_LOG_OUTPUT=none "$prefix/consumer-pc"

# The device's 32-bit ARM build, every test under qemu-arm.
scripts/test-arm.sh

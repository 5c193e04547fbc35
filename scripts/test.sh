#!/usr/bin/env bash
# Installs what is missing, then builds and runs every test: the debug build,
# the ASan+UBSan build, the TSan build, a short fuzz run, a consumer
# project built against the installed package, and the 32-bit ARM build
# with its tests under emulation (scripts/test-arm.sh).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh test

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
cmake -S examples/consumer -B "$prefix/consumer-build" -G Ninja \
      -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$prefix/consumer-build"
LD_LIBRARY_PATH="$prefix/lib" CIM_LOG_OUTPUT=none "$prefix/consumer-build/consumer"
ctest --test-dir "$prefix/consumer-build" --output-on-failure

# The device's 32-bit ARM build, every test under qemu-arm.
scripts/test-arm.sh

#!/usr/bin/env bash
# Installs what is missing, builds cimcore and runs the demo.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh build
cmake --preset release -DCIMCORE_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build --preset release --target cim-demo
build/release/tools/cim-demo "$@"

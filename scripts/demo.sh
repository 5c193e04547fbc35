#!/usr/bin/env bash
# Installs what is missing, builds cimcore (the release preset) and runs the
# demo. Arguments go to cim-demo (--keep, --log-config PATH).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh build
cmake --preset release >/dev/null
cmake --build --preset release --target cim-demo
build/release/tools/cim-demo "$@"

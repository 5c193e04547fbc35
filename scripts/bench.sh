#!/usr/bin/env bash
# Installs what is missing (the peers ACE and POCO), builds the
# release preset and runs cim-bench. Arguments go to cim-bench (--quick,
# --filter TEXT).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh bench
cmake --preset release >/dev/null
cmake --build --preset release --target cim-bench
build/release/bench/cim-bench "$@"

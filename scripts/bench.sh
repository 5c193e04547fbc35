#!/usr/bin/env bash
# Installs what is missing (the peers ACE and POCO), builds the bench preset
# and runs cim-bench. Arguments go to cim-bench (--quick, --runs N,
# --filter TEXT, --list). scripts/bench-compare.sh measures before and after.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh bench
cmake --preset bench >/dev/null
cmake --build --preset bench
build/bench/bench/cim-bench "$@"

#!/usr/bin/env bash
# Builds the libFuzzer targets (the fuzz preset, clang) and runs each one
# briefly (CIM_FUZZ_SECONDS, default 30, per target). Fails if a target
# finds anything: a crash, a sanitizer report, a leak or a time-out.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build/fuzz"
seconds="${CIM_FUZZ_SECONDS:-30}"

cd "$root"
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz

# Seeds: a delimiter byte, then a configuration text.
corpus="$build/corpus/CIMDebugLogFuzz"
mkdir -p "$corpus"
printf ' CI_API CI_CORE' >"$corpus/two-tags"
printf ' CI_CORE  CI_API ' >"$corpus/doubled-blank"
printf ' CI_CORE\n' >"$corpus/line-feed"
printf ',a,,b,' >"$corpus/commas"

status=0
for fuzzer in "$build"/tests/fuzz/*Fuzz; do
  name=$(basename "$fuzzer")
  mkdir -p "$build/corpus/$name" "$build/artifacts/$name"
  echo "fuzzing $name for ${seconds} s"
  if ! "$fuzzer" -max_total_time="$seconds" -timeout=10 -print_final_stats=1 \
       -artifact_prefix="$build/artifacts/$name/" "$build/corpus/$name" \
       >"$build/$name.log" 2>&1; then
    echo "$name found a problem; see $build/$name.log and $build/artifacts/$name/" >&2
    tail -n 40 "$build/$name.log" >&2
    status=1
  fi
done
exit $status

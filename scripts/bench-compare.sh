#!/usr/bin/env bash
# Measures the library before and after, in one session on one machine: builds
# cim-bench from the CURRENT bench sources twice, once against the library at
# BASE_REF (a temporary git worktree whose bench/ is replaced by the current
# one) and once against this working tree, then runs the two binaries by
# turns (base, current, base, current, ...) and prints every table.
#
# Usage: scripts/bench-compare.sh [BASE_REF] [--rounds K] [--runs N]
#                                 [--filter TEXT] [--quick]
#   BASE_REF  default: e78fe44, the library before the work on its hot paths
#   --rounds  turns of each binary (default 2)
#   --runs    runs per entry inside one turn (cim-bench --runs, default 3)
# The bench sources must build against both trees, so they use only what the
# library offered at BASE_REF.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

base_ref=e78fe4477906329e4ebd4c4049438401b74d143d
rounds=2
bench_args=(--runs 3)
while [ $# -gt 0 ]; do
  case "$1" in
    --rounds) rounds=$2; shift 2 ;;
    --runs) bench_args+=(--runs "$2"); shift 2 ;;
    --filter) bench_args+=(--filter "$2"); shift 2 ;;
    --quick) bench_args+=(--quick); shift ;;
    -h|--help) sed -n '2,15p' "$0"; exit 0 ;;
    -*) echo "bench-compare.sh: unknown option $1" >&2; exit 2 ;;
    *) base_ref=$1; shift ;;
  esac
done
base_commit=$(git rev-parse --verify "$base_ref^{commit}")
head_commit=$(git rev-parse HEAD)

scripts/deps.sh bench
work=$root/build/bench-compare
source_tree=$work/base-source
mkdir -p "$work"

cleanup() {
  git worktree remove --force "$source_tree" >/dev/null 2>&1 || true
}
trap cleanup EXIT
cleanup
git worktree add --detach --force "$source_tree" "$base_commit" >/dev/null
rm -rf "$source_tree/bench"
cp -R "$root/bench" "$source_tree/bench"

configure_and_build() {  # source folder, build folder
  cmake -S "$1" -B "$2" -G Ninja -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF \
    -DCIMCORE_BUILD_TOOLS=OFF -DCIMCORE_BUILD_BENCHMARKS=ON >/dev/null
  cmake --build "$2" --target cim-bench -j2
}
echo "== building cim-bench against $base_commit (base)"
configure_and_build "$source_tree" "$work/base"
echo "== building cim-bench against the working tree at $head_commit (current)"
cmake --preset bench >/dev/null
cmake --build --preset bench

for round in $(seq 1 "$rounds"); do
  for side in base current; do
    echo "== round $round of $rounds: $side" >&2
    binary=$work/base/bench/cim-bench
    [ "$side" = current ] && binary=$root/build/bench/bench/cim-bench
    "$binary" "${bench_args[@]}" >"$work/$side-$round.txt"
  done
done

for round in $(seq 1 "$rounds"); do
  for side in base current; do
    if [ "$side" = base ]; then
      label="base: library at $base_commit"
    else
      label="current: library at $head_commit (working tree)"
    fi
    echo
    echo "######## round $round, $label"
    cat "$work/$side-$round.txt"
  done
done

# Side by side: the best time of every rate row over all rounds, and the
# current library's rate over the base's (above 1: the current one is faster).
# Peers and floors do not change between the two builds, so their ratios show
# how much the machine drifted meanwhile.
echo
echo "######## best ns/op over $rounds rounds; current / base as rates (>1: current faster)"
summarise() {  # file...
  awk '
    /^== / { group = substr($0, 4); sub(/  \([0-9]+ runs.*$/, "", group); next }
    /^   (cimcore|peer|design floor|machine floor|peer = floor) / {
      if ($NF !~ /%$/ || index($0, "FAILED") > 0) next
      name = substr($0, 19, 59); sub(/ +$/, "", name)
      print group "\t" name "\t" $(NF-2)
    }' "$@"
}
for side in base current; do
  files=()
  for round in $(seq 1 "$rounds"); do files+=("$work/$side-$round.txt"); done
  summarise "${files[@]}" | awk -F'\t' -v side="$side" '{ print side "\t" $0 }'
done | awk -F'\t' '
  { key = $2 "\t" $3
    if (!(key in seen)) { seen[key] = 1; order[++n] = key }
    if (!((key, $1) in best) || $4 + 0 < best[key, $1]) best[key, $1] = $4 + 0 }
  END {
    last = ""
    for (i = 1; i <= n; ++i) {
      split(order[i], part, "\t")
      if (part[1] != last) { printf "\n%s\n", part[1]; last = part[1] }
      b = best[order[i], "base"]; c = best[order[i], "current"]
      printf "  %-58s %12.2f %12.2f %7.2fx\n", part[2], b, c, (c > 0 ? b / c : 0)
    }
  }'

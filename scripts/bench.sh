#!/usr/bin/env bash
# Builds and runs the benchmark suite (kest_bench, kest_bench_memory,
# kest_bench_net and kest_bench_bridge, whose results stay in
# build/bench/results/), then writes docs/benchmarks.md with its
# plots docs/benchmarks_fanout.svg, docs/benchmarks_fanout_fresh.svg,
# docs/benchmarks_routing.svg and docs/benchmarks_bridge.svg through
# scripts/bench_report.py, which also
# judges each target met or missed and copies in the hand-kept notes of
# bench/posting-path-history.md and bench/bridge-history.md.
#
#   scripts/bench.sh           the full run, about 8 minutes on two cores
#   scripts/bench.sh --quick   a short run that checks the whole chain; its
#                              report goes to build/bench/results/, never to docs/
#
# Environment: BENCH_REPETITIONS (default 9), BENCH_MIN_TIME (seconds per
# repetition, default 0.25), BENCH_FILTER (a benchmark name regex, default all).
#
# Missing Debian packages (the benchmark library, the peers, gnuplot, python3)
# are installed first with apt-get; that needs root (or sudo).
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build="$root/build/bench"
results="$build/results"
docs="$root/docs"

repetitions=${BENCH_REPETITIONS:-9}
min_time=${BENCH_MIN_TIME:-0.25}
filter=${BENCH_FILTER:-.}
report_dir="$docs"

for arg in "$@"; do
  case "$arg" in
    --quick)
      repetitions=${BENCH_REPETITIONS:-2}
      min_time=${BENCH_MIN_TIME:-0.02}
      report_dir="$results"
      ;;
    -h | --help)
      awk 'NR > 1 && /^#/ { sub(/^# ?/, ""); print; next } NR > 1 { exit }' "${BASH_SOURCE[0]}"
      exit 0
      ;;
    *)
      echo "bench.sh: unknown argument '$arg' (try --help)" >&2
      exit 2
      ;;
  esac
done

# ---- Packages ------------------------------------------------------------------

"$root/scripts/ensure-packages.sh" cmake g++ python3 gnuplot-nox libbenchmark-dev \
  libboost-dev libzmq3-dev cppzmq-dev libconcurrentqueue-dev libmsgpack-cxx-dev nlohmann-json3-dev pkg-config

# ---- Build -----------------------------------------------------------------------

echo "== building (preset bench)"
cd "$root"
# The library's commit as built, recorded before anything can change it.
library_commit=$(git -C "$root" rev-parse --short HEAD 2>/dev/null || true)
if [[ -n "$library_commit" ]]; then
  if [[ -n "$(git -C "$root" status --porcelain -- kest 2>/dev/null)" ]]; then
    library_commit+=" with uncommitted changes under \`kest/\`"
  else
    library_commit+=", \`kest/\` as committed"
  fi
else
  library_commit="unknown (not a git checkout)"
fi
cmake --preset bench
cmake --build --preset bench --target kest_bench kest_bench_memory kest_bench_net kest_bench_bridge

# ---- Run -------------------------------------------------------------------------

mkdir -p "$results" "$report_dir"
rm -f "$results/kest_bench.json" "$results/memory.json" "$results/kest_bench_net.json" \
  "$results/kest_bench_bridge.json"
read -r load_before _ < /proc/loadavg
started=$(date +%s)

echo "== memory (kest_bench_memory)"
"$build/bench/kest_bench_memory" "$results/memory.json"

echo "== timings (kest_bench: $repetitions repetitions of at least ${min_time}s each)"
"$build/bench/kest_bench" \
  --benchmark_filter="$filter" \
  --benchmark_repetitions="$repetitions" \
  --benchmark_min_time="$min_time" \
  --benchmark_enable_random_interleaving=true \
  --benchmark_display_aggregates_only=true \
  --benchmark_out="$results/kest_bench.json" \
  --benchmark_out_format=json | tee "$results/kest_bench.txt"

# Encode and decode beside msgpack-cxx's floor.
echo "== wire (kest_bench_net: $repetitions repetitions of at least ${min_time}s each)"
"$build/bench/kest_bench_net" \
  --benchmark_repetitions="$repetitions" \
  --benchmark_min_time="$min_time" \
  --benchmark_enable_random_interleaving=true \
  --benchmark_display_aggregates_only=true \
  --benchmark_out="$results/kest_bench_net.json" \
  --benchmark_out_format=json | tee "$results/kest_bench_net.txt"

# The bridge between two processes over 127.0.0.1 beside raw ZeroMQ. Each
# benchmark runs a fixed count (200,000 messages, 10,000 round trips) with a
# child process of its own, so --benchmark_min_time applies only to its
# in-process floors; every
# wait for the child is bounded, and the child ends with its benchmark.
echo "== bridge (kest_bench_bridge: $repetitions repetitions)"
"$build/bench/kest_bench_bridge" \
  --benchmark_repetitions="$repetitions" \
  --benchmark_min_time="$min_time" \
  --benchmark_enable_random_interleaving=true \
  --benchmark_display_aggregates_only=true \
  --benchmark_out="$results/kest_bench_bridge.json" \
  --benchmark_out_format=json | tee "$results/kest_bench_bridge.txt"

read -r load_after _ < /proc/loadavg
elapsed=$(($(date +%s) - started))

# ---- Report ----------------------------------------------------------------------

echo "== writing $report_dir/benchmarks.md"
# The notes kept by hand (what changed, why a target is missed) are copied in
# verbatim, so that running this script again never loses them.
python3 "$root/scripts/bench_report.py" \
  --bench-json "$results/kest_bench.json" \
  --memory-json "$results/memory.json" \
  --net-json "$results/kest_bench_net.json" \
  --bridge-json "$results/kest_bench_bridge.json" \
  --out-dir "$report_dir" \
  --data-dir "$results" \
  --include "$root/bench/posting-path-history.md" \
  --include "$root/bench/bridge-history.md" \
  --commit "$library_commit" \
  --min-time "$min_time" \
  --load-before "$load_before" \
  --load-after "$load_after" \
  --elapsed "$elapsed"

echo "== done: $report_dir/benchmarks.md (suite took ${elapsed}s)"

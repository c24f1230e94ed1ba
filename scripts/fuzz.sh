#!/usr/bin/env bash
# Builds the libFuzzer targets (the fuzz preset: clang, ASan + UBSan) and runs
# each one for a while on a copy of the committed corpus under tests/fuzz/corpus/:
#   scripts/fuzz.sh                     every target, 60 seconds each
#   scripts/fuzz.sh routing             only the named targets (metadata, routing,
#                                       wire, json)
#   FUZZ_SECONDS=600 scripts/fuzz.sh    longer runs
# Fails if a fuzzer finds a crash, a leak, a time-out or a broken check, and
# prints the path of the input that reproduces it. Replay one with
#   build/fuzz/tests/fuzz/<target>_fuzzer <reproducer>
# or, in any build, build/<preset>/tests/fuzz/<target>_replay <reproducer>.
# Inputs the fuzzers find are left in build/fuzz/fuzz-corpus/<target>/; they
# are not added to the committed corpus (minimise with -merge=1 first).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/ensure-packages.sh clang libclang-rt-14-dev cmake make libgtest-dev python3 \
  libmsgpack-cxx-dev nlohmann-json3-dev libzmq3-dev cppzmq-dev pkg-config

seconds="${FUZZ_SECONDS:-60}"
targets=("$@")
[ ${#targets[@]} -eq 0 ] && targets=(metadata routing wire json)

cmake --preset fuzz
fuzzers=()
for target in "${targets[@]}"; do fuzzers+=("${target}_fuzzer"); done
cmake --build --preset fuzz --target "${fuzzers[@]}"

failed=()
for target in "${targets[@]}"; do
  corpus="build/fuzz/fuzz-corpus/${target}"
  artifacts="build/fuzz/fuzz-artifacts/${target}"
  log="build/fuzz/fuzz-${target}.log"
  rm -rf "$corpus" "$artifacts"
  mkdir -p "$corpus" "$artifacts"
  cp "tests/fuzz/corpus/${target}/"* "$corpus/"

  echo "=== ${target}: fuzzing for ${seconds} s from $(ls "$corpus" | wc -l) inputs ==="
  if "build/fuzz/tests/fuzz/${target}_fuzzer" -max_total_time="$seconds" -timeout=25 \
      -rss_limit_mb=4096 -print_final_stats=1 -artifact_prefix="${artifacts}/" "$corpus" \
      > "$log" 2>&1; then
    grep -E '^(stat::number_of_executed_units|stat::peak_rss_mb)' "$log" || true
    echo "${target}: no problem found ($(ls "$corpus" | wc -l) inputs in the corpus now)"
  else
    tail -n 80 "$log"
    echo "FAIL: the ${target} fuzzer found a problem; reproducer:"
    ls -d "$PWD/${artifacts}/"* 2>/dev/null || echo "(none written; see $log)"
    failed+=("$target")
  fi
done

if [ ${#failed[@]} -ne 0 ]; then
  echo "=== fuzzing failed: ${failed[*]} ==="
  exit 1
fi
echo "=== fuzzing passed: ${targets[*]} ==="

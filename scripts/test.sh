#!/usr/bin/env bash
# Sets up, builds and runs every check on a fresh machine:
#   scripts/test.sh              everything, as CI runs it: each fuzzer for a
#                                minute, a build of the benchmarks, then the
#                                schedule-perturbation, ASan, TSan and plain suites
#   scripts/test.sh dev          only the named steps: dev, release, asan, tsan,
#                                perturb (test suites), fuzz, bench (build only)
# The full plain suite runs last, so that its summary closes the log.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/ensure-packages.sh g++ cmake make libgtest-dev libbenchmark-dev pkg-config binutils abigail-tools \
  python3 libmsgpack-cxx-dev nlohmann-json3-dev libzmq3-dev cppzmq-dev libcli11-dev iproute2

steps=("$@")
[ ${#steps[@]} -eq 0 ] && steps=(fuzz bench perturb asan tsan dev)

start=$SECONDS
for step in "${steps[@]}"; do
  echo "=== ${step} (after $((SECONDS - start)) s) ==="
  case "$step" in
    fuzz)
      FUZZ_SECONDS="${FUZZ_SECONDS:-60}" scripts/fuzz.sh
      ;;
    bench)
      scripts/ensure-packages.sh libboost-dev libzmq3-dev cppzmq-dev libconcurrentqueue-dev
      cmake --workflow --preset bench --fresh
      ;;
    *)
      cmake --workflow --preset "$step" --fresh
      ;;
  esac
done

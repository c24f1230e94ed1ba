#!/usr/bin/env bash
# Sets up, builds and runs every test suite on a fresh machine:
#   scripts/test.sh            the plain, AddressSanitizer, ThreadSanitizer and
#                              schedule-perturbation suites
#   scripts/test.sh dev        only the named presets (dev, release, asan, tsan, perturb)
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/ensure-packages.sh g++ cmake make libgtest-dev libbenchmark-dev pkg-config binutils abigail-tools \
  python3

presets=("$@")
[ ${#presets[@]} -eq 0 ] && presets=(perturb asan tsan dev)  # the full plain suite last

for preset in "${presets[@]}"; do
  echo "=== ${preset}: configure, build, test ==="
  cmake --workflow --preset "$preset" --fresh
done

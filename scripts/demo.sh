#!/usr/bin/env bash
# Sets up, builds and runs the demo on a fresh machine: a host that loads the
# messaging plug-in with dlopen and routes messages between components.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/ensure-packages.sh g++ cmake make pkg-config libmsgpack-cxx-dev nlohmann-json3-dev libzmq3-dev cppzmq-dev

cmake --preset release -DKEST_BUILD_TESTS=OFF >/dev/null
cmake --build --preset release --target plugin_host publish_subscribe
exec build/release/examples/plugin_host "$@"

#!/usr/bin/env bash
# Sets up, builds and runs the demo on a fresh machine: a host that loads the
# messaging plug-in with dlopen and routes messages between components; then
# two kest processes on 127.0.0.1, an echo and a post, that talk through the
# bridge, and what crossed between them.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/ensure-packages.sh g++ cmake make pkg-config libmsgpack-cxx-dev nlohmann-json3-dev libzmq3-dev cppzmq-dev \
  libcli11-dev

cmake --preset release -DKEST_BUILD_TESTS=OFF >/dev/null
cmake --build --preset release --target plugin_host publish_subscribe kest
build/release/examples/plugin_host "$@"

# ---- Two processes, one bus ------------------------------------------------------
kest=build/release/tools/kest/kest
work=$(mktemp -d "${TMPDIR:-/tmp}/kest-demo.XXXXXX")
echo_pid=""
cleanup() {
  if [ -n "$echo_pid" ]; then kill "$echo_pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

echo
echo "== kest: an echo and a post, two processes joined by Kest::Net::Bridge on 127.0.0.1"
mkfifo "$work/echo.err"
# Port * takes a free port; the echo prints the endpoint it bound.
"$kest" echo --listen 'tcp://127.0.0.1:*' --count 3 --timeout-ms 20000 7.3 plant >"$work/echo.out" 2>"$work/echo.err" &
echo_pid=$!
exec {echo_err}<"$work/echo.err"
endpoint=""
while IFS= read -r -t 20 -u "$echo_err" line; do
  echo "   $line"
  if [[ $line == "kest echo: listening on "* ]]; then
    endpoint=${line#kest echo: listening on }
    break
  fi
done
[ -n "$endpoint" ] || { echo "the echo did not start" >&2; exit 1; }

echo "\$ kest post --listen 'tcp://127.0.0.1:*' --peer $endpoint --sender plant/line2 --count 3 \\"
echo "       --data '{\"temperature\":21.5,\"unit\":\"C\",\"ok\":true}' 7.3"
"$kest" post --listen 'tcp://127.0.0.1:*' --peer "$endpoint" --sender plant/line2 --count 3 \
  --data '{"temperature":21.5,"unit":"C","ok":true}' --timeout-ms 20000 7.3 2>&1 | sed 's/^/   /'
status=0
wait "$echo_pid" || status=$?
echo_pid=""
while IFS= read -r -t 5 -u "$echo_err" line; do echo "   $line"; done
echo "== what crossed (kest echo's standard output, one JSON line per message; echo exited $status):"
cat "$work/echo.out"
exit "$status"

#!/usr/bin/env bash
# Compares the binary interface of the built libraries with the committed
# baseline. Fails on an incompatible change (abidiff's bit 8) unless the
# library's SONAME changed too; compatible additions pass.
#
#   check_abi.sh <header root> <baseline dir> <library>...
#   check_abi.sh --update <header root> <baseline dir> <library>...   rewrites the baseline
set -euo pipefail

update=0
if [ "${1:-}" = "--update" ]; then update=1; shift; fi
headers=$1 baseline=$2
shift 2
# Test-only symbols stay out of both the baseline and the comparison.
suppressions="$(dirname "$0")/test-hooks.suppr"

status=0
for library in "$@"; do
  name=$(basename "$library")
  name=${name%%.so*}
  stored="$baseline/$name.abi"
  current=$(mktemp)
  trap 'rm -f "$current"' EXIT
  abidw --headers-dir "$headers" --drop-private-types --no-corpus-path --no-comp-dir-path \
    --suppressions "$suppressions" "$library" > "$current"
  if [ $update -eq 1 ]; then
    cp "$current" "$stored"
    echo "$name: baseline written"
    continue
  fi
  if [ ! -f "$stored" ]; then
    echo "$name: no baseline at $stored (run with --update)"
    status=1
    continue
  fi
  set +e
  report=$(abidiff --no-added-syms --suppressions "$suppressions" "$stored" "$current")
  rc=$?
  set -e
  if [ $((rc & 3)) -ne 0 ]; then
    echo "$name: abidiff failed ($rc)"; echo "$report"; status=1
  elif [ $((rc & 8)) -ne 0 ]; then
    old_soname=$(grep -o "soname='[^']*'" "$stored" | head -1)
    new_soname=$(grep -o "soname='[^']*'" "$current" | head -1)
    if [ "$old_soname" = "$new_soname" ]; then
      echo "$name: incompatible change with the same SONAME ($new_soname):"
      echo "$report"
      status=1
    else
      echo "$name: incompatible change, SONAME changed ($old_soname -> $new_soname): accepted"
    fi
  elif [ $((rc & 4)) -ne 0 ]; then
    echo "$name: compatible change"
    echo "$report"
  else
    echo "$name: unchanged"
  fi
done
exit $status

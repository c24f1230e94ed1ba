#!/usr/bin/env bash
# Installs the current build into a temporary prefix and checks one side of
# the installed tree; the prefix is removed afterwards.
#
#   install_test.sh <case> <build dir> <consumer source dir> <c++ compiler> [<sanitizer>]
#
# Cases:
#   runpath              the three libraries, their SONAME links and a RUNPATH
#                        of exactly $ORIGIN
#   cmake-consumer       consumer/ configured with find_package(KestMessaging)
#                        and built; `app` posts a message and checks it
#                        arrives, `plugin_loader` dlopens the installed plug-in
#                        and checks its dependencies came from beside it
#   pkg-config-consumer  consumer/consumer.cpp built with
#                        g++ $(pkg-config --cflags --libs kest-messaging)
#                        and run
# Every program runs without LD_LIBRARY_PATH.
#
# Sanitized builds (<sanitizer> = KEST_SANITIZE, "address" or "thread"): the
# installed libraries then carry sanitizer instrumentation, whose run-time
# must be part of the program that loads them. So the same -fsanitize flags
# are passed to every program built here and the checks run as usual. Any
# other sanitizer value, or a missing pkg-config for its case, ends the test
# with exit code 77, which ctest reports as skipped.

set -euo pipefail

if [ $# -lt 4 ]; then
    echo "usage: $0 <case> <build dir> <consumer source dir> <c++ compiler> [<sanitizer>]" >&2
    exit 2
fi
case_name=$1
build_dir=$2
consumer_dir=$3
cxx=$4
sanitizer=${5:-}

skip() {
    echo "SKIP: $*"
    exit 77
}

case $sanitizer in
    "") sanitize_flags="" ;;
    address) sanitize_flags="-fsanitize=address,undefined -fno-omit-frame-pointer" ;;
    thread) sanitize_flags="-fsanitize=thread" ;;
    *) skip "no flags known for sanitizer '$sanitizer'" ;;
esac

for tool in cmake readelf; do
    command -v "$tool" >/dev/null || { echo "FAIL: $tool not found"; exit 1; }
done
if [ "$case_name" = pkg-config-consumer ] && ! command -v pkg-config >/dev/null; then
    skip "pkg-config is not installed"
fi

tmp=$(mktemp -d "${TMPDIR:-/tmp}/kest-install-test.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix
libdir=$prefix/lib

fail() {
    echo "FAIL: $*"
    exit 1
}

# Runs a command, showing its output only when it fails.
quietly() {
    local log=$tmp/step.log
    if ! "$@" >"$log" 2>&1; then
        cat "$log"
        fail "command failed: $*"
    fi
}

quietly cmake --install "$build_dir" --prefix "$prefix"
[ -d "$libdir" ] || fail "no $libdir after installing"

run_without_library_path() {
    env -u LD_LIBRARY_PATH "$@"
}

check_runpath() {
    local name file real soname runpath rpath
    for name in libKestCore libKestMessages libKestMessageDispatcher; do
        file=$libdir/$name.so.0
        [ -e "$file" ] || fail "$file is not installed"
        [ -L "$libdir/$name.so" ] || fail "the development link $libdir/$name.so is missing"
        real=$(readlink -f "$file")
        [ -f "$real" ] || fail "$file does not lead to a library file"
        [ "$(readlink -f "$libdir/$name.so")" = "$real" ] || fail "$name.so and $name.so.0 lead to different files"

        soname=$(readelf -d "$file" | sed -n 's/.*(SONAME).*\[\(.*\)\].*/\1/p')
        [ "$soname" = "$name.so.0" ] || fail "$file: SONAME '$soname', expected '$name.so.0'"
        runpath=$(readelf -d "$file" | sed -n 's/.*(RUNPATH).*\[\(.*\)\].*/\1/p')
        # shellcheck disable=SC2016 # $ORIGIN is meant literally
        [ "$runpath" = '$ORIGIN' ] || fail "$file: RUNPATH '$runpath', expected '\$ORIGIN'"
        rpath=$(readelf -d "$file" | sed -n 's/.*(RPATH).*\[\(.*\)\].*/\1/p')
        [ -z "$rpath" ] || fail "$file: has an RPATH '$rpath' besides its RUNPATH"
    done
    local needed
    needed=$(readelf -d "$libdir/libKestMessageDispatcher.so.0" | sed -n 's/.*(NEEDED).*\[\(.*\)\].*/\1/p')
    grep -qx libKestMessages.so.0 <<<"$needed" || fail "the plug-in does not need libKestMessages.so.0"
    grep -qx libKestCore.so.0 <<<"$needed" || fail "the plug-in does not need libKestCore.so.0"
    echo "runpath: the three libraries are installed with SONAME links and RUNPATH \$ORIGIN"
}

check_cmake_consumer() {
    local build=$tmp/consumer-build
    quietly cmake -S "$consumer_dir" -B "$build" \
        -DCMAKE_PREFIX_PATH="$prefix" \
        -DCMAKE_CXX_COMPILER="$cxx" \
        -DCMAKE_CXX_FLAGS="$sanitize_flags" \
        -DCMAKE_EXE_LINKER_FLAGS="$sanitize_flags"
    local found
    found=$(sed -n 's/^KestMessaging_DIR:[A-Z]*=//p' "$build/CMakeCache.txt")
    [ "$(readlink -f "$found")" = "$(readlink -f "$libdir/cmake/KestMessaging")" ] ||
        fail "find_package found KestMessaging in '$found', not in the installed tree"
    quietly cmake --build "$build" -j 2

    run_without_library_path "$build/app" "$libdir" || fail "app failed"

    if readelf -d "$build/plugin_loader" | grep -q 'NEEDED.*libKest'; then
        fail "plugin_loader links a Kest library, so it proves nothing about \$ORIGIN"
    fi
    run_without_library_path "$build/plugin_loader" "$libdir/libKestMessageDispatcher.so.0" ||
        fail "plugin_loader failed"
}

check_pkg_config_consumer() {
    export PKG_CONFIG_PATH=$libdir/pkgconfig
    local pc_prefix
    pc_prefix=$(pkg-config --variable=prefix kest-messaging) || fail "pkg-config does not find kest-messaging"
    [ "$(readlink -f "$pc_prefix")" = "$(readlink -f "$prefix")" ] ||
        fail "kest-messaging.pc names the prefix '$pc_prefix', not where it was installed ('$prefix')"
    local flags
    flags=$(pkg-config --cflags --libs kest-messaging)
    # shellcheck disable=SC2086 # the flags are words on purpose
    quietly "$cxx" $sanitize_flags "$consumer_dir/consumer.cpp" -o "$tmp/app" $flags -Wl,-rpath,"$libdir"
    run_without_library_path "$tmp/app" "$libdir" || fail "app built with pkg-config failed"
}

case $case_name in
    runpath) check_runpath ;;
    cmake-consumer) check_cmake_consumer ;;
    pkg-config-consumer) check_pkg_config_consumer ;;
    *)
        echo "unknown case '$case_name'" >&2
        exit 2
        ;;
esac

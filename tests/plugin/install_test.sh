#!/usr/bin/env bash
# Checks one documented way of installing or consuming the library, from a
# clean install into a temporary prefix; everything is removed afterwards.
#
#   install_test.sh <case> <build dir> <source dir> <c++ compiler> [<sanitizer>]
#
# Every case but install-preset installs <build dir> into the prefix first.
# Cases:
#   runpath              the four libraries, their SONAME links and a RUNPATH
#                        of exactly $ORIGIN
#   cmake-consumer       tests/plugin/consumer/ configured with
#                        find_package(KestMessaging) and built; it holds the
#                        README's CMake lines for a client. `app` posts a
#                        message and checks it arrives, `plugin_loader`
#                        dlopens the installed plug-in and checks its
#                        dependencies came from beside it, `net_app` (the
#                        README's Kest::Net lines) puts a message through
#                        bytes and JSON; then the consumer is installed and
#                        its installed `app` and `net_app` run
#   pkg-config-consumer  consumer/app.cpp built and run with the README's
#                        pkg-config commands, as written
#   pkg-config-net       consumer/net_app.cpp built and run with the README's
#                        kest-net pkg-config commands, as written
#   cxx20-consumer       consumer/cxx20.cpp, which needs C++20, built with
#                        -std=c++20 and the pkg-config flags after it
#   plugin-host          consumer/host.cpp built with each of the README's
#                        link lines for a plug-in host (pkg-config, CMake); it
#                        links the interface libraries only and loads the
#                        installed plug-in by path and, unsanitized, by name
#   install-preset       the README's install commands, as written, in a copy
#                        of <source dir>, with GoogleTest and Google Benchmark
#                        hidden from find_package: they must not be looked
#                        for, and only the four libraries and the kest tool are
#                        built and installed
# Every program runs without LD_LIBRARY_PATH.
#
# The README's commands are taken from the fenced block that follows a
# marker "<!-- install-test <name>: ... -->" and run in a scratch directory,
# with the temporary prefix in place of /opt/kest and `g++` standing for
# <c++ compiler> with the sanitizer flags below.
#
# Sanitized builds (<sanitizer> = KEST_SANITIZE, "address" or "thread"): the
# installed libraries then carry sanitizer instrumentation, whose run-time
# must be part of the program that loads them. So the same -fsanitize flags
# are passed to every program built here and the checks run as usual. Any
# other sanitizer value, or a missing pkg-config for a case that needs it,
# ends the test with exit code 77, which ctest reports as skipped.

set -euo pipefail

if [ $# -lt 4 ]; then
    echo "usage: $0 <case> <build dir> <source dir> <c++ compiler> [<sanitizer>]" >&2
    exit 2
fi
case_name=$1
build_dir=$2
source_dir=$3
cxx=$4
sanitizer=${5:-}
consumer_dir=$source_dir/tests/plugin/consumer
readme=$source_dir/README.md

skip() {
    echo "SKIP: $*"
    exit 77
}

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

case $sanitizer in
    "") sanitize_flags="" ;;
    address) sanitize_flags="-fsanitize=address,undefined -fno-omit-frame-pointer" ;;
    thread) sanitize_flags="-fsanitize=thread" ;;
    *) skip "no flags known for sanitizer '$sanitizer'" ;;
esac

for tool in cmake readelf; do
    command -v "$tool" >/dev/null || fail "$tool not found"
done
case $case_name in
    pkg-config-consumer | pkg-config-net | cxx20-consumer | plugin-host)
        command -v pkg-config >/dev/null || skip "pkg-config is not installed"
        ;;
esac
[ -f "$readme" ] || fail "no README.md in $source_dir"

tmp=$(mktemp -d "${TMPDIR:-/tmp}/kest-install-test.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix
libdir=$prefix/lib

# Runs a command, showing its output only when it fails.
quietly() {
    local log=$tmp/step.log
    if ! "$@" >"$log" 2>&1; then
        cat "$log"
        fail "command failed: $*"
    fi
}

run_without_library_path() {
    env -u LD_LIBRARY_PATH "$@"
}

# `g++` for the README's commands: the compiler under test, with the flags
# of a sanitized build.
tools=$tmp/tools
mkdir -p "$tools"
cat >"$tools/g++" <<EOF
#!/bin/sh
exec "$cxx" $sanitize_flags "\$@"
EOF
chmod +x "$tools/g++"

# Prints the body of the README's fenced block that follows the marker
# "<!-- install-test <name>: ... -->"; fails when there is none.
readme_block() {
    local block
    block=$(awk -v marker="<!-- install-test $1:" '
        index($0, marker) == 1 { found = 1; next }
        found == 1 && /^```/ { found = 2; next }
        found == 2 && /^```/ { exit }
        found == 2 { print }' "$readme")
    [ -n "$block" ] || fail "README.md has no block after a marker '<!-- install-test $1: ...'"
    printf '%s\n' "$block"
}

# Runs the README's block <name> in <dir> as a shell script, traced, with the
# prefix in place of /opt/kest, the `g++` above first on PATH and neither
# LD_LIBRARY_PATH nor PKG_CONFIG_PATH inherited.
run_readme_block() {
    local name=$1 dir=$2 block
    block=$(readme_block "$name")
    printf '%s\n' "${block//\/opt\/kest/$prefix}" >"$tmp/$name.sh"
    quietly in_directory "$dir" env -u LD_LIBRARY_PATH -u PKG_CONFIG_PATH PATH="$tools:$PATH" \
        bash -e -x -o pipefail "$tmp/$name.sh"
    echo "README block '$name' ran as written"
}

in_directory() {
    local dir=$1
    shift
    (cd "$dir" && "$@")
}

# Fails unless every line of the README's block <name>, comments and blank
# lines aside, appears as written in <file>.
check_readme_lines_in() {
    local name=$1 file=$2 block line have
    block=$(readme_block "$name")
    local -a wanted
    mapfile -t wanted <<<"$block"
    for line in "${wanted[@]}"; do
        line=$(strip_cmake_line "$line")
        [ -n "$line" ] || continue
        while IFS= read -r have; do
            [ "$(strip_cmake_line "$have")" = "$line" ] && continue 2
        done <"$file"
        fail "the README's line '$line' (block '$name') is not in $file"
    done
}

strip_cmake_line() {
    sed -e 's/#.*//' -e 's/^[[:space:]]*//' -e 's/[[:space:]]*$//' <<<"$1"
}

needed_of() {
    readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\].*/\1/p'
}

# A plug-in host links libKestMessages and libKestCore and not the plug-in.
check_host_links_interfaces_only() {
    local needed
    needed=$(needed_of "$1")
    grep -qx libKestMessages.so.0 <<<"$needed" || fail "$1 does not link libKestMessages.so.0"
    grep -qx libKestCore.so.0 <<<"$needed" || fail "$1 does not link libKestCore.so.0"
    if grep -qx libKestMessageDispatcher.so.0 <<<"$needed"; then
        fail "$1 links the plug-in libKestMessageDispatcher.so.0"
    fi
}

# Runs the host <program> on the installed plug-in, by path and by name.
check_host_loads_plugin() {
    run_without_library_path "$1" "$libdir/libKestMessageDispatcher.so.0" "$libdir" ||
        fail "$1 failed to load the plug-in by its path"
    if [ -n "$sanitizer" ]; then
        # The sanitizer's run-time intercepts dlopen and so becomes its
        # caller, whose RUNPATH (none) is searched instead of the host's.
        echo "$1: loading by name not checked under the $sanitizer sanitizer (see the README)"
        return
    fi
    run_without_library_path "$1" libKestMessageDispatcher.so.0 "$libdir" ||
        fail "$1 failed to load the plug-in by name"
}

# A scratch directory holding the given files of consumer/.
scratch_with() {
    local dir=$tmp/$1
    shift
    mkdir -p "$dir"
    local file
    for file in "$@" LoadedFrom.h; do cp "$consumer_dir/$file" "$dir/"; done
    echo "$dir"
}

install_build() {
    quietly cmake --install "$build_dir" --prefix "$prefix"
    [ -d "$libdir" ] || fail "no $libdir after installing"
}

check_runpath() {
    local name file real soname runpath rpath
    for name in libKestCore libKestMessages libKestMessageDispatcher libKestNet; do
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
    needed=$(needed_of "$libdir/libKestMessageDispatcher.so.0")
    grep -qx libKestMessages.so.0 <<<"$needed" || fail "the plug-in does not need libKestMessages.so.0"
    grep -qx libKestCore.so.0 <<<"$needed" || fail "the plug-in does not need libKestCore.so.0"
    needed=$(needed_of "$libdir/libKestNet.so.0")
    grep -qx libKestMessages.so.0 <<<"$needed" || fail "libKestNet does not need libKestMessages.so.0"
    grep -qx libKestCore.so.0 <<<"$needed" || fail "libKestNet does not need libKestCore.so.0"
    if grep -Eq 'msgpack|json' <<<"$needed"; then
        fail "libKestNet needs a library of its header-only dependencies: $needed"
    fi
    # The kest tool finds the libraries from bin/ through its own RUNPATH.
    [ -x "$prefix/bin/kest" ] || fail "bin/kest is not installed"
    runpath=$(readelf -d "$prefix/bin/kest" | sed -n 's/.*(RUNPATH).*\[\(.*\)\].*/\1/p')
    # shellcheck disable=SC2016 # $ORIGIN is meant literally
    [ "$runpath" = '$ORIGIN/../lib' ] || fail "bin/kest: RUNPATH '$runpath', expected '\$ORIGIN/../lib'"
    run_without_library_path "$prefix/bin/kest" keygen >"$tmp/keys" || fail "the installed kest failed"
    grep -q '^public ' "$tmp/keys" || fail "the installed kest keygen printed no public key"
    echo "runpath: the four libraries are installed with SONAME links and RUNPATH \$ORIGIN, bin/kest runs"
}

# Configures consumer/ against the prefix into <build dir>.
configure_consumer() {
    local build=$1
    quietly cmake -S "$consumer_dir" -B "$build" \
        -DCMAKE_PREFIX_PATH="$prefix" \
        -DCMAKE_CXX_COMPILER="$cxx" \
        -DCMAKE_CXX_FLAGS="$sanitize_flags" \
        -DCMAKE_EXE_LINKER_FLAGS="$sanitize_flags"
    local found
    found=$(sed -n 's/^KestMessaging_DIR:[A-Z]*=//p' "$build/CMakeCache.txt")
    [ "$(readlink -f "$found")" = "$(readlink -f "$libdir/cmake/KestMessaging")" ] ||
        fail "find_package found KestMessaging in '$found', not in the installed tree"
}

check_cmake_consumer() {
    check_readme_lines_in cmake-app "$consumer_dir/CMakeLists.txt"
    local build=$tmp/consumer-build
    configure_consumer "$build"
    quietly cmake --build "$build" -j 2

    run_without_library_path "$build/app" "$libdir" || fail "app failed"
    check_readme_lines_in cmake-net "$consumer_dir/CMakeLists.txt"
    [ -x "$build/net_app" ] || fail "the consumer built no net_app: is Kest::Net in the installed package?"
    run_without_library_path "$build/net_app" "$libdir" || fail "net_app failed"

    if needed_of "$build/plugin_loader" | grep -q '^libKest'; then
        fail "plugin_loader links a Kest library, so it proves nothing about \$ORIGIN"
    fi
    run_without_library_path "$build/plugin_loader" "$libdir/libKestMessageDispatcher.so.0" ||
        fail "plugin_loader failed"

    # Installed, the consumer's programs still find the libraries.
    local installed=$tmp/consumer-prefix
    quietly cmake --install "$build" --prefix "$installed"
    [ -x "$installed/bin/app" ] || fail "the consumer's app was not installed"
    run_without_library_path "$installed/bin/app" "$libdir" || fail "the installed app failed"
    run_without_library_path "$installed/bin/net_app" "$libdir" || fail "the installed net_app failed"
}

check_pkg_config_consumer() {
    local module pc_prefix
    export PKG_CONFIG_PATH=$libdir/pkgconfig
    for module in kest-messaging kest-messaging-interfaces kest-net; do
        pc_prefix=$(pkg-config --variable=prefix "$module") || fail "pkg-config does not find $module"
        [ "$(readlink -f "$pc_prefix")" = "$(readlink -f "$prefix")" ] ||
            fail "$module.pc names the prefix '$pc_prefix', not where it was installed ('$prefix')"
    done
    unset PKG_CONFIG_PATH

    local work
    work=$(scratch_with pkg-config-app app.cpp)
    run_readme_block pkg-config-app "$work"
    [ -x "$work/app" ] || fail "the README's pkg-config commands made no ./app"
    run_without_library_path "$work/app" "$libdir" || fail "app built with pkg-config failed"
}

check_pkg_config_net() {
    export PKG_CONFIG_PATH=$libdir/pkgconfig
    # Linking the dispatcher does not pull in Kest::Net.
    if pkg-config --libs kest-messaging | grep -q -- '-lKestNet'; then
        fail "kest-messaging links libKestNet"
    fi
    pkg-config --libs kest-net | grep -q -- '-lKestNet' || fail "kest-net does not link libKestNet"
    unset PKG_CONFIG_PATH

    local work
    work=$(scratch_with pkg-config-net net_app.cpp)
    run_readme_block pkg-config-net "$work"
    [ -x "$work/net_app" ] || fail "the README's kest-net pkg-config commands made no ./net_app"
    run_without_library_path "$work/net_app" "$libdir" || fail "net_app built with pkg-config failed"
}

check_cxx20_consumer() {
    export PKG_CONFIG_PATH=$libdir/pkgconfig
    local flags
    flags=$(pkg-config --cflags --libs kest-messaging)
    if grep -Eq '(^| )-std=' <<<"$flags"; then
        fail "the pkg-config flags choose a language standard: $flags"
    fi
    local work
    work=$(scratch_with cxx20 cxx20.cpp)
    # shellcheck disable=SC2086 # the flags are words on purpose
    quietly "$tools/g++" -std=c++20 "$work/cxx20.cpp" -o "$work/cxx20" $flags -Wl,-rpath,"$libdir"
    run_without_library_path "$work/cxx20" || fail "the C++20 program failed"
}

check_plugin_host() {
    # Linked with pkg-config ...
    local work
    work=$(scratch_with pkg-config-host host.cpp)
    run_readme_block pkg-config-host "$work"
    [ -x "$work/host" ] || fail "the README's pkg-config host command made no ./host"
    check_host_links_interfaces_only "$work/host"
    check_host_loads_plugin "$work/host"
    echo "host linked with pkg-config loads the plug-in by path and by name"

    # ... and with CMake.
    check_readme_lines_in cmake-host "$consumer_dir/CMakeLists.txt"
    local build=$tmp/consumer-build
    configure_consumer "$build"
    quietly cmake --build "$build" -j 2 --target host
    check_host_links_interfaces_only "$build/host"
    check_host_loads_plugin "$build/host"
    echo "host linked with CMake loads the plug-in by path and by name"
}

check_install_preset() {
    local source=$tmp/source
    mkdir -p "$source"
    tar -C "$source_dir" --exclude=./build --exclude=./.git --exclude=./.cache -cf - . | tar -C "$source" -xf -

    # `cmake` for the README's commands: a configure (`cmake --preset ...`)
    # hides GoogleTest and Google Benchmark and records every command run.
    local trace=$tmp/configure-trace.log real_cmake
    real_cmake=$(command -v cmake)
    cat >"$tools/cmake" <<EOF
#!/bin/sh
if [ "\$1" = --preset ]; then
    exec "$real_cmake" "\$@" -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON -DCMAKE_DISABLE_FIND_PACKAGE_benchmark=ON \\
        --trace-expand --trace-redirect="$trace"
fi
exec "$real_cmake" "\$@"
EOF
    chmod +x "$tools/cmake"

    run_readme_block install "$source"

    [ -s "$trace" ] || fail "the README's install commands do not configure with 'cmake --preset ...'"
    grep -q 'kest_add_library(MessageDispatcher' "$trace" || fail "the configure trace does not show the project"
    if grep -Eiq 'find_package\((GTest|GoogleTest|benchmark)[ )]' "$trace"; then
        grep -Ei 'find_package\((GTest|GoogleTest|benchmark)[ )]' "$trace" | head -5
        fail "configuring for install looks for GoogleTest or Google Benchmark"
    fi

    local build="" cache
    for cache in "$source"/build/*/CMakeCache.txt; do
        [ -f "$cache" ] && build=$(dirname "$cache")
    done
    [ -n "$build" ] || fail "the README's install commands left no build directory under build/"
    grep -qx 'CMAKE_BUILD_TYPE:STRING=Release' "$build/CMakeCache.txt" || fail "the install build is not a Release build"
    if grep -q -- '-Werror' "$build/compile_commands.json"; then
        fail "the install build turns warnings into errors"
    fi
    # Built: the four libraries and the kest tool, no other program.
    local built
    built=$(cd "$build" && find . -path '*/CMakeFiles' -prune -o -type f -perm -u+x -print | sed 's|^\./||' | sort)
    [ "$built" = "$(printf '%s\n' libKestCore.so.0.1.0 libKestMessageDispatcher.so.0.1.0 libKestMessages.so.0.1.0 \
                     libKestNet.so.0.1.0 tools/kest/kest)" ] ||
        fail "the install build made more or less than the four libraries and kest: $(tr '\n' ' ' <<<"$built")"

    local file
    for file in lib/libKestCore.so.0 lib/libKestMessages.so.0 lib/libKestMessageDispatcher.so.0 \
                lib/libKestNet.so.0 include/kest/messaging.h include/kest/net.h include/kest/net/Wire.h \
                lib/cmake/KestMessaging/KestMessagingConfig.cmake lib/pkgconfig/kest-messaging.pc \
                lib/pkgconfig/kest-messaging-interfaces.pc lib/pkgconfig/kest-net.pc bin/kest; do
        [ -e "$prefix/$file" ] || fail "$file was not installed"
    done
    echo "install preset: configured without GoogleTest, built the four libraries and kest only, installed"
}

case $case_name in
    runpath | cmake-consumer | pkg-config-consumer | pkg-config-net | cxx20-consumer | plugin-host)
        install_build
        "check_${case_name//-/_}"
        ;;
    install-preset) check_install_preset ;;
    *)
        echo "unknown case '$case_name'" >&2
        exit 2
        ;;
esac

#!/usr/bin/env bash
# Checks what libKestNet exports.
#
#   check_net_symbols.sh <libKestNet>
#
# - the library carries its SONAME, libKestNet.so.0;
# - exactly one plain (unmangled) name is exported: getComponentFactory, a
#   function (nm type T), the entry point of the library's own component
#   factory; nothing of msgpack-cxx, nlohmann-json or ZeroMQ in any form
#   (msgpack and json are built in, hidden; libzmq is only imported);
# - nothing from an anonymous namespace or a `detail` namespace;
# - every symbol in the Kest namespaces is of Kest::Net, or one of the weak
#   copies of a header-defined class's vtable and type information that
#   registering the forwarder notifications, the Bridge component and the
#   factory instantiate (VAGUE_OWNERS);
# - every other symbol is a weak (nm type W or V) instantiation of a standard
#   library template (or a static local of one, nm type u). These cannot be avoided without a linker version
#   script: libstdc++ gives namespace std default visibility explicitly, which
#   -fvisibility=hidden does not override, so each out-of-line use of a std
#   template (vector growth, the registry's hash table, the shared_ptr control
#   blocks of the message types decode makes) is emitted weak and exported.
#   Being weak, the copies of several libraries are merged by the loader.
# Prints every offending symbol, demangled, and exits 1 on any failure.

set -u

if [ $# -ne 1 ]; then
    echo "usage: $0 <libKestNet>" >&2
    exit 2
fi
net=$1

VAGUE_OWNERS=(
    # Interfaces without an out-of-line virtual function: every library
    # whose classes derive from them (the Bridge, the factory) emits these.
    Kest::ComponentInterface
    Kest::LifeCycle::PassiveInterface
    Kest::Msgs::PayloadMessageHelper
    Kest::MetaData::Reflector
    Kest::MetaData::ReflectorNoWriteParend
    Kest::MetaData::ReflectorArray
)

REQUIRED=(
    "Kest::Net::encode"
    "Kest::Net::encodeTo("
    "Kest::Net::decode("
    "Kest::Net::decodeWithEnvelope("
    "Kest::Net::toJson"
    "Kest::Net::fromJson("
    "Kest::Net::MessageTypes::known("
    "Kest::Net::MessageTypes::create("
    "typeinfo for Kest::Net::WireError"
    "typeinfo for Kest::Net::GenericMessage"
    "Kest::Net::GenericMessage::tree" # inline: must not be exported
    "Kest::Net::Bridge::Bridge("
    "Kest::Net::Bridge::start("
    "Kest::Net::Bridge::stop("
    "Kest::Net::Bridge::poll("
    "Kest::Net::Bridge::waitSynced("
    "Kest::Net::Bridge::peers("
    "Kest::Net::makeCurveKeyPair("
    "Kest::Net::curvePublicKey("
    "typeinfo for Kest::Net::Bridge"
)

failures=0
fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}

for tool in readelf nm c++filt; do
    command -v "$tool" >/dev/null || { echo "FAIL: $tool not found"; exit 1; }
done
[ -f "$net" ] || { echo "FAIL: no such library: $net"; exit 1; }

soname=$(readelf -d "$net" | sed -n 's/.*(SONAME).*\[\(.*\)\].*/\1/p')
[ "$soname" = libKestNet.so.0 ] || fail "SONAME is '$soname', expected 'libKestNet.so.0'"

exported() { nm -D --defined-only "$1" | awk 'NF >= 3 { print $2, $3 }'; }

mangled_scope() {
    local out="" part
    local IFS=':'
    for part in $1; do
        [ -n "$part" ] && out+="${#part}${part}"
    done
    printf '%s' "$out"
}

# The scope a mangled symbol lives in: special prefixes (vtable, typeinfo,
# typeinfo name, guard variable, a local entity's enclosing function) and the
# nested name's qualifiers removed.
scope_of() {
    local s=${1#_Z}
    case $s in
        TV* | TI* | TS* | TT* | GV*) s=${s:2} ;;
    esac
    case $s in
        Z*) s=${s:1} ;;
    esac
    case $s in
        N*) s=$(printf '%s' "${s:1}" | sed -E 's/^[rVK]*[RO]?//') ;;
    esac
    printf '%s' "$s"
}

vague_prefixes=()
for owner in "${VAGUE_OWNERS[@]}"; do vague_prefixes+=("$(mangled_scope "$owner")"); done
net_prefix=$(mangled_scope Kest::Net)

count=0
plain_entry=0
while read -r type name; do
    count=$((count + 1))
    demangled=$(printf '%s' "$name" | c++filt)
    case $name in
        _Z*) ;;
        getComponentFactory)
            [ "$type" = T ] || fail "getComponentFactory is exported as nm type '$type', expected T"
            plain_entry=1
            continue
            ;;
        *) fail "plain name exported: $type $name"; continue ;;
    esac
    if grep -Eqi 'msgpack|nlohmann|zmq' <<<"$demangled"; then
        fail "a dependency's symbol exported: $type $demangled"
        continue
    fi
    if grep -Fq '(anonymous namespace)' <<<"$demangled" || grep -Eq '(^|[^_[:alnum:]])detail::' <<<"$demangled"; then
        fail "an internal helper exported: $type $demangled"
        continue
    fi
    scope=$(scope_of "$name")
    case $scope in
        "$net_prefix"*) continue ;;
        4Kest*)
            if [ "$type" = V ]; then
                for prefix in "${vague_prefixes[@]}"; do
                    case ${scope#"$prefix"} in
                        "$scope") ;;
                        [EI]*) continue 2 ;;
                    esac
                done
            fi
            fail "leaked from the Kest namespaces: $type $demangled"
            ;;
        St* | 9__gnu_cxx*)
            # W, V: weak; u: a static local of an inline function, unique per process.
            case $type in
                W | V | u) ;;
                *) fail "a standard library symbol that is not weak: $type $demangled" ;;
            esac
            ;;
        *)
            fail "exported outside the Kest and std namespaces: $type $demangled"
            ;;
    esac
done < <(exported "$net")

[ $count -gt 0 ] || fail "no symbols exported at all"
[ $plain_entry = 1 ] || fail "getComponentFactory is not exported"
demangled_all=$(exported "$net" | awk '{ print $2 }' | c++filt)
for required in "${REQUIRED[@]}"; do
    if [ "$required" = "Kest::Net::GenericMessage::tree" ]; then
        grep -qF -- "$required" <<<"$demangled_all" && fail "the inline GenericMessage::tree is exported"
        continue
    fi
    grep -qF -- "$required" <<<"$demangled_all" || fail "libKestNet does not export: $required"
done

if [ $failures -ne 0 ]; then
    echo "$failures symbol check(s) failed"
    exit 1
fi
echo "symbols: SONAME and exports of libKestNet as expected ($count symbols checked)"

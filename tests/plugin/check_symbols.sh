#!/usr/bin/env bash
# Checks what the three shared libraries export.
#
#   check_symbols.sh <libKestCore> <libKestMessages> <libKestMessageDispatcher> [--test-hooks]
#
# - each library carries its SONAME;
# - the dispatcher library exports getComponentFactory as a plain, unmangled
#   function (nm type T), and no other plain name;
# - no library exports anything from an anonymous namespace, nor a `detail`
#   helper other than those listed in DETAIL_ALLOWED;
# - every symbol of the dispatcher library in the Kest namespaces belongs to
#   one of the public classes or functions in DISPATCHER_OWNERS (members,
#   vtables, type information, VTTs, thunks), or is one of the weak copies of
#   a header-defined class's vtable and type information in VAGUE_OWNERS;
# - the component bases are built into the dispatcher library only: the core
#   library exports nothing of the classes in CORE_FORBIDDEN_OWNERS.
# With --test-hooks (a dispatcher library built with KEST_TEST_HOOKS, for
# tests only) the hook functions of kest/msgs/internal/TestHooks.h are
# allowed too, and required.
# Prints every offending symbol, demangled, and exits 1 on any failure.

set -u

if [ $# -lt 3 ] || [ $# -gt 4 ]; then
    echo "usage: $0 <libKestCore> <libKestMessages> <libKestMessageDispatcher> [--test-hooks]" >&2
    exit 2
fi
core=$1
messages=$2
dispatcher=$3
test_hooks=0
if [ $# -eq 4 ]; then
    case $4 in
        --test-hooks) test_hooks=1 ;;
        *) echo "unknown option: $4" >&2; exit 2 ;;
    esac
fi

# Public classes and free functions of the dispatcher library: anything in
# their scope may be exported.
DISPATCHER_OWNERS=(
    Kest::Component_Base
    Kest::ComponentFactory_Base
    Kest::Msgs::MessageDispatcher
    Kest::Msgs::MessageQueue
    Kest::Msgs::MessageQueue_FixedDepth
    Kest::Msgs::MessageCallback
    Kest::Msgs::MessagesHandled
    Kest::Msgs::Factory
    Kest::Msgs::handleMessageDirect
    Kest::Msgs::dispatchMessage
)

# Classes of the other two libraries' headers that have no out-of-line key
# function (interfaces whose operations are all pure, class templates, the
# key hashers that the tables' stored keys hold in a std::function): every
# library that uses them emits a weak copy of their vtable and type
# information, which dynamic_cast and std::function::target across libraries
# rely on. Only those weak (nm type V) vtable, typeinfo and typeinfo-name
# symbols are allowed, nothing else of these classes.
VAGUE_OWNERS=(
    Kest::ComponentInterface
    Kest::LifeCycle::PassiveInterface
    Kest::Msgs::FixedDepthMessageQueueInterface
    Kest::Msgs::CallbackMessageQueueInterface
    Kest::Msgs::PayloadMessageHelper
    Kest::MetaData::Reflector
    Kest::MetaData::ReflectorNoWriteParend
    Kest::MetaData::ReflectorArray
    Kest::Msgs::MessageKey::HasherWithSender
    Kest::Msgs::MessageKey::HasherWithDestination
)

# `detail` helpers exported on purpose: the templates of
# kest/model/Reflector.h call them from client code,
# and builds with KEST_SCHEDULE_PERTURBATION (tests only) export the schedule
# points that the lock guard of kest/internal/Schedule.h calls in all three
# libraries.
DETAIL_ALLOWED=(
    Kest::MetaData::detail::reportArrayExpected
    Kest::MetaData::detail::reportArrayCorrupt
    Kest::detail::schedulePoint
    Kest::detail::setScheduleSeed
)

# The component bases: their headers sit with the component interfaces, but
# they are built into the dispatcher library, not into the core library.
CORE_FORBIDDEN_OWNERS=(
    Kest::Component_Base
    Kest::ComponentFactory_Base
)

# The test hooks, exported only by a library built with KEST_TEST_HOOKS.
TEST_HOOKS=(
    Kest::Msgs::detail::hooks::readerWakeUps
    Kest::Msgs::detail::hooks::setSteadyNow
    Kest::Msgs::detail::hooks::setWallNow
    Kest::Msgs::detail::hooks::setIdentityHash
)
if [ $test_hooks = 1 ]; then
    DISPATCHER_OWNERS+=("${TEST_HOOKS[@]}")
    DETAIL_ALLOWED+=("${TEST_HOOKS[@]}")
fi

# Plain (unmangled) names the dispatcher library may export.
PLAIN_ALLOWED=(getComponentFactory)

# Symbols that must be there, so that an empty or wrong symbol table cannot pass.
DISPATCHER_REQUIRED=(
    "typeinfo for Kest::Msgs::MessageDispatcher"
    "typeinfo for Kest::Msgs::MessageQueue"
    "typeinfo for Kest::Msgs::MessageQueue_FixedDepth"
    "typeinfo for Kest::Msgs::MessageCallback"
    "typeinfo for Kest::Msgs::Factory"
    "vtable for Kest::Msgs::Factory"
    "typeinfo for Kest::Component_Base"
    "typeinfo for Kest::ComponentFactory_Base"
    "Kest::ComponentFactory_Base::addComponentCreator("
    "Kest::Msgs::MessagesHandled::handleMessage("
    "Kest::Msgs::handleMessageDirect("
    "Kest::Msgs::dispatchMessage("
)

# Symbols that must be there exactly so (a whole demangled name): the const
# and the non-const lookup of the history are both part of its interface.
S='std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >'
DISPATCHER_REQUIRED_EXACT=(
    "Kest::Msgs::MessagesHandled::isMessageHandled($S const&)"
    "Kest::Msgs::MessagesHandled::isMessageHandled($S const&) const"
)

failures=0
fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}

for tool in readelf nm c++filt; do
    command -v "$tool" >/dev/null || { echo "FAIL: $tool not found"; exit 1; }
done
for lib in "$core" "$messages" "$dispatcher"; do
    [ -f "$lib" ] || { echo "FAIL: no such library: $lib"; exit 1; }
done

# ---- SONAMEs ----------------------------------------------------------------

check_soname() {
    local lib=$1 expected=$2 actual
    actual=$(readelf -d "$lib" | sed -n 's/.*(SONAME).*\[\(.*\)\].*/\1/p')
    if [ "$actual" != "$expected" ]; then
        fail "$lib: SONAME is '${actual}', expected '${expected}'"
    fi
}
check_soname "$core" libKestCore.so.0
check_soname "$messages" libKestMessages.so.0
check_soname "$dispatcher" libKestMessageDispatcher.so.0

# ---- Symbol tables ----------------------------------------------------------

# "<type> <mangled name>" of every defined dynamic symbol.
exported() { nm -D --defined-only "$1" | awk 'NF >= 3 { print $2, $3 }'; }

# The mangled form of a qualified name's scope: Kest::Msgs::Factory -> 4Kest4Msgs7Factory.
mangled_scope() {
    local out="" part
    local IFS=':'
    for part in $1; do
        [ -n "$part" ] && out+="${#part}${part}"
    done
    printf '%s' "$out"
}

# The nested name a mangled symbol lives in, with the special prefixes
# (vtable _ZTV, typeinfo _ZTI, typeinfo name _ZTS, VTT _ZTT, guard variable
# _ZGV, thunks _ZTh/_ZTv/_ZTc, local entities _ZZ) and the nested name's
# cv/ref qualifiers removed: _ZTVN4Kest4Msgs7FactoryE -> 4Kest4Msgs7FactoryE.
# Empty for symbols not in a nested (namespace or class) scope.
nested_name() {
    local s=$1
    s=${s#_Z}
    [ "$s" != "$1" ] || return 0
    case $s in
        TV* | TI* | TS* | TT*) s=${s:2} ;;
        GV*) s=${s:2} ;;
        Th*) s=$(printf '%s' "${s:2}" | sed -E 's/^n?[0-9]+_//') ;;
        Tv*) s=$(printf '%s' "${s:2}" | sed -E 's/^n?[0-9]+_n?[0-9]+_//') ;;
        Tc*) s=$(printf '%s' "${s:2}" | sed -E 's/^(h?n?[0-9]+_|vn?[0-9]+_n?[0-9]+_){2}//') ;;
        Z*) s=${s:1} ;;
    esac
    case $s in
        N*) printf '%s' "${s:1}" | sed -E 's/^[rVK]*[RO]?//' ;;
    esac
}

# The dispatcher library's only plain names, and getComponentFactory a function (T).
entry_type=$(exported "$dispatcher" | awk '$2 == "getComponentFactory" { print $1 }')
if [ "$entry_type" != "T" ]; then
    fail "getComponentFactory is not exported as a plain function (nm type '${entry_type:-missing}', expected T)"
fi
while read -r type name; do
    allowed=0
    for plain in "${PLAIN_ALLOWED[@]}"; do
        [ "$name" = "$plain" ] && allowed=1
    done
    [ $allowed = 1 ] || fail "unexpected plain name exported by the dispatcher library: $type $name"
done < <(exported "$dispatcher" | awk '$2 !~ /^_Z/')

# Nothing from an anonymous namespace, in any library; `detail` helpers only as listed.
for lib in "$core" "$messages" "$dispatcher"; do
    while read -r type name; do
        fail "$(basename "$lib") exports from an anonymous namespace: $type $name"
    done < <(exported "$lib" | c++filt | grep -F '(anonymous namespace)')

    while read -r type name; do
        allowed=0
        for helper in "${DETAIL_ALLOWED[@]}"; do
            # The name itself, followed by its parameters or an ABI tag.
            case ${name#"$helper"} in
                "$name") ;;
                "("* | "["*) allowed=1 ;;
            esac
        done
        [ $allowed = 1 ] || fail "$(basename "$lib") exports a detail helper: $type $name"
    done < <(exported "$lib" | c++filt | grep -E '(^|[^_[:alnum:]])detail::')
done

# Every dispatcher symbol in the Kest namespaces belongs to an allowed owner.
owner_prefixes=()
for owner in "${DISPATCHER_OWNERS[@]}"; do owner_prefixes+=("$(mangled_scope "$owner")"); done
vague_prefixes=()
for owner in "${VAGUE_OWNERS[@]}"; do vague_prefixes+=("$(mangled_scope "$owner")"); done

kest_count=0
while read -r type name; do
    nested=$(nested_name "$name")
    case $nested in
        4Kest*) ;;
        *) continue ;;
    esac
    kest_count=$((kest_count + 1))
    allowed=0
    for prefix in "${owner_prefixes[@]}"; do
        # The next character must end the source name: E (end), I (template
        # arguments), B (ABI tag), C/D (constructor, destructor), a digit
        # (a member's name) or a lower-case letter (an operator, aS for =).
        case ${nested#"$prefix"} in
            "$nested") ;;
            [EIBCDa-z0-9]*) allowed=1 ;;
        esac
    done
    if [ $allowed = 0 ] && [ "$type" = V ]; then
        case $name in
            _ZTV* | _ZTI* | _ZTS*)
                for prefix in "${vague_prefixes[@]}"; do
                    case ${nested#"$prefix"} in
                        "$nested") ;;
                        [EI]*) allowed=1 ;;
                    esac
                done
                ;;
        esac
    fi
    [ $allowed = 1 ] || fail "leaked from the dispatcher library: $type $(printf '%s' "$name" | c++filt)  [$name]"
done < <(exported "$dispatcher")

# Nothing of the component bases in the core library.
for owner in "${CORE_FORBIDDEN_OWNERS[@]}"; do
    prefix=$(mangled_scope "$owner")
    while read -r type name; do
        nested=$(nested_name "$name")
        case ${nested#"$prefix"} in
            "$nested") ;;
            [EIBCDa-z0-9]*) fail "$(basename "$core") exports $owner, which belongs to the dispatcher library: $type $(printf '%s' "$name" | c++filt)" ;;
        esac
    done < <(exported "$core")
done

if [ $kest_count -eq 0 ]; then
    fail "no symbols of the Kest namespaces found in $dispatcher"
fi

demangled=$(exported "$dispatcher" | c++filt | cut -d' ' -f2-)
for required in "${DISPATCHER_REQUIRED[@]}"; do
    if ! grep -qF -- "$required" <<<"$demangled"; then
        fail "the dispatcher library does not export: $required"
    fi
done

if [ $test_hooks = 1 ]; then
    for required in "${TEST_HOOKS[@]}"; do
        if ! grep -qF -- "$required(" <<<"$demangled"; then
            fail "the dispatcher library built with test hooks does not export: $required"
        fi
    done
fi

for required in "${DISPATCHER_REQUIRED_EXACT[@]}"; do
    if ! grep -qxF -- "$required" <<<"$demangled"; then
        fail "the dispatcher library does not export: $required"
    fi
done

if [ $failures -ne 0 ]; then
    echo "$failures symbol check(s) failed"
    exit 1
fi
echo "symbols: SONAMEs, entry point and exports as expected ($kest_count Kest symbols checked)"

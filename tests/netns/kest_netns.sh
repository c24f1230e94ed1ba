#!/usr/bin/env bash
# The kest tool across machines, simulated: three network namespaces made
# for this run, two hosts joined through a bridge device in the third,
#
#   <tag>a  10.77.0.1/24  veth <tag>a0 --- <tag>a1 -+
#                                                    +- bridge br0 in <tag>h
#   <tag>b  10.77.0.2/24  veth <tag>b0 --- <tag>b1 -+
#
# with one kest process per host namespace. The addresses exist only inside
# these namespaces; nothing else is ever talked to.
#
#   kest_netns.sh <path of kest>
#
# Checks, each with a deadline on every wait (output lines read with
# `read -t`, never a sleep):
#   1. without CURVE keys, a non-loopback --listen is refused (status 2);
#   2. echo and post across the namespaces with --allow-insecure;
#   3. echo and post with CURVE keys from kest keygen, and tables showing the
#      echo's subscription from the other namespace;
#   4. a veth end taken down in the middle of a stream and brought back: the
#      stream resumes, no identity arrives twice, and what arrived plus what
#      was counted lost (echo's dropped) or never handed over (post's refused
#      and unrouted) is what was posted.
# Needs root and `ip netns`; exits 77 (skipped) where it may not make
# namespaces. Everything it made is removed on every way out (trap).
set -euo pipefail

kest=${1:?usage: kest_netns.sh <path of kest>}

skip() {
    echo "SKIP: $*"
    exit 77
}

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

[ "$(id -u)" -eq 0 ] || skip "not root: making network namespaces needs root"
command -v ip >/dev/null || skip "ip (iproute2) is not installed"
command -v python3 >/dev/null || skip "python3 is not installed"
[ -x "$kest" ] || fail "no kest at $kest"

tag="kt$$"  # unique per run: namespace and interface names carry the pid
hub=${tag}h
a=${tag}a
b=${tag}b
tmp=$(mktemp -d "${TMPDIR:-/tmp}/kest-netns.XXXXXX")
made=()

cleanup() {
    local ns pid
    # Only processes inside our own namespaces, which are ours.
    for ns in "${made[@]}"; do
        for pid in $(ip netns pids "$ns" 2>/dev/null); do kill -KILL "$pid" 2>/dev/null || true; done
    done
    for ns in "${made[@]}"; do ip netns del "$ns" 2>/dev/null || true; done
    rm -rf "$tmp"
}
trap cleanup EXIT
trap 'exit 1' INT TERM HUP

ip netns add "$hub" 2>"$tmp/netns.err" || skip "ip netns add is not allowed here: $(cat "$tmp/netns.err")"
made+=("$hub")
ip netns add "$a"
made+=("$a")
ip netns add "$b"
made+=("$b")
ip -n "$hub" link add br0 type bridge
ip -n "$hub" link set br0 up
address=1
for host in "$a" "$b"; do
    ip link add "${host}0" netns "$host" type veth peer name "${host}1" netns "$hub"
    ip -n "$host" link set lo up
    ip -n "$host" addr add "10.77.0.$address/24" dev "${host}0"
    ip -n "$host" link set "${host}0" up
    ip -n "$hub" link set "${host}1" master br0
    ip -n "$hub" link set "${host}1" up
    address=$((address + 1))
done
echo "namespaces $a (10.77.0.1) and $b (10.77.0.2) joined through br0 in $hub"

# ---- Helpers ---------------------------------------------------------------------

# start NAME NAMESPACE ARGS...: runs kest in the namespace; its standard
# output is read through the descriptor in ${NAME}_fd (a FIFO), ending with a
# line "exit STATUS"; its standard error goes to $tmp/NAME.err.
# start_err NAME NAMESPACE ARGS...: the same, but standard error is what is
# read (for post, which prints nothing else); the lines read are kept in
# $tmp/NAME.err.
start() {
    launch "$1" "$2" out "${@:3}"
}

start_err() {
    launch "$1" "$2" err "${@:3}"
}

launch() {
    local name=$1 ns=$2 stream=$3 fd
    shift 3
    : >"$tmp/$name.out"
    : >"$tmp/$name.err"
    mkfifo "$tmp/$name.fifo"
    if [ "$stream" = out ]; then
        { rc=0; ip netns exec "$ns" "$kest" "$@" 2>"$tmp/$name.err" || rc=$?; echo "exit $rc"; } >"$tmp/$name.fifo" &
    else
        { rc=0; ip netns exec "$ns" "$kest" "$@" 2>&1 >/dev/null || rc=$?; echo "exit $rc"; } >"$tmp/$name.fifo" &
    fi
    exec {fd}<"$tmp/$name.fifo"
    printf -v "${name}_fd" '%s' "$fd"
    printf -v "${name}_stream" '%s' "$stream"
}

# next NAME SECONDS: the next output line of NAME in $line (also appended to
# $tmp/NAME.out unless it is the exit line); false when none came in time.
next() {
    local fd_var="${1}_fd"
    line=""
    local stream_var="${1}_stream"
    IFS= read -r -t "$2" -u "${!fd_var}" line || return 1
    [[ $line == "exit "* ]] || printf '%s\n' "$line" >>"$tmp/$1.${!stream_var}"
}

# finish NAME SECONDS: reads NAME's output to its end; its status in $status.
finish() {
    local deadline=$((SECONDS + $2))
    status=""
    while ((SECONDS < deadline)); do
        next "$1" $((deadline - SECONDS + 1)) || break
        if [[ $line == "exit "* ]]; then
            status=${line#exit }
            return 0
        fi
    done
    fail "$1 did not end within $2 s; its standard error: $(cat "$tmp/$1.err")"
}

# wait_line NAME REGEX SECONDS: reads NAME's lines until one matches
# (BASH_REMATCH holds its groups).
wait_line() {
    local deadline=$((SECONDS + $3))
    while ((SECONDS < deadline)); do
        next "$1" $((deadline - SECONDS + 1)) || break
        [[ $line == "exit "* ]] && break
        [[ $line =~ $2 ]] && return 0
    done
    fail "$1 printed no line matching '$2' within $3 s: $(cat "$tmp/$1.err")"
}

json() {  # json FILE-OF-LINE PYTHON-EXPRESSION on `d`
    python3 -c 'import json,sys; d=json.loads(open(sys.argv[1]).read()); print(eval(sys.argv[2]))' "$@"
}

summary_of() {  # summary_of NAME COMMAND: the JSON of its summary line, in a file
    sed -n "s/^kest $2: summary //p" "$tmp/$1.err" | tail -n 1 >"$tmp/$1.summary"
    [ -s "$tmp/$1.summary" ] || fail "$1 printed no summary: $(cat "$tmp/$1.err")"
}

common=(--heartbeat-ms 100 --peer-timeout-ms 600 --linger-ms 1000)

# ---- 1. Without keys, a non-loopback listen is refused -----------------------------

start refused "$a" echo --listen tcp://10.77.0.1:7001 --timeout-ms 5000 7.3
finish refused 20
[ "$status" = 2 ] || fail "a non-loopback listen without keys ended with $status, not 2"
grep -q "without encryption" "$tmp/refused.err" || fail "the refusal does not say why: $(cat "$tmp/refused.err")"
echo "ok 1: tcp://10.77.0.1 without keys refused (status 2): $(cat "$tmp/refused.err")"

# ---- 2. echo and post across namespaces, --allow-insecure ---------------------------

data='{"across":"namespaces","list":[1,-2,2.5,true,null],"nested":{"s":"tab\tquote\""}}'
start echo2 "$a" echo --listen tcp://10.77.0.1:7002 --allow-insecure "${common[@]}" \
    --count 3 --timeout-ms 30000 7.3 plant
start_err post2 "$b" post --listen tcp://10.77.0.2:7002 --allow-insecure --peer tcp://10.77.0.1:7002 "${common[@]}" \
    --sender plant/line2 --count 3 --data "$data" --timeout-ms 30000 7.3
finish post2 40
[ "$status" = 0 ] || fail "post across namespaces ended with $status: $(cat "$tmp/post2.err")"
finish echo2 40
[ "$status" = 0 ] || fail "echo across namespaces ended with $status: $(cat "$tmp/echo2.err")"
[ "$(wc -l <"$tmp/echo2.out")" = 3 ] || fail "echo printed $(wc -l <"$tmp/echo2.out") lines, not 3"
head -n 1 "$tmp/echo2.out" >"$tmp/echo2.first"
[ "$(json "$tmp/echo2.first" "d['data'] == json.loads(sys.argv[3])" "$data")" = True ] ||
    fail "the data did not round-trip: $(cat "$tmp/echo2.first")"
[ "$(json "$tmp/echo2.first" "d['sender']")" = "['plant', 'line2']" ] || fail "wrong sender: $(cat "$tmp/echo2.first")"
echo "ok 2: 3 messages from $b to $a with --allow-insecure: $(cat "$tmp/echo2.first")"

# ---- 3. With CURVE keys from keygen; tables from the other namespace -----------------

"$kest" keygen >"$tmp/a.keys"
"$kest" keygen >"$tmp/b.keys"
a_public=$(sed -n 's/^public //p' "$tmp/a.keys")
b_public=$(sed -n 's/^public //p' "$tmp/b.keys")
b_secret=$(sed -n 's/^secret //p' "$tmp/b.keys")
start echo3 "$a" echo --listen tcp://10.77.0.1:7003 --curve-secret-file "$tmp/a.keys" --curve-allow "$b_public" \
    "${common[@]}" --count 3 --timeout-ms 30000 7.3
start tables3 "$b" tables --listen tcp://10.77.0.2:7013 --curve-secret "$b_secret" --curve-allow "$a_public" \
    --peer "tcp://10.77.0.1:7003?key=$a_public" "${common[@]}" --timeout-ms 20000
finish tables3 30
[ "$status" = 0 ] || fail "tables with CURVE ended with $status: $(cat "$tmp/tables3.err")"
grep -q '^peer tcp://10.77.0.1:7003 .* connected yes synced yes' "$tmp/tables3.out" ||
    fail "tables does not show the echo connected: $(cat "$tmp/tables3.out")"
grep -qx '  subscription 7.3 from (any sender)' "$tmp/tables3.out" ||
    fail "tables does not show the echo's subscription: $(cat "$tmp/tables3.out")"
start_err post3 "$b" post --listen tcp://10.77.0.2:7003 --curve-secret "$b_secret" --curve-allow "$a_public" \
    --peer "tcp://10.77.0.1:7003?key=$a_public" "${common[@]}" --count 3 --data '{"curve":true}' --timeout-ms 30000 7.3
finish post3 40
[ "$status" = 0 ] || fail "post with CURVE ended with $status: $(cat "$tmp/post3.err")"
finish echo3 40
[ "$status" = 0 ] || fail "echo with CURVE ended with $status: $(cat "$tmp/echo3.err")"
[ "$(wc -l <"$tmp/echo3.out")" = 3 ] || fail "echo with CURVE printed $(wc -l <"$tmp/echo3.out") lines, not 3"
echo "ok 3: 3 messages with CURVE keys from kest keygen; tables saw: $(grep subscription "$tmp/tables3.out")"

# ---- 4. A link taken down in the middle of a stream, and brought back ---------------

total=400
# A link that is down loses no TCP segment for good: what was sent before
# the poster's peer time-out waits in the socket buffers and is retransmitted
# when the link is back, so refused and dropped are usually 0 here. The
# accounting below holds whatever they are.
start echo4 "$a" echo --listen tcp://10.77.0.1:7004 --allow-insecure "${common[@]}" --timeout-ms 60000 7.5
start_err post4 "$b" post --listen tcp://10.77.0.2:7004 --allow-insecure --peer tcp://10.77.0.1:7004 "${common[@]}" \
    --send-buffer 20 --count "$total" --interval-ms 5 --data '{"stream":true}' --timeout-ms 60000 7.5
received=0
while ((received < 50)); do
    next echo4 20 || fail "the stream did not start: $(cat "$tmp/echo4.err") / $(cat "$tmp/post4.err")"
    received=$((received + 1))
done
ip -n "$hub" link set "${b}1" down
echo "link ${b}1 down after $received messages"
# Down until the poster has seen its peer go (its peer time-out): it then
# waits for interest again, with some messages posted.
wait_line post4 "waiting for interest in 7.5 \(([1-9][0-9]*) of $total posted\)" 20
posted_at_loss=${BASH_REMATCH[1]}
ip -n "$hub" link set "${b}1" up
echo "link ${b}1 up again; the poster had posted $posted_at_loss"
finish post4 60
post_status=$status
summary_of post4 post
posted=$(json "$tmp/post4.summary" "d['posted']")
refused=$(json "$tmp/post4.summary" "d['refused']")
unrouted=$(json "$tmp/post4.summary" "d['unrouted']")
[ "$posted" = "$total" ] || fail "post posted $posted of $total: $(cat "$tmp/post4.err")"
handed=$((posted - refused - unrouted))
# What echo prints from here on, plus what its bridge counted lost, must reach
# what was handed to the network.
dropped=0
deadline=$((SECONDS + 30))
while ((received + dropped < handed && SECONDS < deadline)); do
    if next echo4 1; then
        [[ $line == "exit "* ]] && fail "echo ended early: $(cat "$tmp/echo4.err")"
        received=$((received + 1))
    fi
    lost=$(sed -n 's/.*: \([0-9]*\) messages lost on the way in all$/\1/p' "$tmp/echo4.err" | tail -n 1)
    dropped=${lost:-0}
done
for pid in $(ip netns pids "$a"); do kill -INT "$pid"; done
finish echo4 20
[ "$status" = 1 ] || fail "echo ended by SIGINT with $status, not 1"
summary_of echo4 echo
echo_received=$(json "$tmp/echo4.summary" "d['received']")
echo_dropped=$(json "$tmp/echo4.summary" "sum(p['counters']['dropped'] for p in d['peers'])")
duplicates=$(sed -n 's/.*"identity":"\([^"]*\)".*/\1/p' "$tmp/echo4.out" | sort | uniq -d | wc -l)
lines=$(wc -l <"$tmp/echo4.out")
echo "stream: posted $posted, refused $refused, unrouted $unrouted (post status $post_status);" \
    "echo printed $lines, counted received $echo_received, dropped $echo_dropped, duplicate identities $duplicates"
[ "$duplicates" = 0 ] || fail "$duplicates identities arrived twice"
[ "$lines" = "$echo_received" ] || fail "echo printed $lines lines but counted $echo_received"
[ $((echo_received + echo_dropped + refused + unrouted)) = "$posted" ] ||
    fail "arrived $echo_received + dropped $echo_dropped + refused $refused + unrouted $unrouted != posted $posted"
((echo_received > posted_at_loss)) || fail "the stream did not resume after the link came back"
if [ "$post_status" = 0 ]; then
    [ $((refused + unrouted)) = 0 ] || fail "post exited 0 though it did not hand every message over"
else
    [ $((refused + unrouted)) -gt 0 ] || fail "post exited $post_status though it handed every message over"
fi
echo "ok 4: the stream resumed after the link came back; arrived + dropped + refused + unrouted = posted"
echo "4 passed, 0 failed"

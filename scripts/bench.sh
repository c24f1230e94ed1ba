#!/usr/bin/env bash
# Builds and runs the benchmark suite, then writes docs/benchmarks.md with its
# plots docs/benchmarks_fanout.svg and docs/benchmarks_routing.svg.
#
#   scripts/bench.sh           the full run, about 4 minutes on two cores
#   scripts/bench.sh --quick   a short run that checks the whole chain; its
#                              report goes to build/bench/results/, never to docs/
#
# Environment: BENCH_REPETITIONS (default 9), BENCH_MIN_TIME (seconds per
# repetition, default 0.25), BENCH_FILTER (a benchmark name regex, default all).
#
# Missing Debian packages (the benchmark library, the peers, gnuplot) are
# installed first with apt-get; that needs root (or sudo).
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build="$root/build/bench"
results="$build/results"
docs="$root/docs"

repetitions=${BENCH_REPETITIONS:-9}
min_time=${BENCH_MIN_TIME:-0.25}
filter=${BENCH_FILTER:-.}
report_dir="$docs"

for arg in "$@"; do
  case "$arg" in
    --quick)
      repetitions=${BENCH_REPETITIONS:-2}
      min_time=${BENCH_MIN_TIME:-0.02}
      report_dir="$results"
      ;;
    -h | --help)
      awk 'NR > 1 && /^#/ { sub(/^# ?/, ""); print; next } NR > 1 { exit }' "${BASH_SOURCE[0]}"
      exit 0
      ;;
    *)
      echo "bench.sh: unknown argument '$arg' (try --help)" >&2
      exit 2
      ;;
  esac
done

# ---- Packages ------------------------------------------------------------------

packages=(cmake g++ python3 gnuplot-nox libbenchmark-dev
          libboost-dev libzmq3-dev cppzmq-dev libconcurrentqueue-dev)
missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null | grep -qx installed; then
    missing+=("$package")
  fi
done
if ((${#missing[@]} > 0)); then
  echo "== installing ${missing[*]}"
  sudo=()
  if [[ $(id -u) -ne 0 ]]; then sudo=(sudo); fi
  "${sudo[@]}" apt-get update
  "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}"
fi

# ---- Build -----------------------------------------------------------------------

echo "== building (preset bench)"
cd "$root"
# The library's commit as built, recorded before anything can change it.
library_commit=$(git -C "$root" rev-parse --short HEAD 2>/dev/null || true)
if [[ -n "$library_commit" ]]; then
  if [[ -n "$(git -C "$root" status --porcelain -- kest 2>/dev/null)" ]]; then
    library_commit+=" with uncommitted changes under \`kest/\`"
  else
    library_commit+=", \`kest/\` as committed"
  fi
else
  library_commit="unknown (not a git checkout)"
fi
cmake --preset bench
cmake --build --preset bench --target kest_bench kest_bench_memory

# ---- Run -------------------------------------------------------------------------

mkdir -p "$results" "$report_dir"
rm -f "$results/kest_bench.json" "$results/memory.json"
read -r load_before _ < /proc/loadavg
started=$(date +%s)

echo "== memory (kest_bench_memory)"
"$build/bench/kest_bench_memory" "$results/memory.json"

echo "== timings (kest_bench: $repetitions repetitions of at least ${min_time}s each)"
"$build/bench/kest_bench" \
  --benchmark_filter="$filter" \
  --benchmark_repetitions="$repetitions" \
  --benchmark_min_time="$min_time" \
  --benchmark_enable_random_interleaving=true \
  --benchmark_report_aggregates_only=true \
  --benchmark_out="$results/kest_bench.json" \
  --benchmark_out_format=json | tee "$results/kest_bench.txt"

read -r load_after _ < /proc/loadavg
elapsed=$(($(date +%s) - started))

# ---- Report ----------------------------------------------------------------------

echo "== writing $report_dir/benchmarks.md"
python3 - "$library_commit" "$results" "$report_dir" "$repetitions" "$min_time" "$load_before" "$load_after" "$elapsed" <<'PY'
import json
import os
import shutil
import statistics
import subprocess
import sys
from datetime import datetime, timezone

commit, results, report_dir, repetitions, min_time, load_before, load_after, elapsed = sys.argv[1:9]


def command_output(*argv):
    try:
        return subprocess.run(argv, capture_output=True, text=True, check=False).stdout
    except OSError:
        return ""


def package_version(name):
    return command_output("dpkg-query", "-W", "-f=${Version}", name).strip() or "not installed"


# ---- Reading the results -------------------------------------------------------

with open(os.path.join(results, "kest_bench.json")) as f:
    suite = json.load(f)
memory = []
memory_path = os.path.join(results, "memory.json")
if os.path.exists(memory_path):
    with open(memory_path) as f:
        memory = json.load(f)["results"]

TO_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


class Run:
    """The aggregates of one benchmark instance."""

    def __init__(self, run_name):
        self.run_name = run_name
        parts = run_name.split("/")
        self.base = parts[0]
        self.args = {}
        self.real_time_only = "real_time" in parts
        for part in parts[1:]:
            if ":" in part:
                key, value = part.split(":", 1)
                if key != "iterations":
                    self.args[key] = int(value)
        self.aggregates = {}
        self.error = None

    def value(self, aggregate="median", field=None):
        """The aggregate in nanoseconds (times) or as given (counters, cv)."""
        entry = self.aggregates.get(aggregate)
        if entry is None:
            return None
        if field is None:
            # Multi-threaded workloads are timed on the wall clock; the others
            # by the CPU time of their one thread, which leaves out the time the
            # shared machine gave to other processes.
            field = "real_time" if self.real_time_only else "cpu_time"
        value = entry.get(field)
        if value is None:
            return None
        if aggregate == "cv" or field not in ("real_time", "cpu_time"):
            return value
        return value * TO_NS[entry["time_unit"]]


runs = {}
for entry in suite["benchmarks"]:
    name = entry.get("run_name", entry["name"])
    run = runs.setdefault(name, Run(name))
    if entry.get("error_occurred"):
        run.error = entry.get("error_message", "error")
    if entry.get("run_type") == "aggregate":
        run.aggregates[entry["aggregate_name"]] = entry


def find(base, **args):
    for run in runs.values():
        if run.base == base and all(run.args.get(k) == v for k, v in args.items()):
            return run
    return None


def median(base, **args):
    run = find(base, **args)
    return run.value() if run else None


# ---- Formatting ------------------------------------------------------------------

def fmt_time(ns):
    if ns is None:
        return "n/a"
    if ns >= 1e6:
        return f"{ns / 1e6:.1f} ms"
    if ns >= 1e4:
        return f"{ns / 1e3:.1f} µs"
    if ns >= 1e3:
        return f"{ns / 1e3:.2f} µs"
    if ns >= 100:
        return f"{ns:.0f} ns"
    return f"{ns:.1f} ns"


def fmt_ratio(a, b):
    if a is None or b is None or b == 0:
        return "n/a"
    return f"×{a / b:.2f}"


def fmt_bytes(value):
    return f"{value:.0f}" if abs(value) >= 0.5 else "0"


def table(header, rows):
    lines = ["| " + " | ".join(header) + " |", "|" + "|".join("---" for _ in header) + "|"]
    lines += ["| " + " | ".join(str(c) for c in row) + " |" for row in rows]
    return "\n".join(lines)


out = []
ctx = suite["context"]

# ---- Machine -------------------------------------------------------------------------

lscpu = {}
for line in command_output("lscpu").splitlines():
    if ":" in line:
        key, value = line.split(":", 1)
        lscpu[key.strip()] = value.strip()
gxx = command_output("g++", "--version").splitlines()
run_date = ctx.get("date", datetime.now(timezone.utc).isoformat())

out.append("# Benchmarks\n")
out.append(
    "Generated by `scripts/bench.sh` from one run of `kest_bench` (Google Benchmark) and "
    "`kest_bench_memory`. Every ratio compares two benchmarks of that same run. "
    "Do not edit by hand: run the script again.\n")
out.append("## Machine\n")
out.append(table(["", ""], [
    ["CPU", lscpu.get("Model name", "unknown")],
    ["Cores", f"{lscpu.get('CPU(s)', ctx.get('num_cpus', '?'))} "
              f"({lscpu.get('Thread(s) per core', '?')} thread(s) per core), "
              f"{ctx.get('mhz_per_cpu', '?')} MHz"],
    ["Compiler", gxx[0] if gxx else "unknown"],
    ["Build", "preset `bench`: Release, `-O3 -DNDEBUG`"],
    ["Library", f"commit {commit}"],
    ["Date", run_date],
    ["Kernel", command_output("uname", "-sr").strip()],
    ["Google Benchmark", f"{package_version('libbenchmark-dev')} (Debian; it reports its own "
                         f"library as a `{ctx.get('library_build_type', '?')}` build, which concerns "
                         "the harness, not the code measured)"],
    ["Peers", f"Boost.Signals2 {package_version('libboost-dev')}, "
              f"ZeroMQ {package_version('libzmq3-dev')} with cppzmq {package_version('cppzmq-dev')}, "
              f"moodycamel::ConcurrentQueue {package_version('libconcurrentqueue-dev')}"],
    ["Run", f"{repetitions} repetitions per benchmark, at least {min_time} s each, "
            f"repetitions interleaved at random; the suite took {elapsed} s"],
    ["Load average", f"{load_before} before the run, {load_after} after it"],
]))
out.append("")
out.append(
    "Each cell is the median over the repetitions. Single-threaded workloads (W1, W3, W5) "
    "are timed by the CPU time of their thread, which leaves out time the machine gave to "
    "other processes; the two-thread workloads (W2, W4) by the wall clock. A ratio is the "
    "Kest time divided by the peer's time: above 1 Kest is slower. Every workload posts "
    "messages that were made ahead of the timed region: the dispatcher refuses a message "
    "it has already handled, so each of its posts takes a fresh one, made in batches of "
    "4,096 with the timer paused; the peers, which keep no history, cycle through one such "
    "batch. W5 times the making of a message.\n")

# ---- W1 --------------------------------------------------------------------------------

fanout_ns = [1, 10, 100]
out.append("## W1: synchronous fan-out\n")
out.append(
    "One post to N `MessageCallback` subscribers through a `MessageDispatcher`, on the "
    "posting thread. Peers: a loop over a `std::vector<std::function>` (the floor: no "
    "lookup, no lock) and a Boost.Signals2 signal with N slots. Every receiver counts the "
    "delivery; the count is checked after the run.\n")
rows = []
for n in fanout_ns:
    kest = median("BM_FanOut_Kest", subscribers=n)
    floor = median("BM_FanOut_FunctionVector", subscribers=n)
    signals = median("BM_FanOut_Signals2", subscribers=n)
    rows.append([n, fmt_time(kest), fmt_time(floor), fmt_ratio(kest, floor), fmt_time(signals),
                 fmt_ratio(kest, signals)])
out.append(table(["N", "Kest", "std::function loop", "Kest ÷ loop", "Boost.Signals2",
                  "Kest ÷ Signals2"], rows))
out.append("\n![W1: time per post over the number of subscribers](benchmarks_fanout.svg)\n")

# ---- W2 --------------------------------------------------------------------------------

pipe_messages = 1_000_000
out.append("## W2: pipe\n")
out.append(
    "One posting thread hands 1,000,000 messages through a queue to one reading thread; "
    "timed until the reader has taken the last one and is joined. Kest twice: posting "
    "through a dispatcher into a subscribed `MessageQueue` (the real path), and "
    "`MessageQueue::putMessage` alone. The messages are made before the clock starts, so "
    "they are cold in the cache when posted; the dispatcher reads each one's identity and "
    "sender to route it, which the bare queues never do. ZeroMQ frames carry the bare "
    "pointer (the run keeps every message alive), so ZeroMQ is spared the reference count "
    "that the other queues pay.\n")
pipe = [("Kest: dispatcher → MessageQueue", "BM_Pipe_KestDispatcher"),
        ("Kest: MessageQueue alone", "BM_Pipe_KestQueue"),
        ("mutex + std::list + condition variable (floor)", "BM_Pipe_MutexList"),
        ("moodycamel BlockingConcurrentQueue", "BM_Pipe_Moodycamel"),
        ("ZeroMQ inproc PUB/SUB", "BM_Pipe_Zmq")]
kest_dispatcher = median("BM_Pipe_KestDispatcher")
kest_queue = median("BM_Pipe_KestQueue")
rows = []
for label, base in pipe:
    t = median(base)
    rate = f"{pipe_messages / (t / 1e9) / 1e6:.2f} M/s" if t else "n/a"
    per = fmt_time(t / pipe_messages) if t else "n/a"
    rows.append([label, fmt_time(t), per, rate, fmt_ratio(kest_dispatcher, t), fmt_ratio(kest_queue, t)])
out.append(table(["Queue", "1,000,000 messages", "per message", "throughput",
                  "Kest dispatcher ÷ this", "Kest queue ÷ this"], rows))
out.append("")

# ---- W3 --------------------------------------------------------------------------------

routing_keys = [1, 12, 13, 1000, 100000]
out.append("## W3: routing scale\n")
out.append(
    "The cost of one post when a table holds K keys with three-level addresses "
    "(`plant/line/unit`), exactly one of which covers the message: the subscriptions "
    "table (sender addresses) and the services table (destination addresses). Tables of "
    "up to 12 entries are scanned key by key; from 13 on, the message's candidate keys "
    "are looked up. Peer: a ZeroMQ SUB socket holding K prefix subscriptions "
    "(`plant/line/unit/` topics); one publish and one receive per message, in one "
    "thread, the frame carrying the bare message pointer.\n")
rows = []
for k in routing_keys:
    subs = median("BM_Routing_KestSubscriptions", keys=k)
    services = median("BM_Routing_KestServices", keys=k)
    zmq = median("BM_Routing_Zmq", keys=k)
    rows.append([f"{k:,}", fmt_time(subs), fmt_time(services), fmt_time(zmq), fmt_ratio(subs, zmq),
                 fmt_ratio(services, zmq)])
out.append(table(["K", "Kest subscriptions", "Kest services", "ZeroMQ SUB", "subscriptions ÷ ZeroMQ",
                  "services ÷ ZeroMQ"], rows))
out.append("")
scale_rows = []
for label, base in [("Kest subscriptions", "BM_Routing_KestSubscriptions"),
                    ("Kest services", "BM_Routing_KestServices"), ("ZeroMQ SUB", "BM_Routing_Zmq")]:
    scale_rows.append([label, fmt_ratio(median(base, keys=13), median(base, keys=12)),
                       fmt_ratio(median(base, keys=100000), median(base, keys=13))])
out.append(table(["Table", "K = 13 ÷ K = 12", "K = 100,000 ÷ K = 13"], scale_rows))
out.append("\n![W3: time per post over the number of keys](benchmarks_routing.svg)\n")

# ---- W4 --------------------------------------------------------------------------------

out.append("## W4: ping-pong latency\n")
out.append(
    "A message goes to a responder thread and an answer comes back, each way through its "
    "own queue: for Kest, two dispatchers, each with the reading side's `MessageQueue` "
    "subscribed. Each of 20,000 round trips is timed on its own; p50 and p99 are their "
    "median and 99th percentile (medians over the repetitions).\n")
pingpong = [("Kest: two dispatchers + MessageQueue", "BM_PingPong_Kest"),
            ("mutex + std::list + condition variable", "BM_PingPong_MutexList")]
kest_run = find("BM_PingPong_Kest")
rows = []
for label, base in pingpong:
    run = find(base)
    if run is None:
        rows.append([label, "n/a", "n/a", "n/a", "n/a", "n/a"])
        continue
    p50, p99 = run.value(field="p50_ns"), run.value(field="p99_ns")
    k50 = kest_run.value(field="p50_ns") if kest_run else None
    k99 = kest_run.value(field="p99_ns") if kest_run else None
    rows.append([label, fmt_time(run.value()), fmt_time(p50), fmt_time(p99), fmt_ratio(k50, p50),
                 fmt_ratio(k99, p99)])
out.append(table(["Queues", "mean round trip", "p50", "p99", "Kest p50 ÷ this", "Kest p99 ÷ this"],
                 rows))
out.append("")

# ---- W5 --------------------------------------------------------------------------------

out.append("## W5: the parts of a post\n")
parts = [
    ("Make a `Message` (identity only), `std::make_shared`", "BM_Create_KestMessage", {}),
    ("Make a `Message` with a 3-level sender", "BM_Create_KestMessageWithSender", {}),
    ("`std::make_shared` of a plain block of the same size", "BM_Create_PlainMakeShared", {}),
    ("`Message::makeIdentity()` alone", "BM_Create_Identity", {}),
    ("`MessagesHandled::handleMessage`, history at capacity", "BM_History_HandleMessageAtCapacity", {}),
    ("`findCovering`, 12 entries (scan)", "BM_Lookup_FindCovering", {"entries": 12}),
    ("`findCovering`, 13 entries (candidate keys)", "BM_Lookup_FindCovering", {"entries": 13}),
    ("Post refused by a full fixed-depth queue, warning to a null stream",
     "BM_Refused_FullFixedDepthQueue", {}),
]
rows = [[label, fmt_time(median(base, **args))] for label, base, args in parts]
out.append(table(["Step", "median"], rows))
out.append("")
out.append(table(["Comparison", "ratio"], [
    ["`Message` with identity ÷ plain `make_shared` of the same size",
     fmt_ratio(median("BM_Create_KestMessage"), median("BM_Create_PlainMakeShared"))],
    ["`findCovering` 13 entries ÷ 12 entries",
     fmt_ratio(median("BM_Lookup_FindCovering", entries=13), median("BM_Lookup_FindCovering", entries=12))],
]))
out.append("")

# ---- Memory ----------------------------------------------------------------------------

out.append("## Memory\n")
out.append(
    "From `kest_bench_memory`, which replaces the global `operator new` and `operator "
    "delete` with counting ones (in that executable only) and reads malloc's arena. Each "
    "line handles 10,000 items. *Allocations* and *requested* count every `operator new` "
    "call of the step, freed ones included; *retained* is the usable size of the blocks "
    "still held afterwards; *heap* is the growth of malloc's arena, which also sees memory "
    "taken with `malloc` (moodycamel, ZeroMQ) and malloc's own overhead. Dispatchers are "
    "measured with their handled-message history already full, so that it does not grow "
    "during a step.\n")
if memory:
    rows = [[m["item"], f"{m['allocations']:.2f}", fmt_bytes(m["requested_bytes"]),
             fmt_bytes(m["retained_bytes"]), fmt_bytes(m["heap_bytes"])] for m in memory]
    out.append(table(["Per item", "allocations", "requested (B)", "retained (B)", "heap (B)"], rows))
else:
    out.append("`kest_bench_memory` produced no results.")
out.append("")

# ---- Noise -------------------------------------------------------------------------------

out.append("## Noise\n")
cvs = []
off_cpu = []
for run in runs.values():
    cv = run.value("cv")
    if cv is not None:
        cvs.append((cv, run.run_name))
    if not run.real_time_only:
        real = run.value(field="real_time")
        cpu = run.value(field="cpu_time")
        if real and cpu:
            off_cpu.append(real / cpu)
if cvs:
    cvs.sort()
    worst = cvs[-3:][::-1]
    out.append(
        f"Coefficient of variation over the repetitions: median {statistics.median(c for c, _ in cvs) * 100:.1f} %, "
        f"largest " + ", ".join(f"{c * 100:.1f} % (`{n}`)" for c, n in worst) + ". "
        f"{sum(1 for c, _ in cvs if c > 0.05)} of {len(cvs)} benchmarks vary by more than 5 %.")
if off_cpu:
    out.append(
        f"Single-threaded benchmarks took a median of ×{statistics.median(off_cpu):.2f} their CPU time "
        f"on the wall clock (up to ×{max(off_cpu):.2f}): the rest went to other processes.")
errors = [(run.run_name, run.error) for run in runs.values() if run.error]
if errors:
    out.append("\nFailed benchmarks (their numbers are missing above):\n")
    out += [f"- `{name}`: {error}" for name, error in errors]
missing = [base for base in ("BM_FanOut_Signals2", "BM_Pipe_Moodycamel", "BM_Pipe_Zmq", "BM_Routing_Zmq")
           if find(base) is None]
if missing:
    out.append("\nNot in this run (peer package missing at build time, or filtered out): "
               + ", ".join(f"`{m}`" for m in missing) + ".")
out.append("")

# ---- Raw medians --------------------------------------------------------------------------

out.append("## All medians\n")
rows = []
for run in sorted(runs.values(), key=lambda r: r.run_name):
    cv = run.value("cv")
    rows.append([f"`{run.run_name}`", fmt_time(run.value()), fmt_time(run.value(field="real_time")),
                 f"{cv * 100:.1f} %" if cv is not None else "n/a", run.error or ""])
out.append(table(["Benchmark", "median (table time)", "median wall clock", "CV", "error"], rows))
out.append("")

with open(os.path.join(report_dir, "benchmarks.md"), "w") as f:
    f.write("\n".join(out))

# ---- Plots --------------------------------------------------------------------------------

def write_series(path, xs, series):
    with open(path, "w") as f:
        for x, values in zip(xs, zip(*series)):
            f.write(f"{x} " + " ".join("NaN" if v is None else f"{v:.3f}" for v in values) + "\n")


def plot(name, title, xlabel, xs, labels, series):
    data = os.path.join(results, name + ".dat")
    write_series(data, xs, series)
    svg = os.path.join(report_dir, name + ".svg")
    curves = ", ".join(
        f"'{data}' using 1:{i + 2} with linespoints linewidth 2 pointtype {i + 5} title '{label}'"
        for i, label in enumerate(labels) if any(v is not None for v in series[i]))
    if not curves:
        print(f"bench.sh: no data for {name}.svg, not plotted", file=sys.stderr)
        return
    script = "\n".join([
        "set terminal svg size 720,440 dynamic font 'sans,12' background rgb 'white'",
        f"set output '{svg}'",
        f"set title '{title}'",
        f"set xlabel '{xlabel}'",
        "set ylabel 'ns per post (median)'",
        "set logscale xy",
        "set grid",
        "set rmargin 6",
        "set offsets graph 0.03, graph 0.03, 0, 0",
        "set key below",
        "set datafile missing 'NaN'",
        f"plot {curves}",
    ])
    subprocess.run(["gnuplot"], input=script, text=True, check=True)


if shutil.which("gnuplot"):
    plot("benchmarks_fanout", "W1: one post to N callback subscribers", "subscribers N", fanout_ns,
         ["Kest MessageDispatcher", "std::function loop", "Boost.Signals2"],
         [[median(b, subscribers=n) for n in fanout_ns]
          for b in ("BM_FanOut_Kest", "BM_FanOut_FunctionVector", "BM_FanOut_Signals2")])
    plot("benchmarks_routing", "W3: one post, K keys in the table, one matching", "keys K", routing_keys,
         ["Kest subscriptions", "Kest services", "ZeroMQ SUB prefix subscriptions"],
         [[median(b, keys=k) for k in routing_keys]
          for b in ("BM_Routing_KestSubscriptions", "BM_Routing_KestServices", "BM_Routing_Zmq")])
else:
    print("bench.sh: gnuplot not found, no plots written", file=sys.stderr)
PY

# The hand-kept record of the posting path's cost before and after its work.
cat "$root/bench/posting-path-history.md" >> "$report_dir/benchmarks.md"

echo "== done: $report_dir/benchmarks.md (suite took ${elapsed}s)"

#!/usr/bin/env python3
"""Writes docs/benchmarks.md (or another report directory's benchmarks.md) from
the Google Benchmark JSON of kest_bench and the JSON of kest_bench_memory,
and, when given, of kest_bench_net (the wire format) and kest_bench_bridge
(the bridge between two processes): the tables of every workload, the ratios
against the peers, the targets with their verdicts, the plots (through
gnuplot, when it is installed), and at the end the hand-kept notes given with
--include, copied verbatim.

    bench_report.py --bench-json results/kest_bench.json --out-dir docs \\
        [--memory-json results/memory.json] [--data-dir results] \\
        [--net-json results/kest_bench_net.json] \\
        [--bridge-json results/kest_bench_bridge.json] \\
        [--include bench/posting-path-history.md] [--commit TEXT] \\
        [--min-time S] [--load-before X] [--load-after X] [--elapsed S] [--no-plots]

scripts/bench.sh runs the benchmarks and then this program. Standard library
only; the plots need the gnuplot program.
"""

import argparse
import functools
import json
import os
import shutil
import statistics
import subprocess
import sys
from datetime import datetime, timezone

TO_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}

FANOUT_SUBSCRIBERS = [1, 10, 100]
ROUTING_KEYS = [1, 12, 13, 1000, 100000]
PIPE_MESSAGES = 1_000_000

# Benchmarks that exist only when their peer's package was there at build time.
PEER_BENCHMARKS = ["BM_FanOut_Signals2", "BM_FanOutFresh_Signals2", "BM_Pipe_Moodycamel", "BM_Pipe_Zmq",
                   "BM_PipeFresh_Moodycamel", "BM_PipeFresh_Zmq", "BM_Routing_Zmq"]


# ---- Reading the results -------------------------------------------------------------


class Run:
    """One benchmark instance: its repetitions and the aggregates Google Benchmark computed."""

    def __init__(self, run_name):
        self.run_name = run_name
        parts = run_name.split("/")
        self.base = parts[0]
        self.args = {}
        for part in parts[1:]:
            if ":" in part:
                key, value = part.split(":", 1)
                if key != "iterations":
                    self.args[key] = int(value)
        # Multi-threaded workloads are timed on the wall clock; the others by
        # the CPU time of their one thread, which leaves out the time the shared
        # machine gave to other processes.
        # A benchmark that times itself (manual_time) reports wall-clock time.
        self.real_time_only = "real_time" in parts or "manual_time" in parts
        self.repetitions = {}  # repetition index -> entry
        self.aggregates = {}  # aggregate name -> entry
        self.error = None

    def add(self, entry):
        if entry.get("error_occurred"):
            self.error = entry.get("error_message") or "error"
        if entry.get("run_type") == "aggregate":
            self.aggregates[entry["aggregate_name"]] = entry
        else:
            self.repetitions[entry.get("repetition_index", len(self.repetitions))] = entry

    def time_field(self):
        return "real_time" if self.real_time_only else "cpu_time"

    def samples(self, field=None):
        """{repetition index: value}, times in ns, counters as they are."""
        field = field or self.time_field()
        out = {}
        for index, entry in self.repetitions.items():
            value = _entry_value(entry, field)
            if value is not None:
                out[index] = value
        return out

    def median(self, field=None):
        """The median over the repetitions, or None."""
        field = field or self.time_field()
        entry = self.aggregates.get("median")
        if entry is not None:
            return _entry_value(entry, field)
        samples = list(self.samples(field).values())
        return statistics.median(samples) if samples else None

    def cv(self):
        """The coefficient of variation of the time over the repetitions, or None."""
        entry = self.aggregates.get("cv")
        if entry is not None:
            return entry.get(self.time_field())
        samples = list(self.samples().values())
        if len(samples) < 2 or statistics.mean(samples) == 0:
            return None
        return statistics.stdev(samples) / statistics.mean(samples)


def _entry_value(entry, field):
    value = entry.get(field)
    if value is None:
        return None
    if field in ("real_time", "cpu_time"):
        return value * TO_NS[entry.get("time_unit", "ns")]
    return value


class Suite:
    """Every run of one kest_bench JSON file."""

    def __init__(self, data):
        self.context = data.get("context", {})
        self.runs = {}
        for entry in data.get("benchmarks", []):
            name = entry.get("run_name", entry["name"])
            self.runs.setdefault(name, Run(name)).add(entry)

    @classmethod
    def load(cls, path):
        with open(path) as f:
            return cls(json.load(f))

    def find(self, base, **args):
        for run in self.runs.values():
            if run.base == base and all(run.args.get(k) == v for k, v in args.items()):
                return run
        return None

    def measured(self, base, **args):
        """The run if it is there and succeeded, else None."""
        run = self.find(base, **args)
        return run if run is not None and run.error is None else None

    def median(self, base, **args):
        run = self.measured(base, **args)
        return run.median() if run else None

    def repetitions(self):
        """The number of repetitions the run asked for, or None."""
        counts = [entry.get("repetitions") or 0 for run in self.runs.values()
                  for entry in list(run.repetitions.values()) + list(run.aggregates.values())]
        return max(counts, default=0) or None


# ---- Formatting ------------------------------------------------------------------------


def fmt_time(ns, digits=None):
    if ns is None:
        return "n/a"
    if digits is not None:
        return f"{ns:.{digits}f} ns"
    if ns >= 1e6:
        return f"{ns / 1e6:.1f} ms"
    if ns >= 1e4:
        return f"{ns / 1e3:.1f} µs"
    if ns >= 1e3:
        return f"{ns / 1e3:.2f} µs"
    if ns >= 100:
        return f"{ns:.0f} ns"
    return f"{ns:.1f} ns"


def ratio(a, b):
    if a is None or b is None or b == 0:
        return None
    return a / b


def fmt_factor(value, digits=2):
    return "n/a" if value is None else f"×{value:.{digits}f}"


def fmt_ratio(a, b):
    return fmt_factor(ratio(a, b))


def fmt_bytes(value):
    return f"{value:.0f}" if abs(value) >= 0.5 else "0"


def table(header, rows):
    lines = ["| " + " | ".join(header) + " |", "|" + "|".join("---" for _ in header) + "|"]
    lines += ["| " + " | ".join(str(c) for c in row) + " |" for row in rows]
    return "\n".join(lines)


# ---- Targets -----------------------------------------------------------------------------

MET, MISSED, NOT_MEASURED = "met", "missed", "not measured"


class Target:
    """A limit, the value this run measured for it, and the verdict."""

    def __init__(self, label, limit, unit, value, source, spread=None, note=None, at_least=False):
        self.label = label
        self.limit = limit
        self.at_least = at_least  # met when value >= limit (a rate), else when value <= limit
        self.unit = unit  # "ratio" or "ns"
        self.value = value  # None when not measured
        self.source = source  # how the value is computed, benchmark names included
        self.spread = spread  # (lowest, highest, count) of per-repetition values
        self.note = note  # why the value is missing, when it is

    @property
    def verdict(self):
        if self.value is None:
            return NOT_MEASURED
        return MET if self._within(self.value) else MISSED

    def _within(self, value):
        return value >= self.limit if self.at_least else value <= self.limit

    def _format(self, value, digits):
        return fmt_factor(value, digits) if self.unit == "ratio" else fmt_time(value, digits)

    def shown_value(self):
        if self.value is None:
            return "n/a" + (f": {self.note}" if self.note else "")
        # Enough digits that the number shown agrees with the verdict (×1.004
        # against a limit of ×1.0 is shown so, not as ×1.00).
        digits = 2 if self.unit == "ratio" else 1
        while digits < 6 and self._within(round(self.value, digits)) != self._within(self.value):
            digits += 1
        text = self._format(self.value, digits)
        if self.spread is not None:
            low, high, count = self.spread
            text += f" (min–max {self._format(low, digits)} – {self._format(high, digits)}, {count} repetitions)"
        return text

    def shown_limit(self):
        sign = "≥ " if self.at_least else "≤ "
        # One decimal, or two where one would round the limit (×1.25 is not ×1.2).
        digits = 1 if round(self.limit, 1) == self.limit else 2
        return sign + (fmt_factor(self.limit, digits) if self.unit == "ratio" else fmt_time(self.limit, 0))


def _missing_note(suite, *names):
    """Says which of the benchmarks (base name, args) is absent or failed."""
    absent = []
    for base, args in names:
        run = suite.find(base, **args)
        label = _name(base, args)
        if run is None:
            absent.append(f"no `{label}`")
        elif run.error is not None:
            absent.append(f"`{label}` failed")
    return ", ".join(absent) or None


def median_ratio_target(suite, label, limit, numerator, denominator):
    (a_base, a_args), (b_base, b_args) = numerator, denominator
    value = ratio(suite.median(a_base, **a_args), suite.median(b_base, **b_args))
    source = f"median `{_name(a_base, a_args)}` ÷ median `{_name(b_base, b_args)}`"
    return Target(label, limit, "ratio", value, source,
                  note=None if value is not None else _missing_note(suite, numerator, denominator))


def _name(base, args):
    return base + "".join(f"/{k}:{v}" for k, v in args.items())


def per_subscriber(suite, base, low=1, high=100):
    """The cost of one more subscriber: (t(high) − t(low)) / (high − low), the fixed cost of a post left out."""
    t_low = suite.median(base, subscribers=low)
    t_high = suite.median(base, subscribers=high)
    if t_low is None or t_high is None:
        return None
    return (t_high - t_low) / (high - low)


def per_subscriber_target(suite, label, limit, kest, floor):
    kest_cost, floor_cost = per_subscriber(suite, kest), per_subscriber(suite, floor)
    note = None
    value = None
    if kest_cost is None or floor_cost is None:
        note = _missing_note(suite, (kest, {"subscribers": 1}), (kest, {"subscribers": 100}),
                             (floor, {"subscribers": 1}), (floor, {"subscribers": 100}))
    elif floor_cost <= 0:
        note = "the floor does not grow with N in this run"
    else:
        value = kest_cost / floor_cost
    source = (f"(`{kest}` N=100 − N=1) ÷ (`{floor}` N=100 − N=1), medians")
    return Target(label, limit, "ratio", value, source, note=note)


def paired_ratios(suite, numerator, denominator):
    """Per-repetition ratios numerator ÷ denominator, repetition i with repetition i. None if either
    run is missing or failed; [] if the JSON holds aggregates only."""
    a, b = suite.measured(numerator), suite.measured(denominator)
    if a is None or b is None:
        return None
    a_samples, b_samples = a.samples(), b.samples()
    return [a_samples[i] / b_samples[i] for i in sorted(set(a_samples) & set(b_samples)) if b_samples[i]]


def pipe_target(suite, label, limit, numerator, denominator):
    ratios = paired_ratios(suite, numerator, denominator)
    source = f"`{numerator}` ÷ `{denominator}` per repetition, median of the ratios"
    if ratios is None:
        return Target(label, limit, "ratio", None, source,
                      note=_missing_note(suite, (numerator, {}), (denominator, {})))
    if not ratios:  # aggregates only: the ratio of the medians, no spread
        value = ratio(suite.median(numerator), suite.median(denominator))
        return Target(label, limit, "ratio", value, f"median `{numerator}` ÷ median `{denominator}` "
                      "(no per-repetition times in the JSON)")
    return Target(label, limit, "ratio", statistics.median(ratios), source,
                  spread=(min(ratios), max(ratios), len(ratios)))


def compute_targets(suite):
    history = suite.median("BM_History_HandleMessageAtCapacity")
    return [
        median_ratio_target(suite, "Making a message with identity ÷ plain `make_shared` of the same size",
                            1.5, ("BM_Create_KestMessage", {}), ("BM_Create_PlainMakeShared", {})),
        median_ratio_target(suite, "W1, N = 1: Kest ÷ Boost.Signals2, pre-made messages", 1.0,
                            ("BM_FanOut_Kest", {"subscribers": 1}), ("BM_FanOut_Signals2", {"subscribers": 1})),
        median_ratio_target(suite, "W1, N = 1: Kest ÷ Boost.Signals2, fresh message per post", 1.0,
                            ("BM_FanOutFresh_Kest", {"subscribers": 1}),
                            ("BM_FanOutFresh_Signals2", {"subscribers": 1})),
        per_subscriber_target(suite, "W1, N = 100: per-subscriber cost ÷ delivery floor, pre-made messages",
                              1.2, "BM_FanOut_Kest", "BM_FanOut_Floor"),
        per_subscriber_target(suite, "W1, N = 100: per-subscriber cost ÷ delivery floor, fresh message per post",
                              1.2, "BM_FanOutFresh_Kest", "BM_FanOutFresh_Floor"),
        pipe_target(suite, "W2 fresh: dispatcher → `MessageQueue` ÷ mutex + list", 1.0,
                    "BM_PipeFresh_KestDispatcher", "BM_PipeFresh_MutexList"),
        pipe_target(suite, "W2 fresh: dispatcher → `MessageQueue` ÷ ZeroMQ", 1.0,
                    "BM_PipeFresh_KestDispatcher", "BM_PipeFresh_Zmq"),
        Target("History at capacity, per identity", 15.0, "ns", history,
               "median `BM_History_HandleMessageAtCapacity`",
               note=None if history is not None else
               _missing_note(suite, ("BM_History_HandleMessageAtCapacity", {}))),
        median_ratio_target(suite, "W3 subscriptions: K = 100,000 ÷ K = 13", 1.3,
                            ("BM_Routing_KestSubscriptions", {"keys": 100000}),
                            ("BM_Routing_KestSubscriptions", {"keys": 13})),
        median_ratio_target(suite, "W3 services: K = 100,000 ÷ K = 13", 1.3,
                            ("BM_Routing_KestServices", {"keys": 100000}),
                            ("BM_Routing_KestServices", {"keys": 13})),
    ]


BRIDGE_MESSAGES = 200000
BRIDGE_THROUGHPUT_KEST = "BM_Bridge_Throughput_Kest"
BRIDGE_THROUGHPUT_ZMQ = "BM_Bridge_Throughput_ZmqPubSub"
BRIDGE_ROUND_TRIPS = [("Kest, I/O threads (`start()`), `MessageQueue` readers", "BM_Bridge_RoundTrip_Kest"),
                      ("Kest, each host's own loop (`poll()`), `MessageCallback`", "BM_Bridge_RoundTrip_KestPoll"),
                      ("raw ZeroMQ DEALER → ROUTER, answered from the ROUTER's thread",
                       "BM_Bridge_RoundTrip_ZmqDealerRouter")]
BRIDGE_ROUND_TRIP_ZMQ = "BM_Bridge_RoundTrip_ZmqDealerRouter"
BRIDGE_PERCENTILES = [50, 90, 99]


def counter_ratio_target(suite, label, limit, counter, numerator, denominator, at_least=False):
    """The ratio of the medians of one counter of two benchmarks (base name, args)."""
    (a_base, a_args), (b_base, b_args) = numerator, denominator
    a, b = suite.measured(a_base, **a_args), suite.measured(b_base, **b_args)
    value = ratio(a.median(counter) if a else None, b.median(counter) if b else None)
    source = f"median {counter} of `{_name(a_base, a_args)}` ÷ that of `{_name(b_base, b_args)}`"
    return Target(label, limit, "ratio", value, source, at_least=at_least,
                  note=None if value is not None else _missing_note(suite, numerator, denominator))


BRIDGE_THROUGHPUT = "Bridge throughput: Kest ÷ raw ZeroMQ PUB/SUB, messages per second"
BRIDGE_P50_THREAD = "Bridge round trip p50: Kest with I/O threads ÷ raw ZeroMQ"
BRIDGE_P50_POLL = "Bridge round trip p50: Kest in the hosts' loops (`poll()`) ÷ raw ZeroMQ"


def compute_bridge_targets(bridge):
    """The bridge's targets; none without its JSON."""
    if bridge is None:
        return []
    messages = {"messages": BRIDGE_MESSAGES}
    return [
        counter_ratio_target(bridge, BRIDGE_THROUGHPUT, 0.8, "msgs_per_s", (BRIDGE_THROUGHPUT_KEST, messages),
                             (BRIDGE_THROUGHPUT_ZMQ, messages), at_least=True),
        counter_ratio_target(bridge, BRIDGE_P50_THREAD, 1.25, "p50_ns", ("BM_Bridge_RoundTrip_Kest", {}),
                             (BRIDGE_ROUND_TRIP_ZMQ, {})),
        counter_ratio_target(bridge, BRIDGE_P50_POLL, 1.25, "p50_ns", ("BM_Bridge_RoundTrip_KestPoll", {}),
                             (BRIDGE_ROUND_TRIP_ZMQ, {})),
    ]


# ---- The machine ---------------------------------------------------------------------------


@functools.lru_cache(maxsize=None)
def command_output(*argv):
    try:
        return subprocess.run(argv, capture_output=True, text=True, check=False).stdout
    except OSError:
        return ""


def package_version(name):
    return command_output("dpkg-query", "-W", "-f=${Version}", name).strip() or "not installed"


def machine_section(suite, options):
    ctx = suite.context
    lscpu = {}
    for line in command_output("lscpu").splitlines():
        if ":" in line:
            key, value = line.split(":", 1)
            lscpu[key.strip()] = value.strip()
    gxx = command_output("g++", "--version").splitlines()
    repetitions = suite.repetitions() or "?"
    run = f"{repetitions} repetitions per benchmark"
    if options.min_time:
        run += f", at least {options.min_time} s each"
    run += ", repetitions interleaved at random"
    if options.elapsed:
        run += f"; the suite took {options.elapsed} s"
    rows = [
        ["CPU", lscpu.get("Model name", "unknown")],
        ["Cores", f"{lscpu.get('CPU(s)', ctx.get('num_cpus', '?'))} "
                  f"({lscpu.get('Thread(s) per core', '?')} thread(s) per core), "
                  f"{ctx.get('mhz_per_cpu', '?')} MHz"],
        ["Compiler", gxx[0] if gxx else "unknown"],
        ["Build", "preset `bench`: Release, `-O3 -DNDEBUG`"],
        ["Library", f"commit {options.commit}"],
        ["Date", ctx.get("date", datetime.now(timezone.utc).isoformat())],
        ["Kernel", command_output("uname", "-sr").strip()],
        ["Google Benchmark", f"{package_version('libbenchmark-dev')} (Debian; it reports its own "
                             f"library as a `{ctx.get('library_build_type', '?')}` build, which concerns "
                             "the harness, not the code measured)"],
        ["Peers", f"Boost.Signals2 {package_version('libboost-dev')}, "
                  f"ZeroMQ {package_version('libzmq3-dev')} with cppzmq {package_version('cppzmq-dev')}, "
                  f"moodycamel::ConcurrentQueue {package_version('libconcurrentqueue-dev')}"],
        ["Run", run],
    ]
    if options.load_before or options.load_after:
        rows.append(["Load average", f"{options.load_before or '?'} before the run, "
                                     f"{options.load_after or '?'} after it"])
    return ["## Machine\n", table(["", ""], rows), ""]


# ---- The report ------------------------------------------------------------------------------


def targets_section(targets):
    out = ["## Targets\n"]
    out.append(
        "Computed from this run, never typed in: a target is met when the measured value is at most "
        "its limit. A ratio of two single-threaded benchmarks divides their medians; W1's "
        "per-subscriber cost is the growth of a post's time from 1 to 100 subscribers divided by 99, "
        "for Kest and for the delivery floor alike, so that the fixed cost of a post stays out of it; "
        "the W2 ratios divide repetition i of one benchmark by repetition i of the other and are given "
        "as the median of those ratios, with the lowest and highest (the run shuffles all repetitions, "
        "so the spread shows how far the machine's noise moves a ratio). A benchmark "
        "missing from the run, or failed, leaves its target not measured. Why a target is missed is "
        "written by hand in the notes at the end.\n")
    rows = [[t.label, t.shown_value(), t.shown_limit(), f"**{t.verdict}**", t.source] for t in targets]
    out.append(table(["Target", "measured", "limit", "verdict", "computed from"], rows))
    counts = {v: sum(1 for t in targets if t.verdict == v) for v in (MET, MISSED, NOT_MEASURED)}
    out.append(f"\n{counts[MET]} met, {counts[MISSED]} missed, {counts[NOT_MEASURED]} not measured.\n")
    return out


def fanout_section(suite):
    s = suite
    out = ["## W1: synchronous fan-out\n"]
    out.append(
        "One post to N `MessageCallback` subscribers through a `MessageDispatcher`, on the "
        "posting thread. Peers: a loop over a `std::vector<std::function>` (no lookup, no lock, no "
        "copy of the pointer) and a Boost.Signals2 signal with N slots. The delivery floor does per "
        "subscriber only what a delivery to a locked callback subscriber cannot avoid: copy the "
        "`std::shared_ptr`, lock and unlock the subscriber's own `std::mutex`, call its "
        "`std::function`. Every receiver counts the delivery; the count is checked after the run.\n")
    header = ["N", "Kest", "std::function loop", "Kest ÷ loop", "Boost.Signals2", "Kest ÷ Signals2",
              "delivery floor", "Kest ÷ floor"]
    for title, prefix in [("Pre-made messages", "BM_FanOut_"), ("Fresh message per post", "BM_FanOutFresh_")]:
        rows = []
        for n in FANOUT_SUBSCRIBERS:
            kest = s.median(prefix + "Kest", subscribers=n)
            loop = s.median(prefix + "FunctionVector", subscribers=n)
            signals = s.median(prefix + "Signals2", subscribers=n)
            floor = s.median(prefix + "Floor", subscribers=n)
            rows.append([n, fmt_time(kest), fmt_time(loop), fmt_ratio(kest, loop), fmt_time(signals),
                         fmt_ratio(kest, signals), fmt_time(floor), fmt_ratio(kest, floor)])
        out.append(f"**{title}.**" + (
            "" if prefix == "BM_FanOut_" else
            " The dispatcher gets a `Message` made in the timed loop and dropped after the post; the "
            "peers and the floor a `make_shared` block of the same size.") + "\n")
        out.append(table(header, rows))
        out.append("")
    rows = []
    for title, prefix in [("pre-made messages", "BM_FanOut_"), ("fresh message per post", "BM_FanOutFresh_")]:
        kest, floor = per_subscriber(s, prefix + "Kest"), per_subscriber(s, prefix + "Floor")
        rows.append([title, fmt_time(kest), fmt_time(floor), fmt_ratio(kest, floor)])
    out.append("Per subscriber, (t(N = 100) − t(N = 1)) ÷ 99:\n")
    out.append(table(["Messages", "Kest per subscriber", "floor per subscriber", "Kest ÷ floor"], rows))
    out.append("\n![W1: time per post over the number of subscribers](benchmarks_fanout.svg)\n")
    out.append("![W1 with a fresh message per post](benchmarks_fanout_fresh.svg)\n")
    return out


def pipe_section(suite):
    s = suite
    out = ["## W2: pipe\n"]
    out.append(
        "One posting thread hands 1,000,000 messages through a queue to one reading thread; "
        "timed until the reader has taken the last one and is joined. Kest twice: posting "
        "through a dispatcher into a subscribed `MessageQueue` (the real path), and "
        "`MessageQueue::putMessage` alone.\n")
    out.append(
        "**Pre-made messages.** The messages are made before the clock starts, so "
        "they are cold in the cache when posted; the dispatcher reads each one's identity and "
        "sender to route it, which the bare queues never do. ZeroMQ frames carry the bare "
        "pointer (the run keeps every message alive), so ZeroMQ is spared the reference count "
        "that the other queues pay.\n")
    pipe = [("Kest: dispatcher → MessageQueue", "KestDispatcher"),
            ("Kest: MessageQueue alone", "KestQueue"),
            ("mutex + std::list + condition variable (floor)", "MutexList"),
            ("moodycamel BlockingConcurrentQueue", "Moodycamel"),
            ("ZeroMQ inproc PUB/SUB", "Zmq")]
    header = ["Queue", "1,000,000 messages", "per message", "throughput", "Kest dispatcher ÷ this",
              "Kest queue ÷ this"]

    def basic(prefix, label, name, ratio_cells):
        t = s.median(prefix + name)
        rate = f"{PIPE_MESSAGES / (t / 1e9) / 1e6:.2f} M/s" if t else "n/a"
        per = fmt_time(t / PIPE_MESSAGES) if t else "n/a"
        return [label, fmt_time(t), per, rate] + ratio_cells(t, name)

    kest_dispatcher, kest_queue = s.median("BM_Pipe_KestDispatcher"), s.median("BM_Pipe_KestQueue")
    rows = [basic("BM_Pipe_", label, name,
                  lambda t, _: [fmt_ratio(kest_dispatcher, t), fmt_ratio(kest_queue, t)])
            for label, name in pipe]
    out.append(table(header, rows))
    out.append("")
    out.append(
        "**Fresh message per send.** The posting thread makes each message as it sends it and the "
        "reader drops each one it takes, so the making and the free on the other thread are timed "
        "with the queue. Kest sends a `Message` (with its 3-level sender); the mutex + list and "
        "moodycamel queues a `std::make_shared` block of the same size; ZeroMQ a plain `new` of that "
        "block, whose pointer the frame carries and which the reader deletes (a `shared_ptr` cannot "
        "cross a byte frame without a second allocation). A ratio cell gives the median of the "
        "per-repetition ratios and, in brackets, the lowest and highest of them.\n")

    def spread_cell(numerator, denominator):
        ratios = paired_ratios(s, numerator, denominator)
        if ratios is None:
            return "n/a"
        if not ratios:
            return fmt_ratio(s.median(numerator), s.median(denominator))
        return (f"{fmt_factor(statistics.median(ratios))} "
                f"({fmt_factor(min(ratios))} – {fmt_factor(max(ratios))})")

    rows = [basic("BM_PipeFresh_", label, name,
                  lambda t, n: [spread_cell("BM_PipeFresh_KestDispatcher", "BM_PipeFresh_" + n),
                                spread_cell("BM_PipeFresh_KestQueue", "BM_PipeFresh_" + n)])
            for label, name in pipe]
    out.append(table(header, rows))
    out.append("")
    return out


def routing_section(suite):
    s = suite
    out = ["## W3: routing scale\n"]
    out.append(
        "The cost of one post when a table holds K keys with three-level addresses "
        "(`plant/line/unit`), exactly one of which covers the message: the subscriptions "
        "table (sender addresses) and the services table (destination addresses). Tables of "
        "up to 12 entries are scanned key by key; from 13 on, the message's candidate keys "
        "are looked up. Peer: a ZeroMQ SUB socket holding K prefix subscriptions "
        "(`plant/line/unit/` topics); one publish and one receive per message, in one "
        "thread, the frame carrying the bare message pointer.\n")
    rows = []
    for k in ROUTING_KEYS:
        subs = s.median("BM_Routing_KestSubscriptions", keys=k)
        services = s.median("BM_Routing_KestServices", keys=k)
        zmq = s.median("BM_Routing_Zmq", keys=k)
        rows.append([f"{k:,}", fmt_time(subs), fmt_time(services), fmt_time(zmq), fmt_ratio(subs, zmq),
                     fmt_ratio(services, zmq)])
    out.append(table(["K", "Kest subscriptions", "Kest services", "ZeroMQ SUB", "subscriptions ÷ ZeroMQ",
                      "services ÷ ZeroMQ"], rows))
    out.append("")
    rows = []
    for label, base in [("Kest subscriptions", "BM_Routing_KestSubscriptions"),
                        ("Kest services", "BM_Routing_KestServices"), ("ZeroMQ SUB", "BM_Routing_Zmq")]:
        rows.append([label, fmt_ratio(s.median(base, keys=13), s.median(base, keys=12)),
                     fmt_ratio(s.median(base, keys=100000), s.median(base, keys=13))])
    out.append(table(["Table", "K = 13 ÷ K = 12", "K = 100,000 ÷ K = 13"], rows))
    out.append("\n![W3: time per post over the number of keys](benchmarks_routing.svg)\n")
    return out


def pingpong_section(suite):
    out = ["## W4: ping-pong latency\n"]
    out.append(
        "A message goes to a responder thread and an answer comes back, each way through its "
        "own queue: for Kest, two dispatchers, each with the reading side's `MessageQueue` "
        "subscribed. Each of 20,000 round trips is timed on its own; p50 and p99 are their "
        "median and 99th percentile (medians over the repetitions).\n")
    kest = suite.measured("BM_PingPong_Kest")
    k50 = kest.median("p50_ns") if kest else None
    k99 = kest.median("p99_ns") if kest else None
    rows = []
    for label, base in [("Kest: two dispatchers + MessageQueue", "BM_PingPong_Kest"),
                        ("mutex + std::list + condition variable", "BM_PingPong_MutexList")]:
        run = suite.measured(base)
        if run is None:
            rows.append([label, "n/a", "n/a", "n/a", "n/a", "n/a"])
            continue
        p50, p99 = run.median("p50_ns"), run.median("p99_ns")
        rows.append([label, fmt_time(run.median()), fmt_time(p50), fmt_time(p99), fmt_ratio(k50, p50),
                     fmt_ratio(k99, p99)])
    out.append(table(["Queues", "mean round trip", "p50", "p99", "Kest p50 ÷ this", "Kest p99 ÷ this"], rows))
    out.append("")
    return out


def parts_section(suite):
    s = suite
    out = ["## W5: the parts of a post\n"]
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
    out.append(table(["Step", "median"], [[label, fmt_time(s.median(base, **args))] for label, base, args in parts]))
    out.append("")
    out.append(table(["Comparison", "ratio"], [
        ["`Message` with identity ÷ plain `make_shared` of the same size",
         fmt_ratio(s.median("BM_Create_KestMessage"), s.median("BM_Create_PlainMakeShared"))],
        ["`findCovering` 13 entries ÷ 12 entries",
         fmt_ratio(s.median("BM_Lookup_FindCovering", entries=13), s.median("BM_Lookup_FindCovering", entries=12))],
    ]))
    out.append("")
    return out


def fmt_rate(value):
    return "n/a" if value is None else f"{value / 1e3:,.0f} k/s"


def bridge_section(bridge):
    out = ["## Bridge between two processes\n"]
    out.append(
        "From `kest_bench_bridge`: this process and a child it starts (`kest_bench_bridge_peer`, one "
        "per benchmark run) over TCP on 127.0.0.1, beside raw ZeroMQ sending frames of the same bytes "
        "(the message as the bridge puts it on the wire: a `PayloadMessage` of four fields with a "
        "three-part sender, its envelope and frame kind; *frame* below) in the same run. Throughput: "
        f"{BRIDGE_MESSAGES:,} messages posted into the dispatcher here, counted by a `MessageCallback` "
        "subscriber in the child on its bridge's I/O thread; the peer sends as many frames from a PUB "
        "to a SUB whose thread counts them. Both queue at most as many as the run sends (the bridge's "
        "`sendBuffer`, the PUB's high-water mark), so neither drops; the time runs until the child "
        "reports the last arrival. Round trip: a request posted here, answered by the child with a "
        "fresh message through its bridge; the peer is a DEALER here and a ROUTER in the child. Each "
        "round trip is timed on its own; p50, p90 and p99 are medians over the repetitions.\n")
    if bridge is None:
        out.append("`kest_bench_bridge` was not run.\n")
        return out
    messages = {"messages": BRIDGE_MESSAGES}
    kest = bridge.measured(BRIDGE_THROUGHPUT_KEST, **messages)
    zmq = bridge.measured(BRIDGE_THROUGHPUT_ZMQ, **messages)
    k_rate = kest.median("msgs_per_s") if kest else None
    z_rate = zmq.median("msgs_per_s") if zmq else None
    thread = bridge.measured("BM_Bridge_RoundTrip_Kest")
    polled = bridge.measured("BM_Bridge_RoundTrip_KestPoll")
    raw = bridge.measured(BRIDGE_ROUND_TRIP_ZMQ)
    p50 = {run: run.median("p50_ns") if run else None for run in (thread, polled, raw)}
    by_label = {t.label: t for t in compute_bridge_targets(bridge)}
    rows = [
        ["Throughput, messages per second", fmt_rate(k_rate), fmt_rate(z_rate), fmt_ratio(k_rate, z_rate),
         by_label[BRIDGE_THROUGHPUT].shown_limit(), f"**{by_label[BRIDGE_THROUGHPUT].verdict}**"],
        ["Round trip p50, I/O threads (`start()`)", fmt_time(p50[thread]), fmt_time(p50[raw]),
         fmt_ratio(p50[thread], p50[raw]), by_label[BRIDGE_P50_THREAD].shown_limit(),
         f"**{by_label[BRIDGE_P50_THREAD].verdict}**"],
        ["Round trip p50, hosts' own loops (`poll()`)", fmt_time(p50[polled]), fmt_time(p50[raw]),
         fmt_ratio(p50[polled], p50[raw]), by_label[BRIDGE_P50_POLL].shown_limit(),
         f"**{by_label[BRIDGE_P50_POLL].verdict}**"],
    ]
    out.append(table(["Workload", "Kest", "raw ZeroMQ", "Kest ÷ raw", "target", "verdict"], rows))
    out.append("")
    rows = []
    for label, base in BRIDGE_ROUND_TRIPS:
        run = bridge.measured(base)
        if run is None:
            rows.append([label] + ["n/a"] * 6)
            continue
        values = [run.median(f"p{p}_ns") for p in BRIDGE_PERCENTILES]
        rows.append([label, fmt_time(run.median())] + [fmt_time(v) for v in values]
                    + [fmt_ratio(values[0], p50[raw]), fmt_bytes(run.median("frame_bytes") or 0)])
    out.append(table(["Round trip", "mean", "p50", "p90", "p99", "p50 ÷ raw p50", "frame (B)"], rows))
    out.append("")
    encode = bridge.median("BM_Bridge_Floor_Encode")
    receive = bridge.median("BM_Bridge_Floor_Receive")
    out.append(
        "Floors, in one process without sockets: what each end does per message. The slower end "
        "bounds the throughput a bridge can reach with one core per end, whatever the network does.\n")
    out.append(table(["Per message", "median", "at most, per second"], [
        ["Encode (the sending stand-in)", fmt_time(encode), fmt_rate(1e9 / encode if encode else None)],
        ["Decode and deliver to a `MessageCallback` (the receiving bridge)", fmt_time(receive),
         fmt_rate(1e9 / receive if receive else None)],
    ]))
    out.append("\n![Bridge round trip over 127.0.0.1: latency percentiles](benchmarks_bridge.svg)\n")
    return out


WIRE_PAIRS = [("Small", "a `Message` with a three-part sender"),
              ("4KiB", "a `GenericMessage` with a 4 KiB tree")]


def wire_section(net):
    out = ["## Wire: encode and decode\n"]
    out.append(
        "From `kest_bench_net`: `Kest::Net::encodeTo` and `decode` beside their floor, msgpack-cxx "
        "packing the same tree from plain structs into its own buffer and unpacking the same bytes "
        "into an object handle (the floor's bytes are checked to equal ours first). Medians of the "
        "CPU time.\n")
    if net is None:
        out.append("`kest_bench_net` was not run.\n")
        return out
    rows = []
    for size, what in WIRE_PAIRS:
        for step in ("Encode", "Decode"):
            kest = net.median(f"BM_Wire_{step}_{size}")
            floor = net.median(f"BM_Wire_{step}Floor_{size}")
            run = net.measured(f"BM_Wire_{step}_{size}")
            size_bytes = run.median("bytes") if run else None
            rows.append([f"{step}, {what}", fmt_time(kest), fmt_time(floor), fmt_ratio(kest, floor),
                         fmt_bytes(size_bytes) if size_bytes is not None else "n/a"])
    out.append(table(["Step", "Kest", "msgpack-cxx floor", "Kest ÷ floor", "bytes"], rows))
    out.append("")
    others = [(label, net.median(base)) for label, base in [
        ("Making the small message as decode makes it", "BM_Wire_MessageFloor_Small"),
        ("Reading every value of the 4 KiB tree", "BM_Wire_TreeRead_4KiB"),
        ("Copying the 4 KiB tree", "BM_Wire_TreeCopy_4KiB")]]
    out.append(table(["Part of the floor", "median"], [[label, fmt_time(v)] for label, v in others]))
    out.append("")
    return out


def memory_section(memory):
    out = ["## Memory\n"]
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
    return out


def noise_section(suite):
    out = ["## Noise\n"]
    cvs, off_cpu = [], []
    for run in suite.runs.values():
        if run.error is not None:
            continue
        cv = run.cv()
        if cv is not None:
            cvs.append((cv, run.run_name))
        if not run.real_time_only:
            real, cpu = run.median("real_time"), run.median("cpu_time")
            if real and cpu:
                off_cpu.append(real / cpu)
    if cvs:
        cvs.sort()
        worst = cvs[-3:][::-1]
        out.append(
            f"Coefficient of variation over the repetitions: median "
            f"{statistics.median(c for c, _ in cvs) * 100:.1f} %, largest "
            + ", ".join(f"{c * 100:.1f} % (`{n}`)" for c, n in worst) + ". "
            f"{sum(1 for c, _ in cvs if c > 0.05)} of {len(cvs)} benchmarks vary by more than 5 %.")
    if off_cpu:
        out.append(
            f"Single-threaded benchmarks took a median of ×{statistics.median(off_cpu):.2f} their CPU time "
            f"on the wall clock (up to ×{max(off_cpu):.2f}): the rest went to other processes.")
    errors = [(run.run_name, run.error) for run in suite.runs.values() if run.error]
    if errors:
        out.append("\nFailed benchmarks (their numbers are missing above):\n")
        out += [f"- `{name}`: {error}" for name, error in errors]
    missing = [base for base in PEER_BENCHMARKS if suite.find(base) is None]
    if missing:
        out.append("\nNot in this run (peer package missing at build time, or filtered out): "
                   + ", ".join(f"`{m}`" for m in missing) + ".")
    out.append("")
    return out


def medians_section(suite):
    out = ["## All medians\n"]
    rows = []
    for run in sorted(suite.runs.values(), key=lambda r: r.run_name):
        cv = run.cv()
        rows.append([f"`{run.run_name}`", fmt_time(run.median()), fmt_time(run.median("real_time")),
                     f"{cv * 100:.1f} %" if cv is not None else "n/a", run.error or ""])
    out.append(table(["Benchmark", "median (table time)", "median wall clock", "CV", "error"], rows))
    out.append("")
    return out


def render(suite, memory, options, includes=(), net=None, bridge=None):
    """The whole markdown report as one string. `net` and `bridge`: the Suites of kest_bench_net
    and kest_bench_bridge, or None when they were not run."""
    out = ["# Benchmarks\n"]
    out.append(
        "Generated by `scripts/bench.sh` (through `scripts/bench_report.py`) from one run of "
        "`kest_bench` (Google Benchmark) and `kest_bench_memory`, with `kest_bench_net` (the wire "
        "format) and `kest_bench_bridge` (the bridge between two processes). Every ratio compares two "
        "benchmarks of that same run. Do not edit by hand: run the script again; the notes at the "
        "end are kept by hand in their own file and copied in.\n")
    out += machine_section(suite, options)
    out.append(
        "Each cell is the median over the repetitions. Single-threaded workloads (W1, W3, W5) "
        "are timed by the CPU time of their thread, which leaves out time the machine gave to "
        "other processes; the two-thread workloads (W2, W4) by the wall clock. A ratio is the "
        "Kest time divided by the peer's time: above 1 Kest is slower. The pre-made workloads post "
        "messages made ahead of the timed region: the dispatcher refuses a message it has already "
        "handled, so each of its posts takes a fresh one, made in batches of 4,096 with the timer "
        "paused; the peers, which keep no history, cycle through one such batch. The fresh "
        "workloads (W1 and W2, *fresh message per post*) make each message inside the timed "
        "region and drop it there, as producers and consumers do. W5 times the making of a "
        "message on its own.\n")
    out += targets_section(compute_targets(suite) + compute_bridge_targets(bridge))
    out += fanout_section(suite)
    out += pipe_section(suite)
    out += routing_section(suite)
    out += pingpong_section(suite)
    out += parts_section(suite)
    out += wire_section(net)
    out += bridge_section(bridge)
    out += memory_section(memory)
    out += noise_section(suite)
    out += medians_section(suite)
    text = "\n".join(out)
    for include in includes:
        text += include if text.endswith("\n") else "\n" + include
    return text


# ---- Plots -------------------------------------------------------------------------------------


def gnuplot_script(svg, data, title, xlabel, labels, series, ylabel="ns per post (median)", logscale="xy"):
    """The gnuplot commands for one plot, or None if no series has a value. Column i + 2 of `data`
    holds series i; a series without any value is left out."""
    def quoted(text):  # a gnuplot string in single quotes, which doubles a quote inside
        return "'" + text.replace("'", "''") + "'"

    curves = ", ".join(
        f"'{data}' using 1:{i + 2} with linespoints linewidth 2 pointtype {i + 5} title {quoted(label)}"
        for i, label in enumerate(labels) if any(v is not None for v in series[i]))
    if not curves:
        return None
    return "\n".join([
        "set terminal svg size 720,440 dynamic font 'sans,12' background rgb 'white'",
        f"set output '{svg}'",
        f"set title {quoted(title)}",
        f"set xlabel {quoted(xlabel)}",
        f"set ylabel {quoted(ylabel)}",
        f"set logscale {logscale}",
        "set grid",
        "set rmargin 6",
        "set offsets graph 0.03, graph 0.03, 0, 0",
        "set key below",
        "set datafile missing 'NaN'",
        f"plot {curves}",
    ])


def write_series(path, xs, series):
    with open(path, "w") as f:
        for x, values in zip(xs, zip(*series)):
            f.write(f"{x} " + " ".join("NaN" if v is None else f"{v:.3f}" for v in values) + "\n")


def plot(name, title, xlabel, xs, labels, series, data_dir, out_dir, **axes):
    data = os.path.join(data_dir, name + ".dat")
    write_series(data, xs, series)
    script = gnuplot_script(os.path.join(out_dir, name + ".svg"), data, title, xlabel, labels, series, **axes)
    if script is None:
        print(f"bench_report: no data for {name}.svg, not plotted", file=sys.stderr)
        return
    subprocess.run(["gnuplot"], input=script, text=True, check=True)


def bridge_plot_series(bridge):
    """Per round-trip benchmark, its median p50, p90 and p99 in µs (None where not measured)."""
    series = []
    for _, base in BRIDGE_ROUND_TRIPS:
        run = bridge.measured(base) if bridge is not None else None
        values = [run.median(f"p{p}_ns") if run else None for p in BRIDGE_PERCENTILES]
        series.append([v / 1e3 if v is not None else None for v in values])
    return series


def plots(suite, data_dir, out_dir, bridge=None):
    if not shutil.which("gnuplot"):
        print("bench_report: gnuplot not found, no plots written", file=sys.stderr)
        return
    s = suite
    for name, title, prefix in [("benchmarks_fanout", "W1: one post to N callback subscribers", "BM_FanOut_"),
                                ("benchmarks_fanout_fresh", "W1: a fresh message per post to N subscribers",
                                 "BM_FanOutFresh_")]:
        plot(name, title, "subscribers N", FANOUT_SUBSCRIBERS,
             ["Kest MessageDispatcher", "std::function loop", "Boost.Signals2", "delivery floor"],
             [[s.median(prefix + b, subscribers=n) for n in FANOUT_SUBSCRIBERS]
              for b in ("Kest", "FunctionVector", "Signals2", "Floor")], data_dir, out_dir)
    plot("benchmarks_routing", "W3: one post, K keys in the table, one matching", "keys K", ROUTING_KEYS,
         ["Kest subscriptions", "Kest services", "ZeroMQ SUB prefix subscriptions"],
         [[s.median(b, keys=k) for k in ROUTING_KEYS]
          for b in ("BM_Routing_KestSubscriptions", "BM_Routing_KestServices", "BM_Routing_Zmq")],
         data_dir, out_dir)
    if bridge is not None:
        plot("benchmarks_bridge", "Bridge round trip between two processes over 127.0.0.1", "percentile",
             BRIDGE_PERCENTILES, ["Kest, I/O threads", "Kest, poll() in the hosts' loops", "raw ZeroMQ"],
             bridge_plot_series(bridge), data_dir, out_dir, ylabel="µs per round trip (median)", logscale="y")


# ---- Entry point -------------------------------------------------------------------------------


def parse_args(argv):
    parser = argparse.ArgumentParser(description="Writes benchmarks.md from kest_bench's JSON.")
    parser.add_argument("--bench-json", required=True, help="kest_bench --benchmark_out file")
    parser.add_argument("--memory-json", help="kest_bench_memory output (optional)")
    parser.add_argument("--net-json", help="kest_bench_net --benchmark_out file (optional)")
    parser.add_argument("--bridge-json", help="kest_bench_bridge --benchmark_out file (optional)")
    parser.add_argument("--out-dir", required=True, help="where benchmarks.md and the plots go")
    parser.add_argument("--data-dir", help="where the plots' data files go (default: --out-dir)")
    parser.add_argument("--include", action="append", default=[],
                        help="a hand-kept markdown file copied verbatim at the end (repeatable)")
    parser.add_argument("--commit", default="unknown", help="the library's commit, as it should be shown")
    parser.add_argument("--min-time", help="seconds per repetition the run asked for")
    parser.add_argument("--load-before", help="load average before the run")
    parser.add_argument("--load-after", help="load average after the run")
    parser.add_argument("--elapsed", help="seconds the run took")
    parser.add_argument("--no-plots", action="store_true", help="write no SVG")
    return parser.parse_args(argv)


def main(argv=None):
    options = parse_args(sys.argv[1:] if argv is None else argv)
    try:
        suite = Suite.load(options.bench_json)
    except (OSError, ValueError) as error:
        print(f"bench_report: cannot read {options.bench_json}: {error}", file=sys.stderr)
        return 1
    extra = {}
    for key, path in (("net", options.net_json), ("bridge", options.bridge_json)):
        extra[key] = None
        if not path:
            continue
        try:
            extra[key] = Suite.load(path)
        except (OSError, ValueError) as error:
            # One executable that failed leaves its sections "not run", not the whole report.
            print(f"bench_report: cannot read {path}: {error}; its sections say it was not run",
                  file=sys.stderr)
    memory = []
    if options.memory_json and os.path.exists(options.memory_json):
        with open(options.memory_json) as f:
            memory = json.load(f).get("results", [])
    includes = []
    for path in options.include:
        with open(path) as f:
            includes.append(f.read())
    os.makedirs(options.out_dir, exist_ok=True)
    with open(os.path.join(options.out_dir, "benchmarks.md"), "w") as f:
        f.write(render(suite, memory, options, includes, **extra))
    if not options.no_plots:
        data_dir = options.data_dir or options.out_dir
        os.makedirs(data_dir, exist_ok=True)
        plots(suite, data_dir, options.out_dir, extra["bridge"])
    for target in compute_targets(suite) + compute_bridge_targets(extra["bridge"]):
        print(f"{target.verdict:>12}: {target.label}: {target.shown_value()} (limit {target.shown_limit()})")
    return 0


if __name__ == "__main__":
    sys.exit(main())

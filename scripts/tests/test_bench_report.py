#!/usr/bin/env python3
"""Tests of scripts/bench_report.py on small hand-made Google Benchmark JSON files.

Run: python3 scripts/tests/test_bench_report.py (ctest runs it, label bench-report).
"""

import copy
import json
import os
import statistics
import subprocess
import sys
import tempfile
import unittest
from types import SimpleNamespace

SCRIPTS = os.path.join(os.path.dirname(os.path.abspath(__file__)), os.pardir)
SCRIPT = os.path.join(SCRIPTS, "bench_report.py")
sys.path.insert(0, SCRIPTS)
sys.dont_write_bytecode = True  # leave no __pycache__ in the source tree
import bench_report as report  # noqa: E402  (found through the path set just above)


# ---- Hand-made runs ------------------------------------------------------------------------


def entries(name, times, unit="ns", wall=1.0, error=None, counters=None, iterations=True, aggregates=True):
    """The JSON entries Google Benchmark writes for one benchmark instance: one per repetition
    (times[i] is its CPU time, `wall` times that its wall clock), then median, mean, stddev and cv
    when there is more than one repetition."""
    counters = counters or {}
    reps = len(times)
    base = {"name": name, "run_name": name, "repetitions": reps, "threads": 1, "time_unit": unit}
    out = []
    if iterations:
        for i, t in enumerate(times):
            entry = dict(base, run_type="iteration", repetition_index=i, iterations=1000,
                         real_time=t * wall, cpu_time=t)
            entry.update({k: v[i] for k, v in counters.items()})
            if error:
                entry.update(error_occurred=True, error_message=error)
            out.append(entry)
    if aggregates and reps > 1 and not error:
        def agg(kind, fn, unit_name="time"):
            entry = dict(base, name=f"{name}_{kind}", run_type="aggregate", aggregate_name=kind,
                         aggregate_unit=unit_name, iterations=reps,
                         real_time=fn([t * wall for t in times]), cpu_time=fn(times))
            entry.update({k: fn(v) for k, v in counters.items()})
            return entry
        out.append(agg("mean", statistics.mean))
        out.append(agg("median", statistics.median))
        out.append(agg("stddev", statistics.stdev))
        out.append(agg("cv", lambda v: statistics.stdev(v) / statistics.mean(v), "percentage"))
    return out


PIPE = "/iterations:1/real_time"
PING = "/iterations:20000/real_time"

# Every benchmark of the suite, times per repetition (ns unless the unit says otherwise), chosen so
# that every target is met.
BASE = {
    "BM_Create_KestMessage": [30, 30, 30],
    "BM_Create_KestMessageWithSender": [40, 41, 39],
    "BM_Create_PlainMakeShared": [25, 25, 25],
    "BM_Create_Identity": [8, 8, 8],
    "BM_History_HandleMessageAtCapacity": [12, 11, 13],
    "BM_Lookup_FindCovering/entries:12": [120, 120, 120],
    "BM_Lookup_FindCovering/entries:13": [150, 150, 150],
    "BM_Refused_FullFixedDepthQueue": [250, 250, 250],
    "BM_FanOut_Kest/subscribers:1": [60, 60, 60],
    "BM_FanOut_Kest/subscribers:10": [150, 150, 150],
    "BM_FanOut_Kest/subscribers:100": [1050, 1050, 1050],
    "BM_FanOut_FunctionVector/subscribers:1": [2, 2, 2],
    "BM_FanOut_FunctionVector/subscribers:10": [15, 15, 15],
    "BM_FanOut_FunctionVector/subscribers:100": [130, 130, 130],
    "BM_FanOut_Signals2/subscribers:1": [70, 70, 70],
    "BM_FanOut_Signals2/subscribers:10": [200, 200, 200],
    "BM_FanOut_Signals2/subscribers:100": [1500, 1500, 1500],
    "BM_FanOut_Floor/subscribers:1": [10, 10, 10],
    "BM_FanOut_Floor/subscribers:10": [90, 90, 90],
    "BM_FanOut_Floor/subscribers:100": [901, 901, 901],
    "BM_FanOutFresh_Kest/subscribers:1": [90, 90, 90],
    "BM_FanOutFresh_Kest/subscribers:10": [190, 190, 190],
    "BM_FanOutFresh_Kest/subscribers:100": [1080, 1080, 1080],
    "BM_FanOutFresh_FunctionVector/subscribers:1": [30, 30, 30],
    "BM_FanOutFresh_FunctionVector/subscribers:10": [45, 45, 45],
    "BM_FanOutFresh_FunctionVector/subscribers:100": [160, 160, 160],
    "BM_FanOutFresh_Signals2/subscribers:1": [100, 100, 100],
    "BM_FanOutFresh_Signals2/subscribers:10": [250, 250, 250],
    "BM_FanOutFresh_Signals2/subscribers:100": [1600, 1600, 1600],
    "BM_FanOutFresh_Floor/subscribers:1": [30, 30, 30],
    "BM_FanOutFresh_Floor/subscribers:10": [110, 110, 110],
    "BM_FanOutFresh_Floor/subscribers:100": [921, 921, 921],
    "BM_Pipe_KestDispatcher" + PIPE: ([300, 310, 290], "ms"),
    "BM_Pipe_KestQueue" + PIPE: ([140, 140, 140], "ms"),
    "BM_Pipe_MutexList" + PIPE: ([250, 250, 250], "ms"),
    "BM_Pipe_Moodycamel" + PIPE: ([180, 180, 180], "ms"),
    "BM_Pipe_Zmq" + PIPE: ([200, 200, 200], "ms"),
    "BM_PipeFresh_KestDispatcher" + PIPE: ([900, 950, 1000], "ms"),
    "BM_PipeFresh_KestQueue" + PIPE: ([700, 700, 700], "ms"),
    "BM_PipeFresh_MutexList" + PIPE: ([1000, 1000, 1000], "ms"),
    "BM_PipeFresh_Moodycamel" + PIPE: ([600, 600, 600], "ms"),
    "BM_PipeFresh_Zmq" + PIPE: ([1000, 1100, 950], "ms"),
    "BM_PingPong_Kest" + PING: ([76, 77, 78], "us", {"p50_ns": [76000, 76100, 76200],
                                                     "p99_ns": [146000, 146400, 146800]}),
    "BM_PingPong_MutexList" + PING: ([65, 66, 67], "us", {"p50_ns": [73000, 73700, 74000],
                                                          "p99_ns": [140000, 142700, 145000]}),
}
for _table in ("Subscriptions", "Services"):
    for _k, _t in {1: 100, 12: 190, 13: 200, 1000: 210}.items():
        BASE[f"BM_Routing_Kest{_table}/keys:{_k}"] = [_t, _t, _t]
    BASE[f"BM_Routing_KestSubscriptions/keys:100000"] = [220, 220, 220]
    BASE[f"BM_Routing_KestServices/keys:100000"] = [250, 250, 250]
for _k in (1, 12, 13, 1000, 100000):
    BASE[f"BM_Routing_Zmq/keys:{_k}"] = [140, 140, 140]


def suite_json(overrides=None, drop=(), errors=None, wall=1.0, iterations=True, aggregates=True):
    """The JSON of a run of BASE with some benchmarks replaced, dropped or failed."""
    runs = copy.deepcopy(BASE)
    runs.update(overrides or {})
    errors = errors or {}
    benchmarks = []
    for name, given in runs.items():
        if any(name.startswith(prefix) for prefix in drop):
            continue
        if isinstance(given, tuple):
            times, unit, *rest = given
            counters = rest[0] if rest else None
        else:
            times, unit, counters = given, "ns", None
        benchmarks += entries(name, times, unit, wall=1.0 if name.endswith("real_time") else wall,
                              error=errors.get(name), counters=counters, iterations=iterations,
                              aggregates=aggregates)
    return {"context": {"date": "2026-01-01T00:00:00+00:00", "num_cpus": 2, "mhz_per_cpu": 2600,
                        "library_build_type": "release"},
            "benchmarks": benchmarks}


OPTIONS = SimpleNamespace(commit="abc1234", min_time="0.25", load_before="0.1", load_after="0.2", elapsed="200")
MEMORY = [{"name": "kest.message", "item": "message, identity only", "allocations": 1.0,
           "requested_bytes": 400.0, "retained_bytes": 408.0, "heap_bytes": 416.0}]


def render(data, memory=(), includes=()):
    return report.render(report.Suite(data), list(memory), OPTIONS, includes)


def targets(data):
    return {t.label: t for t in report.compute_targets(report.Suite(data))}


def target_row(markdown, label):
    """The cells of the targets table's row whose first cell is `label`."""
    for line in markdown.splitlines():
        cells = [c.strip() for c in line.strip().strip("|").split("|")]
        if cells and cells[0] == label:
            return cells
    raise AssertionError(f"no row {label!r}")


def section(markdown, heading):
    """The text of a `## heading` section, up to the next one."""
    start = markdown.index(f"## {heading}\n")
    end = markdown.find("\n## ", start + 1)
    return markdown[start:end if end >= 0 else len(markdown)]


CREATION = "Making a message with identity ÷ plain `make_shared` of the same size"
W1_N1 = "W1, N = 1: Kest ÷ Boost.Signals2, pre-made messages"
W1_N1_FRESH = "W1, N = 1: Kest ÷ Boost.Signals2, fresh message per post"
W1_N100 = "W1, N = 100: per-subscriber cost ÷ delivery floor, pre-made messages"
W1_N100_FRESH = "W1, N = 100: per-subscriber cost ÷ delivery floor, fresh message per post"
W2_LIST = "W2 fresh: dispatcher → `MessageQueue` ÷ mutex + list"
W2_ZMQ = "W2 fresh: dispatcher → `MessageQueue` ÷ ZeroMQ"
HISTORY = "History at capacity, per identity"
W3_SUBS = "W3 subscriptions: K = 100,000 ÷ K = 13"
W3_SERVICES = "W3 services: K = 100,000 ÷ K = 13"
ALL_TARGETS = [CREATION, W1_N1, W1_N1_FRESH, W1_N100, W1_N100_FRESH, W2_LIST, W2_ZMQ, HISTORY, W3_SUBS,
               W3_SERVICES]


# ---- Targets ---------------------------------------------------------------------------------


class Targets(unittest.TestCase):
    def test_every_target_of_the_base_run_is_met(self):
        found = targets(suite_json())
        self.assertEqual(sorted(found), sorted(ALL_TARGETS))
        for label, target in found.items():
            self.assertEqual(target.verdict, "met", label)
        self.assertIn("10 met, 0 missed, 0 not measured.", render(suite_json()))

    def test_values_are_computed_from_the_run(self):
        found = targets(suite_json())
        self.assertAlmostEqual(found[CREATION].value, 30 / 25)
        self.assertAlmostEqual(found[W1_N1].value, 60 / 70)
        self.assertAlmostEqual(found[W1_N1_FRESH].value, 90 / 100)
        # Per subscriber: (t(100) - t(1)) / 99 for each, so (990 / 99) / (891 / 99).
        self.assertAlmostEqual(found[W1_N100].value, 990 / 891)
        self.assertAlmostEqual(found[W1_N100_FRESH].value, 990 / 891)
        self.assertAlmostEqual(found[HISTORY].value, 12)
        self.assertAlmostEqual(found[W3_SUBS].value, 220 / 200)
        self.assertAlmostEqual(found[W3_SERVICES].value, 250 / 200)

    def test_w2_gives_the_median_and_spread_of_the_per_repetition_ratios(self):
        found = targets(suite_json())
        self.assertAlmostEqual(found[W2_LIST].value, 0.95)
        self.assertEqual(found[W2_LIST].spread, (0.9, 1.0, 3))
        ratios = [900 / 1000, 950 / 1100, 1000 / 950]
        self.assertAlmostEqual(found[W2_ZMQ].value, statistics.median(ratios))
        low, high, count = found[W2_ZMQ].spread
        self.assertAlmostEqual(low, min(ratios))
        self.assertAlmostEqual(high, max(ratios))
        self.assertEqual(count, 3)
        row = target_row(render(suite_json()), W2_ZMQ)
        self.assertEqual(row[1], "×0.90 (min–max ×0.86 – ×1.05, 3 repetitions)")
        self.assertEqual(row[3], "**met**")

    def test_w2_pairs_repetitions_by_their_index(self):
        # Paired by index: 1/2, 3/1, 2/3, median 2/3; the ratio of the medians would be 1.
        data = suite_json({"BM_PipeFresh_KestDispatcher" + PIPE: ([1, 3, 2], "ms"),
                           "BM_PipeFresh_MutexList" + PIPE: ([2, 1, 3], "ms")})
        target = targets(data)[W2_LIST]
        self.assertAlmostEqual(target.value, 2 / 3)
        self.assertAlmostEqual(target.spread[0], 0.5)
        self.assertAlmostEqual(target.spread[1], 3.0)

    def test_a_value_over_its_limit_is_missed(self):
        data = suite_json({"BM_Create_KestMessage": [60, 60, 60],
                           "BM_FanOut_Kest/subscribers:100": [1600, 1600, 1600],
                           "BM_PipeFresh_KestDispatcher" + PIPE: ([1200, 1300, 1250], "ms"),
                           "BM_History_HandleMessageAtCapacity": [41.8, 41.8, 41.8],
                           "BM_Routing_KestServices/keys:100000": [300, 300, 300]})
        found = targets(data)
        for label in (CREATION, W1_N100, W2_LIST, W2_ZMQ, HISTORY, W3_SERVICES):
            self.assertEqual(found[label].verdict, "missed", label)
        for label in (W1_N1, W1_N1_FRESH, W1_N100_FRESH, W3_SUBS):
            self.assertEqual(found[label].verdict, "met", label)
        markdown = render(data)
        self.assertEqual(target_row(markdown, CREATION)[1:4], ["×2.40", "≤ ×1.5", "**missed**"])
        self.assertEqual(target_row(markdown, HISTORY)[1:4], ["41.8 ns", "≤ 15 ns", "**missed**"])
        self.assertEqual(target_row(markdown, W1_N100)[1:4], ["×1.73", "≤ ×1.2", "**missed**"])
        self.assertIn("4 met, 6 missed, 0 not measured.", markdown)

    def test_a_value_at_its_limit_is_met(self):
        data = suite_json({"BM_Create_KestMessage": [37.5, 37.5, 37.5],
                           "BM_History_HandleMessageAtCapacity": [15, 15, 15]})
        found = targets(data)
        self.assertEqual(found[CREATION].verdict, "met")
        self.assertEqual(found[HISTORY].verdict, "met")

    def test_rounding_never_shows_a_miss_as_the_limit(self):
        data = suite_json({"BM_FanOut_Kest/subscribers:1": [70.28, 70.28, 70.28],
                           "BM_History_HandleMessageAtCapacity": [15.04, 15.04, 15.04]})
        markdown = render(data)
        self.assertEqual(target_row(markdown, W1_N1)[1:4], ["×1.004", "≤ ×1.0", "**missed**"])
        self.assertEqual(target_row(markdown, HISTORY)[1:4], ["15.04 ns", "≤ 15 ns", "**missed**"])

    def test_a_missing_benchmark_leaves_its_target_not_measured(self):
        data = suite_json(drop=["BM_FanOut_Signals2", "BM_Create_PlainMakeShared"])
        found = targets(data)
        self.assertEqual(found[W1_N1].verdict, "not measured")
        self.assertEqual(found[CREATION].verdict, "not measured")
        self.assertEqual(found[W1_N1_FRESH].verdict, "met")
        markdown = render(data)
        row = target_row(markdown, CREATION)
        self.assertEqual(row[1], "n/a: no `BM_Create_PlainMakeShared`")
        self.assertEqual(row[3], "**not measured**")
        self.assertIn("8 met, 0 missed, 2 not measured.", markdown)
        self.assertIn("| 1 | 60.0 ns | 2.0 ns | ×30.00 | n/a | n/a | 10.0 ns | ×6.00 |", markdown)
        self.assertIn("Not in this run (peer package missing at build time, or filtered out): "
                      "`BM_FanOut_Signals2`.", markdown)

    def test_a_failed_benchmark_leaves_its_target_not_measured(self):
        data = suite_json(errors={"BM_PipeFresh_Zmq" + PIPE: "delivered 999999 of 1000000 messages"})
        found = targets(data)
        self.assertEqual(found[W2_ZMQ].verdict, "not measured")
        self.assertEqual(found[W2_LIST].verdict, "met")
        markdown = render(data)
        self.assertEqual(target_row(markdown, W2_ZMQ)[1], "n/a: `BM_PipeFresh_Zmq` failed")
        self.assertIn("- `BM_PipeFresh_Zmq/iterations:1/real_time`: delivered 999999 of 1000000 messages",
                      markdown)

    def test_a_floor_that_does_not_grow_is_not_a_measurement(self):
        data = suite_json({"BM_FanOut_Floor/subscribers:100": [10, 10, 10]})
        target = targets(data)[W1_N100]
        self.assertEqual(target.verdict, "not measured")
        self.assertIn("does not grow", target.note)

    def test_an_empty_run_measures_nothing_and_still_reports(self):
        markdown = render({"context": {}, "benchmarks": []})
        for label in ALL_TARGETS:
            self.assertEqual(target_row(markdown, label)[3], "**not measured**", label)
        self.assertIn("0 met, 0 missed, 10 not measured.", markdown)
        self.assertIn("`kest_bench_memory` produced no results.", markdown)


# ---- Reading the JSON -------------------------------------------------------------------------


class Reading(unittest.TestCase):
    def test_single_threaded_runs_are_timed_by_cpu_time_and_pipes_by_the_wall_clock(self):
        suite = report.Suite(suite_json(wall=3.0))
        self.assertAlmostEqual(suite.median("BM_Create_KestMessage"), 30)
        self.assertAlmostEqual(suite.median("BM_Pipe_KestQueue"), 140e6)

    def test_aggregates_alone_give_medians_and_w2_falls_back_to_their_ratio(self):
        data = suite_json(iterations=False)
        suite = report.Suite(data)
        self.assertAlmostEqual(suite.median("BM_FanOut_Kest", subscribers=100), 1050)
        target = targets(data)[W2_LIST]
        self.assertAlmostEqual(target.value, 950 / 1000)
        self.assertIsNone(target.spread)
        self.assertIn("no per-repetition times", target.source)

    def test_one_repetition_without_aggregates_is_its_own_median(self):
        data = suite_json({"BM_Create_KestMessage": [33], "BM_Create_PlainMakeShared": [22]})
        self.assertAlmostEqual(targets(data)[CREATION].value, 1.5)

    def test_arguments_select_the_instance(self):
        suite = report.Suite(suite_json())
        self.assertAlmostEqual(suite.median("BM_Routing_KestServices", keys=13), 200)
        self.assertAlmostEqual(suite.median("BM_Routing_KestServices", keys=100000), 250)
        self.assertIsNone(suite.median("BM_Routing_KestServices", keys=7))


# ---- Tables ---------------------------------------------------------------------------------------


class Tables(unittest.TestCase):
    def setUp(self):
        self.markdown = render(suite_json(), MEMORY)

    def test_w1_tables_give_times_ratios_and_the_per_subscriber_cost(self):
        w1 = section(self.markdown, "W1: synchronous fan-out")
        self.assertIn("| 1 | 60.0 ns | 2.0 ns | ×30.00 | 70.0 ns | ×0.86 | 10.0 ns | ×6.00 |", w1)
        self.assertIn("| 100 | 1.05 µs | 130 ns | ×8.08 | 1.50 µs | ×0.70 | 901 ns | ×1.17 |", w1)
        self.assertIn("| 1 | 90.0 ns | 30.0 ns | ×3.00 | 100 ns | ×0.90 | 30.0 ns | ×3.00 |", w1)
        self.assertIn("| pre-made messages | 10.0 ns | 9.0 ns | ×1.11 |", w1)
        self.assertIn("| fresh message per post | 10.0 ns | 9.0 ns | ×1.11 |", w1)
        self.assertIn("(benchmarks_fanout.svg)", w1)

    def test_w2_tables_give_both_pipes(self):
        w2 = section(self.markdown, "W2: pipe")
        self.assertIn("| Kest: dispatcher → MessageQueue | 300.0 ms | 300 ns | 3.33 M/s | ×1.00 | ×0.47 |", w2)
        self.assertIn("| Kest: MessageQueue alone | 140.0 ms | 140 ns | 7.14 M/s | ×2.14 | ×1.00 |", w2)
        self.assertIn("| mutex + std::list + condition variable (floor) | 250.0 ms | 250 ns | 4.00 M/s "
                      "| ×1.20 | ×0.56 |", w2)
        # Fresh: the dispatcher against itself pairs each repetition with itself; dispatcher ÷ queue
        # is 900/700, 950/700, 1000/700 repetition by repetition.
        self.assertIn("| Kest: dispatcher → MessageQueue | 950.0 ms | 950 ns | 1.05 M/s | ×1.00 (×1.00 – ×1.00) "
                      "| ×0.74 (×0.70 – ×0.78) |", w2)
        self.assertIn("| Kest: MessageQueue alone | 700.0 ms | 700 ns | 1.43 M/s | ×1.36 (×1.29 – ×1.43) "
                      "| ×1.00 (×1.00 – ×1.00) |", w2)
        self.assertIn("| ZeroMQ inproc PUB/SUB | 1000.0 ms | 1.00 µs | 1.00 M/s | ×0.90 (×0.86 – ×1.05) "
                      "| ×0.70 (×0.64 – ×0.74) |", w2)

    def test_w3_w4_w5_and_memory_tables(self):
        self.assertIn("| 100,000 | 220 ns | 250 ns | 140 ns | ×1.57 | ×1.79 |", self.markdown)
        self.assertIn("| Kest subscriptions | ×1.05 | ×1.10 |", self.markdown)
        self.assertIn("| Kest services | ×1.05 | ×1.25 |", self.markdown)
        self.assertIn("| Kest: two dispatchers + MessageQueue | 77.0 µs | 76.1 µs | 146.4 µs | ×1.00 | ×1.00 |",
                      self.markdown)
        self.assertIn("| mutex + std::list + condition variable | 66.0 µs | 73.7 µs | 142.7 µs | ×1.03 | ×1.03 |",
                      self.markdown)
        self.assertIn("| `MessagesHandled::handleMessage`, history at capacity | 12.0 ns |", self.markdown)
        self.assertIn("| `Message` with identity ÷ plain `make_shared` of the same size | ×1.20 |", self.markdown)
        self.assertIn("| message, identity only | 1.00 | 400 | 408 | 416 |", self.markdown)

    def test_every_benchmark_is_listed_with_its_median(self):
        medians = section(self.markdown, "All medians")
        for name in BASE:
            self.assertIn(f"| `{name}` |", medians)

    def test_hand_kept_notes_are_copied_verbatim_at_the_end(self):
        notes = "\n## The posting path before and after\n\nWhat changed: *by hand*.\n"
        markdown = render(suite_json(), includes=[notes])
        self.assertTrue(markdown.endswith(notes))
        self.assertEqual(markdown.count("What changed: *by hand*."), 1)


# ---- Wire and bridge --------------------------------------------------------------------------

THROUGHPUT = "/messages:200000/iterations:1/manual_time"
ROUND_TRIP = "/iterations:10000/real_time"

# kest_bench_bridge: times per repetition and counters, chosen so that every bridge target is met.
BRIDGE = {
    "BM_Bridge_Floor_Encode": [700, 710, 690],
    "BM_Bridge_Floor_Receive": [2500, 2600, 2400],
    "BM_Bridge_Throughput_Kest" + THROUGHPUT: ([200, 210, 190], "ms",
                                               {"msgs_per_s": [1.0e6, 0.95e6, 1.05e6],
                                                "frame_bytes": [151, 151, 151]}),
    "BM_Bridge_Throughput_ZmqPubSub" + THROUGHPUT: ([160, 170, 150], "ms",
                                                    {"msgs_per_s": [1.2e6, 1.25e6, 1.15e6],
                                                     "frame_bytes": [151, 151, 151]}),
    "BM_Bridge_RoundTrip_Kest" + ROUND_TRIP: ([120, 125, 130], "us",
                                              {"p50_ns": [110e3, 112e3, 114e3], "p90_ns": [150e3] * 3,
                                               "p99_ns": [300e3] * 3, "frame_bytes": [147] * 3}),
    "BM_Bridge_RoundTrip_KestPoll" + ROUND_TRIP: ([100, 100, 100], "us",
                                                  {"p50_ns": [95e3, 96e3, 97e3], "p90_ns": [130e3] * 3,
                                                   "p99_ns": [250e3] * 3, "frame_bytes": [147] * 3}),
    "BM_Bridge_RoundTrip_ZmqDealerRouter" + ROUND_TRIP: ([95, 95, 95], "us",
                                                         {"p50_ns": [90e3, 91e3, 92e3], "p90_ns": [120e3] * 3,
                                                          "p99_ns": [240e3] * 3, "frame_bytes": [147] * 3}),
}

# kest_bench_net.
NET = {
    "BM_Wire_Encode_Small": ([150, 150, 150], "ns", {"bytes": [85] * 3}),
    "BM_Wire_EncodeFloor_Small": ([60, 60, 60], "ns", {"bytes": [85] * 3}),
    "BM_Wire_Decode_Small": ([400, 400, 400], "ns", {"bytes": [85] * 3}),
    "BM_Wire_DecodeFloor_Small": ([100, 100, 100], "ns", {"bytes": [85] * 3}),
    "BM_Wire_MessageFloor_Small": [160, 160, 160],
    "BM_Wire_Encode_4KiB": ([4400, 4400, 4400], "ns", {"bytes": [4033] * 3}),
    "BM_Wire_EncodeFloor_4KiB": ([1100, 1100, 1100], "ns", {"bytes": [4033] * 3}),
    "BM_Wire_Decode_4KiB": ([18000, 18000, 18000], "ns", {"bytes": [4033] * 3}),
    "BM_Wire_DecodeFloor_4KiB": ([3000, 3000, 3000], "ns", {"bytes": [4033] * 3}),
    "BM_Wire_TreeRead_4KiB": [3100, 3100, 3100],
    "BM_Wire_TreeCopy_4KiB": [8000, 8000, 8000],
}


def json_of(runs, overrides=None, drop=(), errors=None):
    """A JSON file's content holding `runs` (as BASE holds the main suite's)."""
    runs = dict(copy.deepcopy(runs), **(overrides or {}))
    errors = errors or {}
    benchmarks = []
    for name, given in runs.items():
        if any(name.startswith(prefix) for prefix in drop):
            continue
        times, unit, counters = given if isinstance(given, tuple) else (given, "ns", None)
        benchmarks += entries(name, times, unit, error=errors.get(name), counters=counters)
    return {"context": {"date": "2026-01-01T00:00:00+00:00", "num_cpus": 2}, "benchmarks": benchmarks}


def bridge_targets(data):
    return {t.label: t for t in report.compute_bridge_targets(report.Suite(data))}


def render_all(bridge=None, net=None):
    return report.render(report.Suite(suite_json()), [], OPTIONS, (),
                         net=report.Suite(net) if net is not None else None,
                         bridge=report.Suite(bridge) if bridge is not None else None)


class Bridge(unittest.TestCase):
    def test_every_bridge_target_of_the_base_run_is_met(self):
        found = bridge_targets(json_of(BRIDGE))
        self.assertEqual(sorted(found), sorted([report.BRIDGE_THROUGHPUT, report.BRIDGE_P50_THREAD,
                                                report.BRIDGE_P50_POLL]))
        for label, target in found.items():
            self.assertEqual(target.verdict, report.MET, label)

    def test_throughput_is_kest_over_raw_of_the_median_rates_and_must_reach_its_limit(self):
        target = bridge_targets(json_of(BRIDGE))[report.BRIDGE_THROUGHPUT]
        self.assertAlmostEqual(target.value, 1.0e6 / 1.2e6)
        self.assertTrue(target.at_least)
        self.assertEqual(target.shown_limit(), "≥ ×0.8")
        slow = {"BM_Bridge_Throughput_Kest" + THROUGHPUT: ([900, 900, 900], "ms",
                                                           {"msgs_per_s": [0.2e6, 0.22e6, 0.21e6]})}
        target = bridge_targets(json_of(BRIDGE, slow))[report.BRIDGE_THROUGHPUT]
        self.assertAlmostEqual(target.value, 0.21e6 / 1.2e6)
        self.assertEqual(target.verdict, report.MISSED)

    def test_a_rate_at_its_limit_is_met_and_rounding_never_shows_a_miss_as_the_limit(self):
        at = report.Target("t", 0.8, "ratio", 0.8, "s", at_least=True)
        self.assertEqual(at.verdict, report.MET)
        below = report.Target("t", 0.8, "ratio", 0.7996, "s", at_least=True)
        self.assertEqual(below.verdict, report.MISSED)
        self.assertEqual(below.shown_value(), "×0.7996")

    def test_round_trip_targets_divide_the_median_p50s(self):
        found = bridge_targets(json_of(BRIDGE))
        self.assertAlmostEqual(found[report.BRIDGE_P50_THREAD].value, 112e3 / 91e3)
        self.assertAlmostEqual(found[report.BRIDGE_P50_POLL].value, 96e3 / 91e3)
        slow = {"BM_Bridge_RoundTrip_Kest" + ROUND_TRIP: ([300] * 3, "us", {"p50_ns": [280e3] * 3})}
        self.assertEqual(bridge_targets(json_of(BRIDGE, slow))[report.BRIDGE_P50_THREAD].verdict, report.MISSED)

    def test_a_missing_or_failed_bridge_benchmark_leaves_its_target_not_measured(self):
        found = bridge_targets(json_of(BRIDGE, drop=["BM_Bridge_Throughput_ZmqPubSub"],
                                       errors={"BM_Bridge_RoundTrip_KestPoll" + ROUND_TRIP: "no answer in time"}))
        self.assertEqual(found[report.BRIDGE_THROUGHPUT].verdict, report.NOT_MEASURED)
        self.assertIn("no `BM_Bridge_Throughput_ZmqPubSub/messages:200000`", found[report.BRIDGE_THROUGHPUT].note)
        self.assertEqual(found[report.BRIDGE_P50_POLL].verdict, report.NOT_MEASURED)
        self.assertIn("failed", found[report.BRIDGE_P50_POLL].note)
        self.assertEqual(found[report.BRIDGE_P50_THREAD].verdict, report.MET)

    def test_self_timed_runs_are_read_by_their_wall_clock(self):
        run = report.Suite(json_of(BRIDGE)).find("BM_Bridge_Throughput_Kest")
        self.assertTrue(run.real_time_only)
        self.assertEqual(run.median(), 200e6)

    def test_the_targets_table_holds_the_bridge_targets_only_when_it_ran(self):
        markdown = render_all(bridge=json_of(BRIDGE))
        self.assertEqual(target_row(markdown, report.BRIDGE_THROUGHPUT)[2:4], ["≥ ×0.8", "**met**"])
        self.assertEqual(target_row(markdown, report.BRIDGE_P50_POLL)[2:4], ["≤ ×1.25", "**met**"])
        without = render_all()
        self.assertNotIn(report.BRIDGE_THROUGHPUT, without)
        self.assertIn("`kest_bench_bridge` was not run.", section(without, "Bridge between two processes"))

    def test_bridge_section_gives_kest_raw_ratio_target_and_verdict(self):
        text = section(render_all(bridge=json_of(BRIDGE)), "Bridge between two processes")
        self.assertIn("| Throughput, messages per second | 1,000 k/s | 1,200 k/s | ×0.83 | ≥ ×0.8 | **met** |",
                      text)
        self.assertIn("| Round trip p50, I/O threads (`start()`) | 112.0 µs | 91.0 µs | ×1.23 | ≤ ×1.25 | **met** |",
                      text)
        self.assertIn("`MessageCallback` | 100.0 µs | 96.0 µs | 130.0 µs | 250.0 µs | ×1.05 | 147 |", text)
        self.assertIn("| Decode and deliver to a `MessageCallback` (the receiving bridge) | 2.50 µs | 400 k/s |",
                      text)
        self.assertIn("(benchmarks_bridge.svg)", text)

    def test_the_plot_gives_each_round_trip_its_percentiles_in_microseconds(self):
        series = report.bridge_plot_series(report.Suite(json_of(BRIDGE, drop=["BM_Bridge_RoundTrip_KestPoll"])))
        self.assertEqual(series, [[112.0, 150.0, 300.0], [None, None, None], [91.0, 120.0, 240.0]])
        script = report.gnuplot_script("b.svg", "b.dat", "T", "percentile", ["a", "b", "c"], series,
                                       ylabel="µs per round trip (median)", logscale="y")
        self.assertIn("set logscale y\n", script)
        self.assertIn("set ylabel 'µs per round trip (median)'", script)
        self.assertNotIn("title 'b'", script)


class Wire(unittest.TestCase):
    def test_wire_section_gives_each_step_beside_its_floor(self):
        text = section(render_all(net=json_of(NET)), "Wire: encode and decode")
        self.assertIn("| Encode, a `Message` with a three-part sender | 150 ns | 60.0 ns | ×2.50 | 85 |", text)
        self.assertIn("| Decode, a `GenericMessage` with a 4 KiB tree | 18.0 µs | 3.00 µs | ×6.00 | 4033 |", text)
        self.assertIn("| Copying the 4 KiB tree | 8.00 µs |", text)

    def test_without_its_json_the_wire_section_says_it_was_not_run(self):
        self.assertIn("`kest_bench_net` was not run.", section(render_all(), "Wire: encode and decode"))


# ---- Plots --------------------------------------------------------------------------------------


class Plots(unittest.TestCase):
    def test_a_series_without_values_is_left_out(self):
        script = report.gnuplot_script("out.svg", "in.dat", "T", "N", ["a", "b", "c"],
                                       [[1.0, 2.0], [None, None], [3.0, None]])
        self.assertIn("using 1:2 with linespoints linewidth 2 pointtype 5 title 'a'", script)
        self.assertNotIn("title 'b'", script)
        self.assertIn("using 1:4 with linespoints linewidth 2 pointtype 7 title 'c'", script)

    def test_a_quote_in_a_label_is_doubled_as_gnuplot_reads_it(self):
        script = report.gnuplot_script("out.svg", "in.dat", "the host's loop", "N", ["poll() in the hosts' loops"],
                                       [[1.0]])
        self.assertIn("title 'poll() in the hosts'' loops'", script)
        self.assertIn("set title 'the host''s loop'", script)

    def test_no_values_no_plot(self):
        self.assertIsNone(report.gnuplot_script("out.svg", "in.dat", "T", "N", ["a"], [[None, None]]))


# ---- The program ------------------------------------------------------------------------------------


class Program(unittest.TestCase):
    def run_report(self, *args):
        return subprocess.run([sys.executable, SCRIPT, *args], capture_output=True, text=True, check=False)

    def test_writes_the_report_and_prints_the_verdicts(self):
        with tempfile.TemporaryDirectory() as tmp:
            bench = os.path.join(tmp, "kest_bench.json")
            with open(bench, "w") as f:
                json.dump(suite_json({"BM_Create_KestMessage": [99, 99, 99]}, drop=["BM_PipeFresh_Zmq"]), f)
            memory = os.path.join(tmp, "memory.json")
            with open(memory, "w") as f:
                json.dump({"items_per_measurement": 10000, "results": MEMORY}, f)
            notes = os.path.join(tmp, "notes.md")
            with open(notes, "w") as f:
                f.write("\n## Notes\n\nkept by hand\n")
            out = os.path.join(tmp, "docs")
            result = self.run_report("--bench-json", bench, "--memory-json", memory, "--out-dir", out,
                                     "--include", notes, "--commit", "abc1234", "--no-plots")
            self.assertEqual(result.returncode, 0, result.stderr)
            self.assertIn("missed: Making a message with identity", result.stdout)
            self.assertIn("not measured: W2 fresh: dispatcher → `MessageQueue` ÷ ZeroMQ", result.stdout)
            with open(os.path.join(out, "benchmarks.md")) as f:
                markdown = f.read()
            self.assertEqual(target_row(markdown, CREATION)[3], "**missed**")
            self.assertIn("| Library | commit abc1234 |", markdown)
            self.assertIn("| message, identity only |", markdown)
            self.assertTrue(markdown.endswith("\n## Notes\n\nkept by hand\n"))
            self.assertEqual(sorted(os.listdir(out)), ["benchmarks.md"])

    def test_reads_the_wire_and_bridge_results_and_prints_their_verdicts(self):
        with tempfile.TemporaryDirectory() as tmp:
            paths = {}
            for name, data in (("kest_bench", suite_json()), ("net", json_of(NET)),
                               ("bridge", json_of(BRIDGE, {"BM_Bridge_Throughput_Kest" + THROUGHPUT: (
                                   [900] * 3, "ms", {"msgs_per_s": [0.2e6] * 3})}))):
                paths[name] = os.path.join(tmp, name + ".json")
                with open(paths[name], "w") as f:
                    json.dump(data, f)
            out = os.path.join(tmp, "docs")
            result = self.run_report("--bench-json", paths["kest_bench"], "--net-json", paths["net"],
                                     "--bridge-json", paths["bridge"], "--out-dir", out, "--no-plots")
            self.assertEqual(result.returncode, 0, result.stderr)
            self.assertIn("missed: " + report.BRIDGE_THROUGHPUT, result.stdout)
            self.assertIn("met: " + report.BRIDGE_P50_POLL, result.stdout)
            with open(os.path.join(out, "benchmarks.md")) as f:
                markdown = f.read()
            self.assertIn("| Decode, a `Message` with a three-part sender | 400 ns |", markdown)
            self.assertEqual(target_row(markdown, report.BRIDGE_THROUGHPUT)[3], "**missed**")

    def test_an_unreadable_bridge_json_leaves_its_section_not_run(self):
        with tempfile.TemporaryDirectory() as tmp:
            bench = os.path.join(tmp, "kest_bench.json")
            with open(bench, "w") as f:
                json.dump(suite_json(), f)
            result = self.run_report("--bench-json", bench, "--bridge-json", os.path.join(tmp, "absent.json"),
                                     "--out-dir", tmp, "--no-plots")
            self.assertEqual(result.returncode, 0, result.stderr)
            self.assertIn("cannot read", result.stderr)
            with open(os.path.join(tmp, "benchmarks.md")) as f:
                self.assertIn("`kest_bench_bridge` was not run.", f.read())

    def test_an_unreadable_json_is_an_error_not_a_report(self):
        with tempfile.TemporaryDirectory() as tmp:
            result = self.run_report("--bench-json", os.path.join(tmp, "absent.json"), "--out-dir", tmp,
                                     "--no-plots")
            self.assertEqual(result.returncode, 1)
            self.assertIn("cannot read", result.stderr)
            self.assertFalse(os.path.exists(os.path.join(tmp, "benchmarks.md")))


if __name__ == "__main__":
    unittest.main()

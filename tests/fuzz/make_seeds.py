#!/usr/bin/env python3
"""Writes the hand-made seed inputs of the two fuzz targets.

    tests/fuzz/make_seeds.py [CORPUS_ROOT]    (default: tests/fuzz/corpus)

Each seed is written as <root>/<target>/seed-<name>. The byte layouts are the
ones the targets decode (metadata_fuzz.cpp: TreeDecoder; routing_fuzz.cpp:
Run), so these helpers spell inputs in the targets' own terms.
"""

import math
import os
import struct
import sys

# --- metadata trees ---------------------------------------------------------

NAMES = {"Id": 0, "Sender": 1, "Destination": 2, "Identity": 3, "Data": 4, "Key": 5,
         "Count": 6, "Rank": 7, "": 8, "Sender ": 9, "rank": 10,
         "Level": 12, "Offset": 13, "Samples": 14, "Value": 15, "Gain": 16, "Valid": 17}
RAW_NAME = 11


def empty():
    return [0]


def number(value):
    """An unsigned integer."""
    if value < 0x80:
        return [1, value]
    return [1, 0x80] + list(value.to_bytes(8, "big"))


def signed(value):
    """A signed integer: -64 to 63 in one byte, anything else in eight."""
    if -64 <= value < 64:
        return [5, value + 64]
    return [5, 0x80] + list(value.to_bytes(8, "big", signed=True))


def real(value):
    """A double: quarters from -16 to 15.75 in one byte, any other bit pattern in eight."""
    quarters = value * 4
    negative_zero = value == 0 and math.copysign(1.0, value) < 0
    if math.isfinite(value) and quarters == int(quarters) and -64 <= quarters < 64 and not negative_zero:
        return [6, int(quarters) + 64]
    return [6, 0x80] + list(struct.pack(">d", value))


def boolean(flag):
    return [7, 1 if flag else 0]


def string(text):
    data = text.encode("latin-1")
    assert len(data) <= 6
    return [2, len(data)] + list(data)


def name(text):
    if text in NAMES:
        return [NAMES[text]]
    data = text.encode("latin-1")
    assert len(data) <= 4
    return [RAW_NAME, len(data)] + list(data)


def obj(*members):
    assert len(members) <= 5
    out = [3, len(members)]
    for key, value in members:
        out += name(key) + value
    return out


def arr(*items):
    assert len(items) <= 5
    out = [4, len(items)]
    for item in items:
        out += item
    return out


def strings(*texts):
    return arr(*[string(t) for t in texts])


def metadata(filled, first, second=None):
    return bytes([1 if filled else 0] + first + (second or []))


def key_record(id_value, sender, destination):
    return obj(("Id", number(id_value)), ("Sender", strings(*sender)),
               ("Destination", strings(*destination)))


FULL_DATA = obj(("Key", key_record(0x0F0D0009, ["a", "b"], [])), ("Count", number(1)),
                ("Rank", number(2**64 - 1)))
FULL_MESSAGE = obj(("Id", number(0x00010002)), ("Sender", strings("a", "b")),
                   ("Destination", strings("x")), ("Identity", string("id-1")), ("Data", FULL_DATA))


NAN = float("nan")
INF = float("inf")
FLT_MAX = struct.unpack(">f", bytes.fromhex("7f7fffff"))[0]
FLT_TRUE_MIN = struct.unpack(">f", bytes.fromhex("00000001"))[0]


def deep(levels):
    node = strings("z")
    for _ in range(levels):
        node = obj(("Data", obj(("Key", obj(("Sender", node))))))
    return node


def nested_arrays(levels):
    node = strings("q")
    for _ in range(levels):
        node = arr(node)
    return node


METADATA_SEEDS = {
    "full-record": metadata(False, FULL_MESSAGE),
    "full-record-over-filled": metadata(True, FULL_MESSAGE),
    "key-only": metadata(False, key_record(7, ["s"], ["d", "e"])),
    "wrong-kinds": metadata(True, obj(("Id", string("5")), ("Sender", string("x")),
                                      ("Destination", number(3)), ("Identity", number(1)),
                                      ("Data", number(4)))),
    "corrupt-arrays": metadata(True, obj(("Sender", arr(string("a"), number(3))),
                                         ("Destination", arr(empty())),
                                         ("Data", obj(("Key", obj(("Sender", arr(obj())),
                                                                  ("Destination", arr(arr())))))))),
    "missing-names": metadata(True, obj(), FULL_MESSAGE),
    "empty-arrays": metadata(False, obj(("Sender", arr()), ("Destination", arr()),
                                        ("Data", obj(("Key", obj(("Sender", arr()))))))),
    "junk-names": metadata(True, obj(("", number(1)), ("Sender ", strings("a")), ("rank", number(3)),
                                     ("id", number(4)), ("Dat", obj(("Key", obj()))))),
    "record-not-object": metadata(True, obj(("Data", obj(("Key", number(1)), ("Count", string("1")))),
                                            ("Key", strings("a")))),
    "data-empty-element": metadata(True, obj(("Data", empty()), ("Key", empty()))),
    "top-number": metadata(True, number(12345678901234567890)),
    "top-array": metadata(False, arr(FULL_MESSAGE, string("x"))),
    "deep-nesting": metadata(True, deep(2), obj(("Data", obj(("Key", obj(("Sender", nested_arrays(7)))))))),
    "second-tree-keeps-addresses": metadata(False, FULL_MESSAGE,
                                            obj(("Sender", number(1)), ("Destination", arr(number(2))),
                                                ("Data", obj(("Key", obj(("Sender", string("s")),
                                                                         ("Destination",
                                                                          arr(string("d"), empty())))))))),
    "second-tree-resets": metadata(True, FULL_MESSAGE, obj(("Data", string("gone")))),
    "big-numbers": metadata(False, obj(("Id", number(2**64 - 1)),
                                       ("Data", obj(("Count", number(2**63)), ("Rank", number(0)),
                                                    ("Key", obj(("Id", number(2**40)))))))),
    # Fields of every scalar type (at most five members per object).
    "typed-fields-fit": metadata(False, obj(("Level", signed(-5)), ("Offset", number(7)),
                                            ("Samples", real(3.0)), ("Value", signed(-2**53)),
                                            ("Gain", real(0.5))),
                                 obj(("Valid", boolean(True)),
                                     ("Level", arr(signed(-1), number(5), real(-2.0))),
                                     ("Value", arr(real(NAN), real(-0.0), real(INF), real(-INF))),
                                     ("Gain", arr(real(FLT_MAX), real(FLT_TRUE_MIN))),
                                     ("Samples", arr(number(2**32 - 1), real(0.0))))),
    "typed-fields-lossy": metadata(True, obj(("Level", number(2**63)), ("Offset", signed(2**31)),
                                             ("Samples", signed(-1)), ("Value", number(2**53 + 1)),
                                             ("Gain", real(0.1))),
                                   obj(("Valid", number(1)), ("Offset", arr(signed(1), signed(2**31))),
                                       ("Samples", arr(number(2**32))), ("Gain", arr(real(2**24 + 1))),
                                       ("Level", arr(real(0.5))))),
    "typed-edges": metadata(False, obj(("Level", signed(-2**63)), ("Offset", real(-2.0**31)),
                                       ("Samples", real(2.0**32 - 1)), ("Value", number(2**64 - 1)),
                                       ("Gain", real(2.0 * FLT_MAX))),
                            obj(("Level", real(2.0**63)), ("Offset", real(2.0**31)),
                                ("Samples", number(2**32)), ("Gain", real(-0.0)), ("Value", real(NAN)))),
    "typed-tiny-and-huge": metadata(True, obj(("Value", real(1e300)), ("Gain", real(1e-50)),
                                              ("Level", real(-INF)), ("Offset", real(FLT_TRUE_MIN)),
                                              ("Valid", boolean(False))),
                                    obj(("Value", arr(real(2.0**53), real(2.0**53 + 2), signed(2**53 + 1))),
                                        ("Gain", arr(real(FLT_TRUE_MIN), real(1e-50))),
                                        ("Valid", arr(boolean(True), number(0))))),
    "typed-nan-and-infinities": metadata(False, obj(("Gain", real(NAN)), ("Value", real(INF)),
                                                    ("Level", real(NAN)), ("Samples", real(INF)),
                                                    ("Offset", real(-INF))),
                                         obj(("Gain", arr(real(NAN), real(-INF), real(INF))),
                                             ("Value", arr(real(-INF))), ("Level", arr(real(NAN))))),
    "new-kinds-in-old-fields": metadata(False, obj(("Id", signed(5)), ("Count", real(3.0)), ("Rank", signed(-1)),
                                                   ("Identity", boolean(True)),
                                                   ("Data", obj(("Key", obj(("Id", real(2.0**40)))),
                                                                ("Count", signed(2**62)),
                                                                ("Rank", real(2.0**64))))),
                                        obj(("Id", real(0.5)), ("Sender", arr(signed(1))),
                                            ("Data", obj(("Count", boolean(False)), ("Rank", real(-0.0)),
                                                         ("Key", obj(("Id", signed(-3)))))))),
    "new-kinds-at-top": metadata(True, boolean(True), real(NAN)),
    "new-kinds-in-top-array": metadata(False, arr(signed(-1), real(1.5), boolean(False)), signed(-2**40)),
}

# --- routing operations -----------------------------------------------------

IDS = {"A": 0, "B": 1, "N5": 2, "N6": 3, "N9": 4, "N10": 5}
RANKS = {0: 0, 1: 1, 2: 2, 5: 3}
NULL = 4        # queue choice meaning an empty pointer (operations that accept one)
OBSERVER = 4    # sender choice: the observer queue
NO_SENDER = 5   # sender choice: no sender queue


def addr(path=""):
    """A path over {a, b}, depth 0 to 3, as one byte."""
    assert len(path) <= 3 and set(path) <= {"a", "b"}
    bits = len(path)
    for i, part in enumerate(path):
        if part == "b":
            bits |= 1 << (2 + i)
    return [bits]


def subscribe(q, ident, path=""):
    return [0, q, IDS[ident]] + addr(path)


def unsubscribe(q, ident, path=""):
    return [2, q, IDS[ident]] + addr(path)


def unsubscribe_all(q):
    return [3, q]


def register(q, ident, path, rank):
    return [4, q, IDS[ident]] + addr(path) + [RANKS[rank]]


def unregister(q, ident, path=""):
    return [6, q, IDS[ident]] + addr(path)


def unregister_all(q):
    return [7, q]


def post(ident, sender=None, destination=None, by=NO_SENDER):
    """sender None: no sender address; destination None: no destination."""
    form = 0 if sender is None else (1 if destination is None else 2)
    return [8, IDS[ident], form] + addr(sender or "") + addr(destination or "") + [by]


def post_again(index, by=NO_SENDER):
    return [11, index, by]


def take_one(q):
    return [12, q]


def drain(q):
    return [13, q]


def disconnect(q):
    return [14, q]


def set_depth(q, depth):
    return [15, 0, q - 2, depth - 1]


def post_nothing(by=NO_SENDER):
    return [15, 1, by]


def subscriptions_snapshot(ident, path=""):
    return [15, 2, IDS[ident]] + addr(path)


def flood(thousands):
    """Fresh posts that nothing covers, to push old identities out of the history."""
    return [15, 3, thousands - 1]


def services_snapshot(ident, path=""):
    return [15, 4, IDS[ident]] + addr(path)


def routing(depth2, depth3, *operations):
    out = [((depth3 - 1) << 4) | (depth2 - 1)]
    for op in operations:
        out += op
    return bytes(out)


ALL_PATHS = ["", "a", "b", "aa", "ab", "ba", "bb", "aaa", "aab", "aba", "abb", "baa", "bab", "bba", "bbb"]

ROUTING_SEEDS = {
    "subscribe-by-prefix": routing(1, 1, subscribe(0, "A", "a"), subscribe(1, "A", ""),
                                   subscribe(2, "A", "ab"), post("A", "ab"), post("A", "ba"),
                                   post("A"), post("B", "a"), drain(0), drain(1), drain(2)),
    "sender-excluded": routing(2, 2, subscribe(0, "A"), subscribe(1, "A"), post("A", "a", by=0),
                               post("A", "a", by=OBSERVER), drain(0), drain(1)),
    "rank-order": routing(1, 1, register(2, "A", "a", 2), register(0, "A", "a", 5),
                          register(1, "A", "a", 5), register(3, "A", "", 1), post("A", "b", "ab"),
                          post("A", "b", "ab"), post("A", "b", "ab"), post("A", "", "b"),
                          take_one(2), post("A", "", "a"), drain(0), drain(1), drain(2), drain(3)),
    "rank-zero-exclusive": routing(1, 1, register(0, "B", "a", 0), register(1, "B", "a", 1),
                                   register(0, "B", "a", 0), register(0, "B", "a", 2),
                                   unregister(0, "B", "a"), register(1, "B", "a", 0),
                                   register(2, "B", "a", 0), services_snapshot("B", "a")),
    "re-register-moves": routing(1, 1, register(0, "A", "b", 2), register(1, "A", "b", 2),
                                 register(0, "A", "b", 5), register(0, "A", "b", 5),
                                 register(1, "A", "b", 1), unregister(1, "A", "b"),
                                 unregister(0, "A", "b"), unregister(0, "A", "b")),
    "full-queues-fall-through": routing(1, 2, subscribe(2, "A"), register(2, "A", "", 1),
                                        register(3, "A", "", 2), register(0, "A", "a", 5),
                                        post("A", "a", "aa"), post("A", "a", "aa"),
                                        post("A", "b", "ab"), post("A", "b", "ab"),
                                        post("A", "b", "ba"), set_depth(2, 3), post("A", "b", "ab"),
                                        drain(2), drain(3), drain(0)),
    "no-service-for-destination": routing(1, 1, subscribe(0, "A"), post("A", "a", "b"),
                                          register(1, "A", "a", 1), post("A", "a", "b"),
                                          post("A", "a", "ab"), post("A", "a"), drain(0), drain(1)),
    "forwarder-queues": routing(1, 1, subscribe(0, "N9"), subscribe(0, "N10"), subscribe(1, "N5"),
                                register(2, "N6", "", 1), register(3, "N6", "", 2),
                                subscribe(1, "A", "a"), subscribe(3, "B"), unsubscribe(1, "A", "a"),
                                register(1, "A", "a", 2), register(0, "A", "a", 1),
                                unregister(0, "A", "a"), drain(0), drain(1), drain(2), drain(3)),
    "bulk-removals": routing(1, 1, subscribe(0, "A", "a"), subscribe(0, "A", "b"), subscribe(0, "B"),
                             subscribe(1, "A", "a"), register(0, "A", "a", 1), register(1, "A", "a", 2),
                             register(0, "B", "", 0), register(0, "N5", "", 1),
                             subscribe(2, "N10"), subscribe(3, "N6"), unsubscribe_all(0),
                             unregister_all(0), unsubscribe_all(0), unregister_all(0),
                             drain(2), drain(3)),
    "disconnect": routing(2, 1, subscribe(1, "A", "ab"), subscribe(1, "N5"), register(1, "B", "a", 2),
                          register(0, "B", "a", 1), register(1, "A", "", 0), subscribe(2, "N10"),
                          register(3, "N6", "", 1), disconnect(1), disconnect(1), disconnect(NULL),
                          drain(0), drain(2), drain(3)),
    "post-again": routing(1, 1, subscribe(0, "A"), post("A", "a"), post_again(0), post_again(0, 0),
                          post("B", "b", "b"), register(1, "B", "b", 1), post_again(1), post_nothing(),
                          post_nothing(0), drain(0), drain(1)),
    "many-keys": routing(3, 3, *[subscribe(i % 4, "A", p) for i, p in enumerate(ALL_PATHS)],
                         *[register(i % 4, "B", p, [1, 2, 5][i % 3]) for i, p in enumerate(ALL_PATHS)],
                         post("A", "aba"), post("A", "bba"), post("B", "a", "bab"),
                         post("B", "", "aab"), post("B", "", "bba"),
                         subscriptions_snapshot("A", "ab"), services_snapshot("B", "bb"),
                         services_snapshot("A", ""), unsubscribe_all(1), unregister_all(2),
                         drain(0), drain(1), drain(2), drain(3)),
    "history-eviction": routing(1, 1, subscribe(0, "A"), post("A", "a"), flood(4), post_again(0),
                                flood(4), flood(2), post_again(0), post_again(0), drain(0)),
    "null-queue": routing(1, 1, subscribe(NULL, "A"), unsubscribe(NULL, "A"), unsubscribe_all(NULL),
                          unregister(NULL, "A"), unregister_all(NULL), subscribe(0, "A"),
                          post("A", "", None, NO_SENDER)),
    "notices-to-full-services": routing(1, 1, register(2, "N9", "", 1), register(3, "N9", "", 2),
                                        register(0, "N9", "b", 1), subscribe(1, "A"), subscribe(1, "B"),
                                        subscribe(0, "A", "a"), subscribe(2, "B", "b"), take_one(2),
                                        take_one(3), subscribe(3, "A", "b"), drain(2), drain(3)),
}


def main():
    root = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "corpus")
    for target, seeds in (("metadata", METADATA_SEEDS), ("routing", ROUTING_SEEDS)):
        folder = os.path.join(root, target)
        os.makedirs(folder, exist_ok=True)
        for seed_name, data in seeds.items():
            with open(os.path.join(folder, "seed-" + seed_name), "wb") as out:
                out.write(data)
    print("wrote %d metadata and %d routing seeds under %s"
          % (len(METADATA_SEEDS), len(ROUTING_SEEDS), root))


if __name__ == "__main__":
    main()

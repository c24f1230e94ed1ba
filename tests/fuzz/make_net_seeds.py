#!/usr/bin/env python3
"""Writes the hand-made seed inputs of the wire and json fuzz targets.

    tests/fuzz/make_net_seeds.py [CORPUS_ROOT]    (default: tests/fuzz/corpus)

Each seed is written as <root>/<target>/seed-<name>. Wire seeds are MessagePack
in the layout encode() writes, [[major, minor], envelope, tree], well-formed
and not; json seeds are JSON texts, well-formed and not. The MessagePack below
is written by a few lines of Python (standard library only) that spell each
format explicitly, so that seeds can hold non-canonical and malformed forms.
"""

import os
import struct
import sys


# --- MessagePack, spelled out -----------------------------------------------

class Signed:
    """An integer in a signed format: negative fixint or int 8/16/32/64."""

    def __init__(self, value, width=None):
        self.value = value
        self.width = width


class Uint:
    """An unsigned integer in the given width (8, 16, 32, 64), canonical or not."""

    def __init__(self, value, width):
        self.value = value
        self.width = width


class Float32:
    def __init__(self, value):
        self.value = value


class Raw:
    """Bytes put in as they are."""

    def __init__(self, data):
        self.data = data


class Pairs:
    """A map with its members in this order, repeats allowed."""

    def __init__(self, *pairs):
        self.pairs = pairs


def pack(value):
    if isinstance(value, Raw):
        return value.data
    if value is None:
        return b"\xc0"
    if value is True:
        return b"\xc3"
    if value is False:
        return b"\xc2"
    if isinstance(value, Uint):
        code = {8: 0xCC, 16: 0xCD, 32: 0xCE, 64: 0xCF}[value.width]
        return bytes([code]) + value.value.to_bytes(value.width // 8, "big")
    if isinstance(value, Signed):
        v = value.value
        width = value.width
        if width is None:
            if -32 <= v < 0:
                return struct.pack(">b", v)
            width = next(w for w in (8, 16, 32, 64) if -(1 << (w - 1)) <= v < (1 << (w - 1)))
        code = {8: 0xD0, 16: 0xD1, 32: 0xD2, 64: 0xD3}[width]
        return bytes([code]) + v.to_bytes(width // 8, "big", signed=True)
    if isinstance(value, int):
        assert value >= 0
        if value < 0x80:
            return bytes([value])
        for width, code in ((8, 0xCC), (16, 0xCD), (32, 0xCE), (64, 0xCF)):
            if value < (1 << width):
                return bytes([code]) + value.to_bytes(width // 8, "big")
    if isinstance(value, Float32):
        return b"\xca" + struct.pack(">f", value.value)
    if isinstance(value, float):
        return b"\xcb" + struct.pack(">d", value)
    if isinstance(value, (str, bytes)):
        data = value.encode("utf-8") if isinstance(value, str) else value
        n = len(data)
        if n < 32:
            head = bytes([0xA0 | n])
        elif n < 256:
            head = bytes([0xD9, n])
        elif n < 65536:
            head = b"\xda" + n.to_bytes(2, "big")
        else:
            head = b"\xdb" + n.to_bytes(4, "big")
        return head + data
    if isinstance(value, list):
        return array_head(len(value)) + b"".join(pack(v) for v in value)
    if isinstance(value, dict):
        value = Pairs(*value.items())
    if isinstance(value, Pairs):
        return map_head(len(value.pairs)) + b"".join(pack(k) + pack(v) for k, v in value.pairs)
    raise TypeError(value)


def array_head(n):
    if n < 16:
        return bytes([0x90 | n])
    if n < 65536:
        return b"\xdc" + n.to_bytes(2, "big")
    return b"\xdd" + n.to_bytes(4, "big")


def map_head(n):
    if n < 16:
        return bytes([0x80 | n])
    if n < 65536:
        return b"\xde" + n.to_bytes(2, "big")
    return b"\xdf" + n.to_bytes(4, "big")


# --- Messages -----------------------------------------------------------------

FORWARDER = 0x0F0D


def ident(category, kind):
    return category << 16 | kind


def envelope(origin="proc-1", epoch=1, hops=0, scope=3, sequence=1):
    return [origin, epoch, hops, scope, sequence]


def message(tree, version=(1, 0), env=None):
    return pack([list(version), env if env is not None else envelope(), tree])


def tree(identifier, identity="Ab3dEf9h0", sender=None, destination=None, **payload):
    members = {}
    if destination is not None:
        members["Destination"] = destination
    members["Id"] = identifier
    members["Identity"] = identity
    if sender is not None:
        members["Sender"] = sender
    members.update(payload)
    return dict(sorted(members.items()))


def notification(kind, rank, key_sender, key_destination):
    key = {"Destination": key_destination, "Id": ident(7, 1), "Sender": key_sender}
    data = {"Count": 1, "Key": key, "Rank": rank}
    return tree(ident(FORWARDER, kind), sender=[], destination=[], Data=data)


EVERY_KIND = {
    "nil": None, "u": 18446744073709551615, "s": Signed(-9223372036854775808), "s5": Signed(5),
    "d": 0.1, "whole": 5.0, "negzero": -0.0, "nan": float("nan"), "inf": float("inf"),
    "t": True, "f": False, "text": b"nul\x00\xff", "empty": "", "obj": {}, "arr": [],
    "nested": {"a": [1, Signed(-1), 2.5, [], {"b": [None]}]},
}


def nested(levels, leaf=None):
    node = leaf
    for i in range(levels):
        node = {"k": node} if i % 2 else [node]
    return node


WIRE_SEEDS = {
    "plain": message(tree(ident(100, 1))),
    "with-sender": message(tree(ident(7, 1), sender=["plant0", "line2", "press3"])),
    "with-destination": message(tree(ident(7, 2), sender=["a"], destination=["svc", "x"])),
    "set-empty-addresses": message(tree(ident(7, 3), sender=[], destination=[])),
    "destination-only": message(tree(ident(7, 4), destination=["d"])),
    "rank-notification": message(notification(5, 2, [], ["svc"])),
    "change-notification": message(notification(6, 18446744073709551615, [], ["svc"])),
    "added-notification": message(notification(9, 0, ["plant"], [])),
    "removed-notification": message(notification(10, 0, ["plant", "line"], [])),
    "notification-bad-data": message(tree(ident(FORWARDER, 5), sender=[], destination=[],
                                          Data={"Count": "one", "Key": {"Sender": 5}, "Rank": Signed(-1)})),
    "every-kind": message(tree(ident(0x0B00, 9), sender=["tool"], **EVERY_KIND)),
    "envelope-extremes": message(tree(ident(1, 1)), env=envelope(b"\x00host\xff", 18446744073709551615,
                                                                 4294967295, 1, 18446744073709551615)),
    "newer-minor": pack([[1, 3], envelope() + [{"later": [Signed(-1)]}, None], tree(ident(1, 2)), "extra"]),
    "newer-major": pack([[2, 0], [b"anything"], None]),
    "non-canonical-numbers": message(tree(Uint(42, 64), sender=["a"], small=Uint(1, 16), tiny=Signed(1, 64),
                                          half=Float32(0.5))),
    "deep-64": message(tree(ident(1, 3), deep=nested(63))),
    "deep-65": message(tree(ident(1, 3), deep=nested(64))),
    "duplicate-member": message(Pairs(("Id", 1), ("Identity", "i"), ("x", 1), ("x", 2))),
    "duplicate-field": message(Pairs(("Id", 1), ("Identity", "i"), ("Id", 2))),
    "bin-value": message(tree(ident(1, 4), blob=Raw(b"\xc4\x02ab"))),
    "ext-value": message(tree(ident(1, 4), ext=Raw(b"\xd4\x01\x00"))),
    "no-identity": message(Pairs(("Id", 1))),
    "signed-id": message(Pairs(("Id", Signed(1)), ("Identity", "i"))),
    "address-of-numbers": message(tree(ident(1, 5), sender=[1, 2])),
    "integer-keys": message(Pairs(("Id", 1), ("Identity", "i"), (5, None))),
    "scope-out-of-range": message(tree(ident(1, 1)), env=envelope(scope=4)),
    "trailing-bytes": message(tree(ident(1, 1))) + b"\xc0",
    "truncated": message(tree(ident(7, 1), sender=["plant0", "line2"]))[:-3],
    "huge-count": pack([[1, 0], envelope(), Raw(b"\x83\xa2Id\x01\xa8Identity\xa1i\xa1L\xdd\xff\xff\xff\xff")]),
    "garbage": b"\xc1\x93\x92\x01",
}


# --- JSON ---------------------------------------------------------------------

JSON_SEEDS = {
    "every-kind": b'{"a":null,"b":18446744073709551615,"c":-9223372036854775808,"d":0.5,"e":5.0,'
                  b'"f":true,"g":false,"h":"t\\u00e9\\ud83d\\ude00\\n","i":{},"j":[],"k":[1,-2,3e10,{"x":[null]}]}',
    "numbers": b"[0,-0,-0.0,1e-300,1.7976931348623157e308,4.9e-324,123456789012345678,-1]",
    "too-big-integer": b"[18446744073709551616]",
    "too-small-integer": b"[-9223372036854775809]",
    "overflowing-double": b"1e400",
    "deep-64": b"[" * 64 + b"]" * 64,
    "deep-65": b"[" * 65 + b"]" * 65,
    "duplicate-member": b'{"a":1,"a":2}',
    "white-space": b' \n\t{ "a" : [ 1 , 2 ] }\r\n',
    "scalar-root": b'"just a string"',
    "truncated": b'{"a":[1,2,{"b":',
    "trailing-garbage": b"{} x",
    "invalid-utf8": b'"\xff\xfe"',
    "lone-surrogate": b'"\\ud800"',
    "control-character": b'"a\x01b"',
    "nul-escape": b'{"\\u0000":"\\u0000"}',
    "comment": b"[1] // not JSON",
    "nan": b"[NaN]",
    "message-tree": b'{"Data":{"Count":1,"Key":{"Destination":["svc"],"Id":458753,"Sender":[]},"Rank":2},'
                    b'"Destination":[],"Id":252510213,"Identity":"Ab3dEf9h0","Sender":[]}',
}


def main():
    root = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "corpus")
    for target, seeds in (("wire", WIRE_SEEDS), ("json", JSON_SEEDS)):
        folder = os.path.join(root, target)
        os.makedirs(folder, exist_ok=True)
        for seed_name, data in seeds.items():
            with open(os.path.join(folder, "seed-" + seed_name), "wb") as out:
                out.write(data)
    print("wrote %d wire and %d json seeds under %s" % (len(WIRE_SEEDS), len(JSON_SEEDS), root))


if __name__ == "__main__":
    main()

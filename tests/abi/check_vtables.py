#!/usr/bin/env python3
"""Checks the vtable slot order of the public classes.

Compiles vtable_probe.cpp with the compiler's class-layout dump and compares
each listed class's primary vtable with vtable_slots.txt.
Usage: check_vtables.py <c++ compiler> <include root> <probe.cpp> <expected.txt>
"""
import glob
import os
import re
import subprocess
import sys
import tempfile


def primary_slots(dump, cls):
    """Owner::operation of each function entry of the class's primary vtable."""
    match = re.search(r"^Vtable for " + re.escape(cls) + r"\n[^\n]*: \d+ entries\n(.*?)\n\n", dump, re.S | re.M)
    if not match:
        return None
    slots, seen_typeinfo = [], False
    for line in match.group(1).splitlines():
        entry = line.split(None, 1)[1] if len(line.split(None, 1)) > 1 else ""
        if "_ZTI" in entry:
            seen_typeinfo = True
            continue
        if not seen_typeinfo:
            continue
        if not entry.startswith("(int (*)(...))") or entry.startswith("(int (*)(...))-"):
            break  # end of the primary vtable: offsets of the next group
        name = entry[len("(int (*)(...))"):]
        name = re.sub(r"<.*>", "", name)  # template arguments
        parts = name.split("::")
        owner, operation = parts[-2], parts[-1]
        if operation.startswith("~"):
            operation = "D"
        slots.append(owner + "::" + operation)
    return slots


def main():
    compiler, include_root, probe, expected_file = sys.argv[1:5]
    probe = os.path.abspath(probe)
    with tempfile.TemporaryDirectory() as work:
        subprocess.run([compiler, "-std=c++17", "-I", include_root, "-fdump-lang-class", "-c", probe,
                        "-o", os.path.join(work, "probe.o")], check=True, cwd=work)
        dump = open(glob.glob(os.path.join(work, "*.class"))[0]).read()
    failures = 0
    for line in open(expected_file):
        line = line.strip()
        if not line or line.startswith("#"):
            continue
        cls, expected = line.rsplit(": ", 1)
        actual = primary_slots(dump, cls)
        if actual != expected.split():
            failures += 1
            print(f"{cls}:\n  expected {expected}\n  actual   {' '.join(actual) if actual else '(no vtable found)'}")
        else:
            print(f"{cls}: ok ({len(actual)} slots)")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())

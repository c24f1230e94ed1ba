#!/usr/bin/env python3
"""Checks which value types the metadata templates accept, at compile time.

Compiles field_type_probe.cpp once with every supported type (it must build
without a warning), then once per unsupported use, which must fail with
exactly one error carrying the expected text: a user who picks a wrong field
type gets one readable message, not a cascade from deep inside the templates.
Usage: check_field_types.py <c++ compiler> <include root> <field_type_probe.cpp>
"""
import re
import subprocess
import sys

FIELD = "Kest::MetaData::Reflector<T>: unsupported field type T"
ARRAY = "Kest::MetaData::ReflectorArray<T>: unsupported element type T"
GET = "Kest::MetaData::GetAs<T>: T must be unsigned long, unsigned int, long, int, double, float, bool or std::string"
SET = "Kest::MetaData::SetAs<T>: T must be unsigned long, unsigned int, long, int, double, float, bool or std::string"

# (macro, value, text the one error must contain)
REFUSED = [
    ("FIELD", "short", FIELD),
    ("FIELD", "long long", FIELD),
    ("FIELD", "long double", FIELD),
    ("FIELD", "char", FIELD),
    ("FIELD", "const char*", FIELD),
    ("FIELD", "std::vector<int>", FIELD),
    ("ARRAY", "short", ARRAY),
    ("ARRAY", "Kest::Msgs::Identifier", ARRAY),
    ("GET", "short", GET),
    ("SET", "const char*", SET),
    ("ELEMENT", "'x'", "use of deleted function"),
    ("ELEMENT", "nullptr", "use of deleted function"),
    ("ELEMENT", "5LL", "ambiguous"),
]


def compile_probe(compiler, include_root, probe, defines):
    command = [compiler, "-std=c++17", "-fsyntax-only", "-Wall", "-Wextra", "-Wpedantic", "-Werror",
               "-I", include_root, probe] + ["-D" + d for d in defines]
    return subprocess.run(command, capture_output=True, text=True)


def main():
    compiler, include_root, probe = sys.argv[1:4]
    failures = 0

    result = compile_probe(compiler, include_root, probe, [])
    if result.returncode != 0:
        failures += 1
        print("every supported type: does not compile\n" + result.stderr)
    else:
        print("every supported type: compiles")

    for macro, value, expected in REFUSED:
        what = f"{macro}={value}"
        result = compile_probe(compiler, include_root, probe, [f"{macro}={value}"])
        errors = [line for line in result.stderr.splitlines() if re.search(r"\berror\b:", line)]
        if result.returncode == 0:
            failures += 1
            print(f"{what}: compiles, but must not")
        elif len(errors) != 1 or expected not in errors[0]:
            failures += 1
            print(f"{what}: expected one error containing {expected!r}, got {len(errors)}:")
            print("\n".join("  " + e for e in errors))
        else:
            print(f"{what}: refused with one error")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())

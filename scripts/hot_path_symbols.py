#!/usr/bin/env python3
"""Writes the list of liborvelkit functions that every request runs, hottest first, for the linker
to place side by side (cmake/hot_path_symbols.txt, read by src/CMakeLists.txt).

A request runs a couple of hundred small functions of the library once each. Spread over the whole
text they cost an instruction-cache line and often a page-table walk apiece; packed together they
share lines and pages, which is measurably cheaper for the same instructions.

Input: pairs of callgrind profiles of the same benchmark run for two request counts, so that the
start-up cancels out. For example, with nginx serving the transport benchmark's JSON body:

  valgrind --tool=callgrind --demangle=no --callgrind-out-file=long.out \\
      build/bench/transport/transport_manager json-requests URL 1600 16
  valgrind --tool=callgrind --demangle=no --callgrind-out-file=short.out \\
      build/bench/transport/transport_manager json-requests URL 400 16
  scripts/hot_path_symbols.py cmake/hot_path_symbols.txt long.out short.out 1200 [LONG SHORT N]...

A function is listed when its own instructions grow by at least one per extra request in some pair;
the order is by that cost, highest first. A stale list only costs speed: names the linker does not
find are skipped.
"""
import re
import sys
from collections import Counter

LIBRARY = "liborvelkit.so"
NAME = re.compile(r"(c?ob|c?fn)=\((\d+)\)(?: (.*))?$")


def self_costs(path):
    """Exclusive instruction counts of the library's functions, by mangled name."""
    objects, functions = {}, {}
    costs = Counter()
    current_object = current_function = None
    after_call = False
    with open(path, errors="replace") as profile:
        for line in profile:
            line = line.rstrip("\n")
            match = NAME.match(line)
            if match:
                kind, key, name = match.groups()
                table = objects if kind.endswith("ob") else functions
                if name:
                    table[key] = name
                if kind == "ob":
                    current_object = objects.get(key)
                elif kind == "fn":
                    current_function = functions.get(key)
                continue
            if line.startswith("calls="):
                after_call = True  # the next cost line is the call's inclusive cost
                continue
            if line and line[0] in "0123456789+-*":
                if after_call:
                    after_call = False
                    continue
                fields = line.split()
                if len(fields) >= 2 and current_object and LIBRARY in current_object and current_function:
                    # Recursion and clones are suffixed with 'N in callgrind's names.
                    costs[current_function.split("'")[0]] += int(fields[1])
    return costs


def main(argv):
    if len(argv) < 5 or (len(argv) - 2) % 3 != 0:
        sys.exit(__doc__)
    output = argv[1]
    per_request = Counter()
    for i in range(2, len(argv), 3):
        long_run, short_run, extra = self_costs(argv[i]), self_costs(argv[i + 1]), float(argv[i + 2])
        for name, cost in long_run.items():
            grown = (cost - short_run.get(name, 0)) / extra
            per_request[name] = max(per_request[name], grown)
    hot = [name for name, cost in per_request.most_common() if cost >= 1.0]
    with open(output, "w") as out:
        out.write("".join(name + "\n" for name in hot))
    print(f"{output}: {len(hot)} functions")


if __name__ == "__main__":
    main(sys.argv)

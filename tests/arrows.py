#!/usr/bin/env python3
"""Who knows whom, computed from the library's objects: no circle within a folder, and between folders only
what ALLOWED names.

    arrows.py NM OBJECT..."""
import os
import re
import subprocess
import sys

# Of another folder's names: a pattern for those that may be used.
ALLOWED = {("converter", "os"): re.compile(r"adt_dlist_\w+")}


def symbols(nm, objects):
    """Each object as (folder, source) with the names that it defines and those that it uses."""
    units = {}
    for path in objects:
        folder, name = path.split(os.sep)[-2:]
        defined, used = set(), set()
        for line in subprocess.run([nm, path], capture_output=True, text=True, check=True).stdout.splitlines():
            kind, symbol = line.split()[-2:]
            if kind == "U":
                used.add(symbol)
            elif kind in "TDBRC":
                defined.add(symbol)
        units[folder, name.split(".")[0]] = defined, used
    return units


def arrows(units):
    owner = {symbol: unit for unit, (defined, _) in units.items() for symbol in defined}
    for unit, (_, used) in sorted(units.items()):
        for symbol in sorted(used):
            if owner.get(symbol, unit) != unit:
                yield unit, owner[symbol], symbol


def circle(graph):
    """Units that know one another, or nothing: what is left when those who know nobody else are taken away."""
    left = set(graph)
    while free := {unit for unit in left if not graph[unit] & left}:
        left -= free
    return sorted(left)


def main(nm, objects):
    units = symbols(nm, objects)
    graph = {unit: set() for unit in units}
    wrong = []
    for user, used, symbol in arrows(units):
        graph[user].add(used)
        allowed = ALLOWED.get((user[0], used[0]))
        if user[0] != used[0] and not (allowed and allowed.fullmatch(symbol)):
            wrong.append(f"{'/'.join(user)} must not use {symbol} of {'/'.join(used)}")
    for unit in circle(graph):
        wrong.append(f"{'/'.join(unit)} is in or above a circle: it uses {sorted(v[1] for v in graph[unit])}")
    print("\n".join(wrong) or f"{len(units)} sources, no circle")
    return not units or bool(wrong)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], sys.argv[2:]))

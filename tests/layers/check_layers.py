#!/usr/bin/env python3
"""Checks that the module's layers stay one-way.

1. No two object files of the module call each other, directly or around a
   circle: the call graph between objects, read with nm, has no cycle.
2. The host, the command and the siblings include nothing of the module but
   its host interface.

Usage: check_layers.py SOURCE_DIR OBJECT_FILE_OR_DIR...
"""
import os
import re
import subprocess
import sys

HOST_INTERFACE = {"records/env.h", "records/host_records.h", "records/siblings.h",
                  "frame/qvkernel.h", "frame/instance.h"}
MODULE_FOLDERS = {"frame", "records", "ipm", "presolve", "la", "ordering", "kernels",
                  "verify", "util"}


def symbols(obj, *flags):
    out = subprocess.run(["nm", *flags, obj], capture_output=True, text=True, check=True).stdout
    names = set()
    for line in out.splitlines():
        parts = line.split()
        if len(parts) >= 2 and (flags == ("-u",) or parts[-2] in "TWDBRV"):
            names.add(parts[-1])
    return names


def call_cycles(objects):
    defined = {o: symbols(o, "--defined-only") for o in objects}
    owner = {}
    for o, names in defined.items():
        for n in names:
            owner.setdefault(n, o)
    edges = {o: set() for o in objects}
    for o in objects:
        for n in symbols(o, "-u"):
            if n in owner and owner[n] != o:
                edges[o].add(owner[n])
    # Tarjan's strongly connected components, iteratively.
    index, low, on, stack, cycles, counter = {}, {}, set(), [], [], [0]
    for root in objects:
        if root in index:
            continue
        work = [(root, iter(sorted(edges[root])))]
        index[root] = low[root] = counter[0]; counter[0] += 1
        stack.append(root); on.add(root)
        while work:
            v, it = work[-1]
            w = next(it, None)
            if w is not None:
                if w not in index:
                    index[w] = low[w] = counter[0]; counter[0] += 1
                    stack.append(w); on.add(w)
                    work.append((w, iter(sorted(edges[w]))))
                elif w in on:
                    low[v] = min(low[v], index[w])
                continue
            work.pop()
            if work:
                low[work[-1][0]] = min(low[work[-1][0]], low[v])
            if low[v] == index[v]:
                comp = []
                while True:
                    w = stack.pop(); on.discard(w); comp.append(w)
                    if w == v:
                        break
                if len(comp) > 1:
                    cycles.append(sorted(comp))
    return cycles


def foreign_includes(source):
    bad = []
    pattern = re.compile(r'^\s*#\s*include\s+"([^"]+)"')
    for folder in ("host", "cli", "siblings"):
        for dirpath, _, files in os.walk(os.path.join(source, folder)):
            for f in files:
                if not f.endswith((".h", ".cpp")):
                    continue
                path = os.path.join(dirpath, f)
                with open(path, encoding="utf-8") as text:
                    for number, line in enumerate(text, 1):
                        m = pattern.match(line)
                        if not m:
                            continue
                        inc = m.group(1)
                        if inc.split("/")[0] in MODULE_FOLDERS and inc not in HOST_INTERFACE:
                            bad.append(f"{os.path.relpath(path, source)}:{number}: {inc}")
    return bad


def main():
    source, dirs = sys.argv[1], sys.argv[2:]
    objects = sorted({p for p in dirs if p.endswith(".o")} |
                     {os.path.join(d, f) for top in dirs if os.path.isdir(top)
                      for d, _, fs in os.walk(top) for f in fs if f.endswith(".o")})
    if not objects:
        print("no object files found")
        return 1
    failed = False
    for cycle in call_cycles(objects):
        failed = True
        print("objects that call each other:", ", ".join(
            re.sub(r".*/halvex/", "", o).replace(".cpp.o", "") for o in cycle))
    for line in foreign_includes(source):
        failed = True
        print("includes the module beyond its host interface:", line)
    print(f"{len(objects)} objects checked")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())

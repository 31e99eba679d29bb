#!/usr/bin/env python3
"""Whole solves through two builds of the module, side by side.

Each problem is solved by the same `halvex` command twice, once with each
shared object (--library), one after the other, and the markdown table shows
status, iterations and solve time of both and the time ratio (new over
old).  Problems whose objectives agree to the last bit and whose iteration
counts agree are marked: a change to one code path (such as the ordering)
most likely did not reach their iterations, though it can still cost time.

  compare_libraries.py --halvex PATH --old LIB --new LIB --data DIR
                       --out PREFIX [--time-limit S] [--repeat R]
                       [--label-old T] [--label-new T] [--threads N] SET/NAME ...

With --repeat R each build solves each problem R times, alternating, and
the least solve time counts: the machine is shared, and the least time is
the one least disturbed.
"""
import argparse
import csv
import json
import math
import os
import subprocess
import tempfile


def solve(halvex, lib, path, limit, threads=None):
    with tempfile.NamedTemporaryFile(suffix=".json", delete=False) as f:
        out = f.name
    cmd = [halvex, "solve", path, "--library", lib, "--tol", "1e-8", "--print-level", "0",
           "--time-limit", str(limit), "--json", out]
    if threads:
        cmd += ["--threads", str(threads)]
    try:
        subprocess.run(cmd, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                       timeout=2 * limit + 30, check=False)
        with open(out) as f:
            return json.load(f)
    except (subprocess.TimeoutExpired, OSError, ValueError):
        return None
    finally:
        if os.path.exists(out):
            os.unlink(out)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--halvex", required=True)
    ap.add_argument("--old", required=True)
    ap.add_argument("--new", required=True)
    ap.add_argument("--data", required=True)
    ap.add_argument("--out", required=True)
    ap.add_argument("--time-limit", type=float, default=60)
    ap.add_argument("--repeat", type=int, default=1)
    ap.add_argument("--label-old", default="old")
    ap.add_argument("--label-new", default="new")
    ap.add_argument("--threads", type=int, default=None,
                    help="threads of the factorisation (default: the command's, the cores)")
    ap.add_argument("problems", nargs="+")
    a = ap.parse_args()

    rows = []
    for item in a.problems:
        folder, name = item.split("/")
        ext = ".mps.gz" if folder == "netlib" else ".qps.gz"
        path = os.path.join(a.data, folder, name + ext)
        old = new = None
        for _ in range(a.repeat):
            o = solve(a.halvex, a.old, path, a.time_limit, a.threads)
            n = solve(a.halvex, a.new, path, a.time_limit, a.threads)
            if o and (old is None or o["times"]["solve"] < old["times"]["solve"]):
                old = o
            if n and (new is None or n["times"]["solve"] < new["times"]["solve"]):
                new = n
        row = {"problem": item}
        for tag, r in (("old", old), ("new", new)):
            row[tag + "_status"] = r["status"] if r else "no result"
            row[tag + "_iter"] = r["iterations"] if r else ""
            row[tag + "_obj"] = r["objective"] if r else ""
            row[tag + "_time"] = r["times"]["solve"] if r else ""
        same = old is not None and new is not None and old["objective"] == new["objective"] \
            and old["iterations"] == new["iterations"]
        row["same_path"] = "yes" if same else "no"
        ok = old and new and old["times"]["solve"] > 0
        row["ratio"] = new["times"]["solve"] / old["times"]["solve"] if ok else ""
        rows.append(row)
        print(item, row["same_path"], row["old_time"], row["new_time"], flush=True)

    keys = list(rows[0].keys())
    with open(a.out + ".csv", "w", newline="") as f:
        w = csv.DictWriter(f, fieldnames=keys)
        w.writeheader()
        w.writerows(rows)
    with open(a.out + ".md", "w") as f:
        f.write("# Whole solves: %s against %s\n\n" % (a.label_new, a.label_old))
        f.write("The same `halvex solve` command with each build's shared object, tolerance "
                "1e-8, time limit %g s, one thread; each build solves each problem %d time(s), "
                "alternating, and the least solve time (wall clock of the entry call) counts. "
                "\"same result\" means both builds ended with the same objective, bit for bit, "
                "and the same iteration count, so the change did not reach that solve. The "
                "machine is shared with other work: ratios near 1 are noise.\n\n"
                % (a.time_limit, a.repeat))
        f.write("| problem | same result | %s status | it | time | %s status | it | time | "
                "time %s/%s |\n" % (a.label_old, a.label_new, a.label_new, a.label_old))
        f.write("|---|---|---|---:|---:|---|---:|---:|---:|\n")
        logs = []
        for r in rows:
            ratio = "%.2f" % r["ratio"] if r["ratio"] != "" else ""
            f.write("| %s | %s | %s | %s | %s | %s | %s | %s | %s |\n" % (
                r["problem"], r["same_path"], r["old_status"], r["old_iter"],
                "%.3f" % r["old_time"] if r["old_time"] != "" else "", r["new_status"],
                r["new_iter"], "%.3f" % r["new_time"] if r["new_time"] != "" else "", ratio))
            if r["same_path"] == "no" and r["ratio"] != "":
                logs.append(math.log(max(r["ratio"], 1e-9)))
        if logs:
            f.write("\nGeometric mean of the time ratio over the %d problems whose result "
                    "changed: %.3f.\n" % (len(logs), math.exp(sum(logs) / len(logs))))


if __name__ == "__main__":
    main()

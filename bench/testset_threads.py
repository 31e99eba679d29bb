#!/usr/bin/env python3
"""Whole solves of the larger shared problems at 1 and 2 factorisation threads.

Each problem is solved by `halvex solve` in a process of its own, side by
side in one run, in four ways:

  t1        --threads 1
  t2        --threads 2
  t2-blas1  --threads 2 with OPENBLAS_NUM_THREADS=1 in the environment
  t2-blas2  --threads 2 with OPENBLAS_NUM_THREADS=2 in the environment

The host sets the BLAS to one thread itself, so the last two must take the
same time within noise. Times are the solve time from halvex's JSON (reading
the file left out); the best of --reps runs counts.

  testset_threads.py --halvex PATH --data DIR --out PREFIX [--reps N]
                     [SET/NAME ...]
"""
import argparse
import json
import os
import subprocess
import sys
import tempfile

DEFAULT = ["maros/CVXQP1_L", "maros/CVXQP2_L", "maros/CONT-300", "maros/BOYD2",
           "maros/CVXQP3_L", "maros/CONT-200", "maros/CONT-101", "maros/UBH1",
           "netlib/dfl001", "netlib/maros-r7", "netlib/80bau3b"]

CONFIGS = [("t1", 1, None), ("t2", 2, None), ("t2-blas1", 2, "1"), ("t2-blas2", 2, "2")]


def find(data, entry):
    folder, name = entry.split("/", 1)
    for f in os.listdir(os.path.join(data, folder)):
        if f.split(".")[0].lower() == name.lower():
            return os.path.join(data, folder, f)
    return None


def solve(exe, path, threads, blas, workdir):
    out = os.path.join(workdir, "r.json")
    if os.path.exists(out):
        os.remove(out)
    env = dict(os.environ)
    env.pop("OPENBLAS_NUM_THREADS", None)
    if blas:
        env["OPENBLAS_NUM_THREADS"] = blas
    cmd = [exe, "solve", path, "--json", out, "--print-level", "0", "--threads", str(threads),
           "--timer", "real"]
    subprocess.run(cmd, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=env,
                   timeout=900)
    if not os.path.exists(out):
        return {"status": "no result", "time": None}
    with open(out) as f:
        j = json.load(f)
    return {"status": j.get("status"), "time": j.get("times", {}).get("solve"),
            "iterations": j.get("iterations")}


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--halvex", required=True)
    ap.add_argument("--data", required=True)
    ap.add_argument("--out", required=True)
    ap.add_argument("--reps", type=int, default=1)
    ap.add_argument("problems", nargs="*")
    a = ap.parse_args()
    rows = []
    with tempfile.TemporaryDirectory() as work:
        for entry in a.problems or DEFAULT:
            path = find(a.data, entry)
            if not path:
                print("missing", entry, file=sys.stderr)
                continue
            row = {"problem": entry}
            for tag, threads, blas in CONFIGS:
                best = None
                for _ in range(a.reps):
                    r = solve(a.halvex, path, threads, blas, work)
                    if r["time"] is not None and (best is None or r["time"] < best["time"]):
                        best = r
                row[tag] = best or {"status": "no result", "time": None}
            rows.append(row)
            print(entry, " ".join("%s %s %.3f" % (t, row[t]["status"], row[t]["time"] or -1)
                                  for t, _, _ in CONFIGS), flush=True)
    with open(a.out + ".csv", "w") as f:
        f.write("problem," + ",".join("%s_status,%s_time" % (t, t) for t, _, _ in CONFIGS) +
                ",speedup,blas_ratio\n")
        for r in rows:
            t1, t2 = r["t1"]["time"], r["t2"]["time"]
            b1, b2 = r["t2-blas1"]["time"], r["t2-blas2"]["time"]
            f.write(r["problem"] + "," + ",".join("%s,%s" % (r[t]["status"], r[t]["time"])
                                                   for t, _, _ in CONFIGS))
            f.write(",%s,%s\n" % ("%.3f" % (t1 / t2) if t1 and t2 else "",
                                  "%.3f" % (b2 / b1) if b1 and b2 else ""))
    with open(a.out + ".md", "w") as f:
        f.write("# Whole solves at 1 and 2 factorisation threads\n\n"
                "`halvex solve --threads N`, solve time from its JSON, best of %d, all "
                "configurations of a problem side by side in one run on a shared, noisy "
                "machine. speedup = t1 / t2; BLAS ratio = time with OPENBLAS_NUM_THREADS=2 / "
                "time with OPENBLAS_NUM_THREADS=1 (the host keeps the BLAS on one thread "
                "either way, so it should be 1 within noise).\n\n" % a.reps)
        f.write("| problem | status | t1 (s) | t2 (s) | speedup | t2, BLAS 1 (s) | "
                "t2, BLAS 2 (s) | BLAS ratio |\n|---|---|---|---|---|---|---|---|\n")
        for r in rows:
            t = {k: r[k]["time"] for k, _, _ in CONFIGS}
            fmt = lambda v: "%.2f" % v if v else "-"
            ratio = lambda x, y: "%.2f" % (x / y) if x and y else "-"
            f.write("| %s | %s | %s | %s | %s | %s | %s | %s |\n" % (
                r["problem"], r["t2"]["status"], fmt(t["t1"]), fmt(t["t2"]),
                ratio(t["t1"], t["t2"]), fmt(t["t2-blas1"]), fmt(t["t2-blas2"]),
                ratio(t["t2-blas2"], t["t2-blas1"])))


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""Runs a test set through halvex and through peer solvers, one after another.

A test set is a directory of MPS/QPS files (plain or .gz) with an optimal.csv
of "name,objective" lines.  Each problem is solved by

  halvex  the `halvex solve` command with --json at its default tolerances;
          a claim that its own check did not verify counts as a failure;
  clp     Clp's barrier through the `clp` command (`clp FILE -barrier`),
          which also reads the QUADOBJ section of a QPS file;
  highs   HiGHS through scipy.optimize.linprog (LPs only),
  highsipm  HiGHS's interior point with its crossover, linprog(method='highs-ipm'),

each in a process of its own under a per-problem time limit, and the results
go to a CSV file and a markdown table: status, relative objective error,
iterations, time, the time ratio of halvex to each peer, and at the bottom
the success counts and shifted geometric means of the times (shift 10 s).

halvex crosses LPs over to a vertex by default, as Clp's barrier and
highs-ipm do; its crossover iterations (push plus simplex) and crossover time
come from its JSON, and the interior solve is the rest of its time.  With
--no-crossover halvex stops at the interior point.

Times are each solver's own solve time: halvex's is the wall clock around
its entry call (from its JSON), Clp's the time it prints for its solve, and
HiGHS's the wall clock around linprog; reading the file is left out
everywhere.  A run that did not succeed counts with the time limit in the
means.

  testset.py --halvex PATH --data DIR --set NAME --out PREFIX [--time-limit S]
             [--solvers halvex,clp,highs,highsipm] [--no-crossover] [NAME ...]
"""
import argparse
import csv
import gzip
import json
import math
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time

SUCCESS_ERR = 1e-6
SHIFT = 10.0


# ---- reading the optimal values and the problems -------------------------------------


def read_optimal(path):
    out = {}
    with open(path) as f:
        for line in f:
            parts = line.strip().split(",")
            if len(parts) < 2 or parts[0].lower() == "name":
                continue
            try:
                out[parts[0].lower()] = float(parts[1])
            except ValueError:
                pass
    return out


def problem_name(file_name):
    return file_name.split(".")[0].lower()


def open_text(path):
    if path.endswith(".gz"):
        return gzip.open(path, "rt", errors="replace")
    return open(path, errors="replace")


INF = float("inf")


class Mps:
    """An LP read from an MPS file; enough of the format for HiGHS."""

    def __init__(self):
        self.rows = {}  # name -> index, objective excluded
        self.row_type = []
        self.obj_row = None
        self.cols = {}
        self.obj = []
        self.entries = []  # (row, col, value)
        self.rhs = {}
        self.ranges = {}
        self.lower = []
        self.upper = []
        self.constant = 0.0
        self.sense = 1
        self.quadratic = False


def _fixed_fields(line):
    fields = [line[1:3], line[4:12], line[14:22], line[24:36], line[39:47], line[49:61]]
    return [f.strip() for f in fields]


def parse_mps(path, fixed=False):
    p = Mps()
    section = None
    integer = False
    with open_text(path) as f:
        for raw in f:
            line = raw.rstrip("\n\r")
            if not line.strip() or line.startswith("*"):
                continue
            if not line[0].isspace():
                words = line.split()
                section = words[0].upper()
                if section == "OBJSENSE" and len(words) > 1:
                    p.sense = -1 if words[1].upper().startswith("MAX") else 1
                if section in ("QUADOBJ", "QSECTION", "QMATRIX"):
                    p.quadratic = True
                if section == "ENDATA":
                    break
                continue
            if fixed and section in ("ROWS", "COLUMNS", "RHS", "RANGES", "BOUNDS"):
                t = _fixed_fields(line)
                if section == "ROWS":
                    tok = [t[0], t[1]]
                elif section == "BOUNDS":
                    tok = [t[0], t[1], t[2]] + ([t[3]] if t[3] else [])
                else:
                    tok = [t[1], t[2], t[3]] + ([t[4], t[5]] if t[4] else [])
            else:
                tok = line.split()
            if section == "OBJSENSE":
                p.sense = -1 if tok[0].upper().startswith("MAX") else 1
            elif section == "ROWS":
                # Names with blanks need the fixed columns.
                if len(tok) != 2:
                    raise ValueError("bad ROWS line: " + line)
                kind, name = tok[0].upper(), tok[1]
                if kind == "N":
                    if p.obj_row is None:
                        p.obj_row = name
                    continue
                if name in p.rows:
                    raise ValueError("row named twice: " + name)
                p.rows[name] = len(p.row_type)
                p.row_type.append(kind)
            elif section == "COLUMNS":
                if len(tok) >= 3 and tok[1].strip("'").upper() == "MARKER":
                    integer = "INTORG" in line.upper()
                    continue
                name = tok[0]
                if name not in p.cols:
                    p.cols[name] = len(p.obj)
                    p.obj.append(0.0)
                    p.lower.append(0.0)
                    p.upper.append(INF)
                j = p.cols[name]
                if len(tok) not in (3, 5):
                    raise ValueError("bad COLUMNS line: " + line)
                for k in range(1, len(tok) - 1, 2):
                    row, value = tok[k], float(tok[k + 1])
                    if row == p.obj_row:
                        p.obj[j] += value
                    elif row in p.rows:
                        p.entries.append((p.rows[row], j, value))
            elif section in ("RHS", "RANGES"):
                body = tok[1:] if len(tok) % 2 == 1 else tok
                if len(body) % 2:
                    raise ValueError("bad %s line: %s" % (section, line))
                for k in range(0, len(body), 2):
                    row, value = body[k], float(body[k + 1])
                    if section == "RHS" and row == p.obj_row:
                        p.constant = -value
                    elif row in p.rows:
                        (p.rhs if section == "RHS" else p.ranges)[p.rows[row]] = value
            elif section == "BOUNDS":
                kind = tok[0].upper()
                if len(tok) == 4 or (len(tok) == 3 and kind in ("FR", "MI", "PL", "BV")):
                    col = tok[2]
                    value = float(tok[3]) if len(tok) == 4 else 0.0
                else:
                    col, value = tok[1], float(tok[2]) if len(tok) > 2 else 0.0
                if col not in p.cols:
                    raise ValueError("bound of an unknown column: " + line)
                j = p.cols[col]
                if kind == "UP":
                    p.upper[j] = value
                    if value < 0 and p.lower[j] == 0.0:
                        p.lower[j] = -INF
                elif kind == "LO":
                    p.lower[j] = value
                elif kind == "FX":
                    p.lower[j] = p.upper[j] = value
                elif kind == "FR":
                    p.lower[j], p.upper[j] = -INF, INF
                elif kind == "MI":
                    p.lower[j] = -INF
                elif kind == "PL":
                    p.upper[j] = INF
                elif kind == "BV":
                    p.lower[j], p.upper[j] = 0.0, 1.0
                elif kind in ("LI", "UI"):
                    if kind == "LI":
                        p.lower[j] = value
                    else:
                        p.upper[j] = value
            elif section in ("QUADOBJ", "QSECTION", "QMATRIX"):
                p.quadratic = True
    del integer
    return p


def read_lp(path):
    try:
        return parse_mps(path)
    except (ValueError, IndexError):
        return parse_mps(path, fixed=True)


def row_bounds(p, i):
    b = p.rhs.get(i, 0.0)
    kind = p.row_type[i]
    lo, hi = {"E": (b, b), "G": (b, INF), "L": (-INF, b)}[kind]
    if i in p.ranges:
        r = p.ranges[i]
        if kind == "E":
            lo, hi = (b, b + abs(r)) if r > 0 else (b - abs(r), b)
        elif kind == "G":
            hi = b + abs(r)
        else:
            lo = b - abs(r)
    return lo, hi


# ---- one HiGHS solve, run in a process of its own ----------------------------------------


def highs_one(path, time_limit, method="highs"):
    p = read_lp(path)
    if p.quadratic:
        return {"status": "not LP"}
    import numpy as np
    from scipy.optimize import linprog
    from scipy.sparse import coo_matrix, vstack

    m, n = len(p.row_type), len(p.obj)
    rows = [e[0] for e in p.entries]
    cols = [e[1] for e in p.entries]
    vals = [e[2] for e in p.entries]
    A = coo_matrix((vals, (rows, cols)), shape=(m, n)).tocsr()
    eq, up, low, b_eq, b_up, b_low = [], [], [], [], [], []
    for i in range(m):
        lo, hi = row_bounds(p, i)
        if lo == hi:
            eq.append(i)
            b_eq.append(lo)
            continue
        if hi < INF:
            up.append(i)
            b_up.append(hi)
        if lo > -INF:
            low.append(i)
            b_low.append(-lo)
    parts = []
    if up:
        parts.append(A[up])
    if low:
        parts.append(-A[low])
    A_ub = vstack(parts).tocsr() if parts else None
    A_eq = A[eq] if eq else None
    c = np.array(p.obj) * p.sense
    bounds = [(None if lo == -INF else lo, None if hi == INF else hi)
              for lo, hi in zip(p.lower, p.upper)]
    t0 = time.perf_counter()
    res = linprog(c, A_ub=A_ub, b_ub=np.array(b_up + b_low) if parts else None, A_eq=A_eq,
                  b_eq=np.array(b_eq) if eq else None, bounds=bounds, method=method,
                  options={"time_limit": float(time_limit), "presolve": True})
    seconds = time.perf_counter() - t0
    names = {0: "optimal", 1: "iteration limit", 2: "infeasible", 3: "unbounded", 4: "failure"}
    status = names.get(res.status, "failure")
    if res.status == 1 and "time" in (res.message or "").lower():
        status = "time limit"
    obj = None
    if res.status == 0 and res.fun is not None:
        obj = p.sense * float(res.fun) + p.constant
    out = {"status": status, "objective": obj, "iterations": int(getattr(res, "nit", 0) or 0),
           "time": seconds}
    if method == "highs-ipm":
        out["crossover_iterations"] = int(getattr(res, "crossover_nit", 0) or 0)
    return out


# ---- the solvers -------------------------------------------------------------------------


def run_halvex(exe, path, time_limit, workdir, crossover=True, threads=None):
    out = os.path.join(workdir, "halvex.json")
    if os.path.exists(out):
        os.remove(out)
    cmd = [exe, "solve", path, "--json", out, "--print-level", "0",
           "--time-limit", str(time_limit), "--timer", "real",
           "--crossover", "on" if crossover else "off"]
    if threads:
        cmd += ["--threads", str(threads)]
    t0 = time.perf_counter()
    try:
        subprocess.run(cmd, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                       timeout=time_limit + 60)
    except subprocess.TimeoutExpired:
        return {"status": "killed", "time": time.perf_counter() - t0}
    if not os.path.exists(out):
        return {"status": "no result", "time": time.perf_counter() - t0}
    with open(out) as f:
        j = json.load(f)
    out = {"status": j.get("status"), "objective": j.get("objective"),
           "iterations": j.get("iterations"), "time": j.get("times", {}).get("solve"),
           "entry": j.get("entry")}
    check = j.get("check")
    if check and not check.get("verified"):
        out["status"] = "%s, not verified (%s)" % (out["status"], check.get("failure"))
    c = j.get("crossover")
    if c:
        out["crossover_iterations"] = c.get("pushIterations", 0) + c.get("simplexIterations", 0)
        out["crossover_time"] = c.get("time")
    return out


CLP_FINAL = re.compile(r"^(Optimal|Primal infeasible|Dual infeasible|Stopped on time|"
                       r"Stopped on iterations|Stopped|Problem is infeasible)[^\n]*?"
                       r"objective\s+([-+0-9.eE]+)\s*-\s*(\d+)\s+iterations\s+time\s+([0-9.]+)",
                       re.M)


def run_clp(path, time_limit, workdir):
    # Clp is handed a plain file; a compressed one is unpacked first.
    plain = path
    if path.endswith(".gz"):
        plain = os.path.join(workdir, os.path.basename(path)[:-3])
        with gzip.open(path, "rb") as src, open(plain, "wb") as dst:
            shutil.copyfileobj(src, dst)
    cmd = ["clp", plain, "-sec", str(time_limit), "-barrier"]
    t0 = time.perf_counter()
    try:
        r = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                           timeout=time_limit + 60, errors="replace")
        text = r.stdout
    except subprocess.TimeoutExpired:
        return {"status": "killed", "time": time.perf_counter() - t0}
    finally:
        if plain != path and os.path.exists(plain):
            os.remove(plain)
    wall = time.perf_counter() - t0
    if "errors when importing" in text or "Current model not valid" in text:
        return {"status": "unreadable", "time": wall}
    m = CLP_FINAL.search(text)
    if not m:
        if "infeasible" in text.lower():
            return {"status": "infeasible", "time": wall}
        return {"status": "failure", "time": wall}
    word = m.group(1).lower()
    status = {"optimal": "optimal", "stopped on time": "time limit",
              "stopped on iterations": "iteration limit"}.get(word, word)
    return {"status": status, "objective": float(m.group(2)),
            "iterations": int(m.group(3)), "time": float(m.group(4))}


def run_highs(path, time_limit, method="highs"):
    cmd = [sys.executable, os.path.abspath(__file__), "--highs-one", path, str(time_limit),
           method]
    t0 = time.perf_counter()
    try:
        r = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                           timeout=time_limit + 120)
    except subprocess.TimeoutExpired:
        return {"status": "killed", "time": time.perf_counter() - t0}
    try:
        return json.loads(r.stdout.strip().splitlines()[-1])
    except (ValueError, IndexError):
        return {"status": "failure", "time": time.perf_counter() - t0}


# ---- the tables --------------------------------------------------------------------------


def rel_err(obj, ref):
    if obj is None or ref is None:
        return None
    return abs(obj - ref) / max(1.0, abs(ref))


def succeeded(r):
    return r.get("status") in ("optimal", "acceptable") and r.get("err") is not None and \
        r["err"] <= SUCCESS_ERR


def shifted_geomean(times):
    if not times:
        return None
    return math.exp(sum(math.log(t + SHIFT) for t in times) / len(times)) - SHIFT


def fmt(v, spec):
    if v is None:
        return ""
    return format(v, spec)


def write_tables(results, solvers, out_prefix, title, time_limit, threads=None):
    peers = [s for s in solvers if s != "halvex"]
    header = ["problem", "reference"]
    for s in solvers:
        header += [s + "_status", s + "_obj_err", s + "_iterations", s + "_time"]
        if s in CROSSOVER_COLUMNS:
            header += [s + "_crossover_iterations"] + (
                [s + "_crossover_time"] if s == "halvex" else [])
    if "halvex" in solvers:
        header += ["ratio_" + p for p in peers]
    with open(out_prefix + ".csv", "w", newline="") as f:
        w = csv.writer(f)
        w.writerow(header)
        for name, ref, res in results:
            row = [name, repr(ref) if ref is not None else ""]
            for s in solvers:
                r = res.get(s, {})
                row += [r.get("status", ""), fmt(r.get("err"), ".3e"),
                        r.get("iterations", "") if r.get("iterations") is not None else "",
                        fmt(r.get("time"), ".4f")]
                if s in CROSSOVER_COLUMNS:
                    row.append(r.get("crossover_iterations", ""))
                    if s == "halvex":
                        row.append(fmt(r.get("crossover_time"), ".4f"))
            if "halvex" in solvers:
                for p in peers:
                    row.append(fmt(ratio(res.get("halvex", {}), res.get(p, {})), ".3f"))
            w.writerow(row)

    lines = ["# " + title, "",
             "halvex: the `halvex` command with `--json` at its default tolerances (primal, "
             "dual and gap 1e-8); a claim that the command's own check did not verify "
             "counts as a failure. Clp: `clp FILE -sec LIMIT -barrier` (barrier, then Clp's own crossover). "
             "HiGHS: scipy.optimize.linprog(method='highs'), LPs only; highsipm: "
             "linprog(method='highs-ipm'), HiGHS's interior point and its crossover. "
             "halvex crosses LPs over unless the run says --no-crossover; its 'x it' and "
             "'x time' are the crossover's iterations (push plus simplex) and seconds, "
             "inside its total time. "
             "Time limit %g s per problem and solver; one solver after another on the same "
             "2-core machine, shared with other work. Times are each solver's own solve "
             "time in seconds (file reading left out). Success: status optimal (or "
             "acceptable) and relative objective error at most 1e-6. The ratio is halvex's "
             "time over the peer's (below 1: halvex faster)." % time_limit
             + (" halvex ran with --threads %d." % threads if threads else ""), ""]
    cols = ["problem"]
    for s in solvers:
        cols += [s + " status", s + " err", s + " it", s + " time"]
        if s in CROSSOVER_COLUMNS:
            cols += [s + " x it"] + ([s + " x time"] if s == "halvex" else [])
    if "halvex" in solvers:
        cols += ["ratio " + p for p in peers]
    lines.append("| " + " | ".join(cols) + " |")
    lines.append("|" + "---|" * len(cols))
    for name, ref, res in results:
        cells = [name]
        for s in solvers:
            r = res.get(s, {})
            cells += [str(r.get("status", "")), fmt(r.get("err"), ".1e"),
                      str(r.get("iterations", "")) if r.get("iterations") is not None else "",
                      fmt(r.get("time"), ".3f")]
            if s in CROSSOVER_COLUMNS:
                cells.append(str(r.get("crossover_iterations", "")))
                if s == "halvex":
                    cells.append(fmt(r.get("crossover_time"), ".3f"))
        if "halvex" in solvers:
            for p in peers:
                cells.append(fmt(ratio(res.get("halvex", {}), res.get(p, {})), ".2f"))
        lines.append("| " + " | ".join(cells) + " |")
    lines.append("")
    lines.append("| solver | solved | of | shifted geometric mean of time (s, shift 10) |")
    lines.append("|---|---|---|---|")
    for s in solvers:
        attempted = [res[s] for _, _, res in results if s in res and res[s].get("status")
                     not in ("not LP",)]
        ok = sum(1 for r in attempted if succeeded(r))
        times = [r["time"] if succeeded(r) and r.get("time") is not None else time_limit
                 for r in attempted]
        lines.append("| %s | %d | %d | %s |" % (s, ok, len(attempted),
                                                fmt(shifted_geomean(times), ".3f")))
    if "halvex" in solvers:
        for p in peers:
            both = [(res["halvex"]["time"], res[p]["time"]) for _, _, res in results
                    if p in res and succeeded(res.get("halvex", {})) and succeeded(res[p])]
            if both:
                h = shifted_geomean([a for a, _ in both])
                q = shifted_geomean([b for _, b in both])
                lines.append("")
                lines.append("On the %d problems that both halvex and %s solved: shifted "
                             "geometric means %.3f s and %.3f s, ratio %.2f." %
                             (len(both), p, h, q, h / q if q > 0 else float("nan")))
    # The crossover against the interior solve that it follows.
    shares = sorted(r["crossover_time"] / max(r["time"] - r["crossover_time"], 1e-6)
                    for _, _, res in results for r in [res.get("halvex", {})]
                    if succeeded(r) and r.get("crossover_time") is not None)
    if shares:
        mid = shares[len(shares) // 2] if len(shares) % 2 else \
            0.5 * (shares[len(shares) // 2 - 1] + shares[len(shares) // 2])
        lines.append("")
        lines.append("halvex's crossover time over its interior solve time (the rest of its "
                     "time), on the %d problems it solved: median %.2f, largest %.2f." %
                     (len(shares), mid, shares[-1]))
    with open(out_prefix + ".md", "w") as f:
        f.write("\n".join(lines) + "\n")
    return lines


CROSSOVER_COLUMNS = ("halvex", "highsipm")


def ratio(h, p):
    if h.get("time") is None or p.get("time") is None:
        return None
    if not succeeded(h) or not succeeded(p):
        return None
    return (h["time"] + 1e-3) / (p["time"] + 1e-3)


def main():
    if len(sys.argv) >= 2 and sys.argv[1] == "--highs-one":
        method = sys.argv[4] if len(sys.argv) > 4 else "highs"
        print(json.dumps(highs_one(sys.argv[2], float(sys.argv[3]), method)))
        return 0
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--halvex", required=True)
    ap.add_argument("--data", required=True)
    ap.add_argument("--set", required=True)
    ap.add_argument("--out", required=True, help="output prefix: PREFIX.csv and PREFIX.md")
    ap.add_argument("--time-limit", type=float, default=300.0)
    ap.add_argument("--solvers", default="halvex,clp,highs")
    ap.add_argument("--no-crossover", action="store_true",
                    help="halvex stops at the interior point")
    ap.add_argument("--threads", type=int, default=None,
                    help="threads of halvex's factorisation (default: the command's, the cores)")
    ap.add_argument("names", nargs="*")
    a = ap.parse_args()
    solvers = [s for s in a.solvers.split(",") if s]
    folder = os.path.join(a.data, a.set)
    optimal = read_optimal(os.path.join(folder, "optimal.csv"))
    files = sorted(f for f in os.listdir(folder) if ".mps" in f.lower() or ".qps" in f.lower())
    wanted = {n.lower() for n in a.names}
    if wanted:
        files = [f for f in files if problem_name(f) in wanted]
    results = []
    with tempfile.TemporaryDirectory() as work:
        for f in files:
            name = problem_name(f)
            path = os.path.join(folder, f)
            ref = optimal.get(name)
            res = {}
            for s in solvers:
                if s == "halvex":
                    r = run_halvex(a.halvex, path, a.time_limit, work, not a.no_crossover,
                                  a.threads)
                elif s == "clp":
                    r = run_clp(path, a.time_limit, work)
                elif s == "highs":
                    r = run_highs(path, a.time_limit)
                elif s == "highsipm":
                    r = run_highs(path, a.time_limit, "highs-ipm")
                else:
                    continue
                r["err"] = rel_err(r.get("objective"), ref)
                res[s] = r
            results.append((name, ref, res))
            print("%-12s " % name + "  ".join(
                "%s %s %s %s" % (s, res[s].get("status"), fmt(res[s].get("err"), ".1e"),
                                 fmt(res[s].get("time"), ".3f")) for s in solvers), flush=True)
            write_tables(results, solvers, a.out,
                         "Test set %s: halvex against its peers" % a.set, a.time_limit,
                         a.threads)
    return 0


if __name__ == "__main__":
    sys.exit(main())

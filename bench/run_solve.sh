#!/bin/sh
# Solve benchmark: triangular and refined solves of the factorisation
# library on the augmented matrices of shared problems, with this tree's
# library and, for the before/after columns, with the library of an earlier
# commit.  Writes bench/results/solve.csv and bench/results/solve.md.
#
#   bench/run_solve.sh [BASE_REF] [SET/NAME ...]
#
# Each version is built with its own default build type (what a plain
# configure gives, as the README builds it).  BASE_REF's sources are
# exported outside the repository ($BASE_DIR, default ../solvespeed-base
# beside it) and get this tree's benchmark source.  Times are thread CPU
# times from a native run; instructions come from valgrind's callgrind, one
# run per section (--count tri, --count refined), totals over the whole
# interior-point run divided by the solves.  One BLAS thread throughout.
# With HALVEX_BENCH_ORDERING=M both versions order alike and the tables go
# to results/solve_orderingM.{csv,md}.
#
# Callgrind runs the whole iteration, so the counted runs take long on big
# problems: COUNT_NAMES (default: the same problems) names the problems that
# get instruction counts.  MERGE_ONLY=DIR only writes the tables from the
# results kept in DIR (DIR/before and DIR/after as this script leaves them
# with KEEP=DIR).  With KEEP=DIR holding an earlier run's DIR/before and no
# BASE_REF, only this tree runs; BASE_LABEL then names the kept version in
# the tables.
set -e
here="$(cd "$(dirname "$0")" && pwd)"
repo="$(dirname "$here")"
data="${HALVEX_DATA:-$repo/../shared/data}"
build="${BUILD:-$repo/build-bench-solve}"
base_ref="${1:-}"
[ $# -gt 0 ] && shift
base_dir="${BASE_DIR:-$repo/../solvespeed-base}"
export OPENBLAS_NUM_THREADS=1 OMP_NUM_THREADS=1

if ! command -v valgrind >/dev/null 2>&1 || [ ! -f /usr/include/valgrind/callgrind.h ]; then
  apt-get -o DPkg::Lock::Timeout=600 install -y valgrind
fi

configure_and_build() {  # SOURCE BUILD
  cmake -S "$1" -B "$2" -DHALVEX_BENCH=ON -DHALVEX_TESTS=OFF >/dev/null
  cmake --build "$2" -j2 --target bench_solve >/dev/null
}

run_version() {  # LABEL BUILD
  out="$work/$1"
  mkdir -p "$out"
  "$2/bench/bench_solve" "$data" "$out/native.csv" $names >/dev/null
  for section in tri refined; do
    valgrind --tool=callgrind --instr-atstart=no \
      --callgrind-out-file="$out/$section.%p.out" \
      "$2/bench/bench_solve" --count "$section" "$data" "$out/$section.csv" $count_names \
      >/dev/null 2>"$out/$section.log"
  done
}

names="$*"
count_names="${COUNT_NAMES:-$names}"
if [ -n "${MERGE_ONLY:-}" ]; then
  work="$MERGE_ONLY"
elif [ -n "${KEEP:-}" ]; then
  work="$KEEP"
  mkdir -p "$work"
else
  work="$(mktemp -d)"
  trap 'rm -rf "$work"' EXIT
fi

versions="after=$build"
[ -n "${MERGE_ONLY:-}" ] || configure_and_build "$repo" "$build"
if [ -n "$base_ref" ] && [ -z "${MERGE_ONLY:-}" ]; then
  rm -rf "$base_dir/src"
  mkdir -p "$base_dir/src"
  git -C "$repo" archive "$base_ref" | tar -x -C "$base_dir/src"
  cp "$here/solve.cpp" "$here/CMakeLists.txt" "$base_dir/src/bench/"
  configure_and_build "$base_dir/src" "$base_dir/src/build"
  versions="before=$base_dir/src/build $versions"
fi
if [ -z "${MERGE_ONLY:-}" ]; then
  for v in $versions; do
    run_version "${v%%=*}" "${v#*=}"
  done
fi

mkdir -p "$here/results"
machine="$(grep -m1 'model name' /proc/cpuinfo | sed 's/.*: //'), $(getconf _NPROCESSORS_ONLN) cores"
ordering="${HALVEX_BENCH_ORDERING:-}"
prefix="$here/results/solve${ordering:+_ordering$ordering}"
python3 - "$work" "$prefix" "$machine" "${base_ref:-${BASE_LABEL:-}}" "$ordering" <<'PY'
import csv, glob, math, os, re, sys, time
work, prefix, machine, base_ref, ordering = sys.argv[1:6]

def instructions(directory, section):
    """Totals of the per-problem dumps of one callgrind run, by problem."""
    out = {}
    for path in glob.glob(os.path.join(directory, section + ".*.out.*")):
        name = total = None
        with open(path) as f:
            for line in f:
                m = re.match(r"desc: Trigger: Client Request: (\S+)", line)
                if m:
                    name = m.group(1)
                m = re.match(r"(?:totals|summary): (\d+)", line)
                if m:
                    total = max(total or 0, int(m.group(1)))
        if name:
            out[name] = total or 0
    return out

def per_solve(directory, section):
    """Instructions per solve of one counted run: its totals over its own
    solves (the run under valgrind takes the path that its own arithmetic
    gives, which may differ from the native run's by an iteration)."""
    totals, out = instructions(directory, section), {}
    path = os.path.join(directory, section + ".csv")
    if os.path.exists(path):
        for r in csv.DictReader(open(path)):
            if r["problem"] in totals and int(r["solves"]) > 0:
                out[r["problem"]] = totals[r["problem"]] / int(r["solves"])
    return out

versions = [v for v in ("before", "after") if os.path.isdir(os.path.join(work, v))]
rows = {}
for v in versions:
    d = os.path.join(work, v)
    tri, ref = per_solve(d, "tri"), per_solve(d, "refined")
    for r in csv.DictReader(open(os.path.join(d, "native.csv"))):
        e = rows.setdefault(r["problem"], {"n": r["n"], "factor": r["factor_entries"]})
        e[v] = {
            "iterations": r["iterations"], "solves": r["solves"],
            "steps": float(r["fgmres_steps_per_solve"]),
            "tri_s": float(r["tri_seconds_per_solve"]),
            "ref_s": float(r["refined_seconds_per_solve"]),
            "tri_i": tri.get(r["problem"]),
            "ref_i": ref.get(r["problem"]),
        }

fields = ["iterations", "solves", "steps", "tri_i", "tri_s", "ref_i", "ref_s"]
with open(prefix + ".csv", "w", newline="") as f:
    w = csv.writer(f)
    w.writerow(["problem", "n", "factor_entries"] +
               ["%s_%s" % (v, k) for v in versions for k in fields])
    for p, e in rows.items():
        w.writerow([p, e["n"], e["factor"]] +
                   ["" if e.get(v, {}).get(k) is None else e[v][k]
                    for v in versions for k in fields])

def num(v, fmt="%.3g"):
    return fmt % v if v is not None else "-"

def ratio(e, key):
    b, a = e.get("before", {}).get(key), e.get("after", {}).get(key)
    return "%.2f" % (b / a) if b and a else ""

with open(prefix + ".md", "w") as f:
    f.write("# Solve benchmark\n\n")
    f.write("Machine: %s. %s. One BLAS thread; halvex on one thread.\n\n" %
            (machine, time.strftime("%Y-%m-%d")))
    f.write("Each problem is solved through the QP entry (tolerances 1e-8); every solve "
            "call of the iteration is measured on the factor it has just made. "
            "*tri*: one extra triangular solve of the call's right-hand side; "
            "*refined*: the call itself (triangular solve and refinement). "
            "Instructions: callgrind totals over the run divided by the solves. "
            "Times: thread CPU time per solve, native run on a shared machine (noisy). "
            "*steps*: triangular solves that FGMRES makes per solve call.\n\n")
    if ordering:
        f.write("Every analysis of both versions used ordering method %s "
                "(HALVEX_BENCH_ORDERING) in place of the automatic choice, so that both "
                "solve on the same factors.\n\n" % ordering)
    if "before" in versions:
        f.write("before: commit %s, its default build; after: this tree, its default "
                "build. x = before / after.\n\n" % base_ref)
        f.write("| problem | n | factor | steps before / after | tri instr before | after "
                "| x | refined instr before | after | x | tri s before / after "
                "| refined s before / after |\n|" + "---|" * 12 + "\n")
        for p, e in rows.items():
            b, a = e.get("before", {}), e.get("after", {})
            f.write("| %s | %s | %s | %.2f / %.2f | %s | %s | %s | %s | %s | %s "
                    "| %.2e / %.2e | %.2e / %.2e |\n" % (
                        p, e["n"], e["factor"], b.get("steps", 0), a.get("steps", 0),
                        num(b.get("tri_i")), num(a.get("tri_i")), ratio(e, "tri_i"),
                        num(b.get("ref_i")), num(a.get("ref_i")), ratio(e, "ref_i"),
                        b.get("tri_s", 0), a.get("tri_s", 0), b.get("ref_s", 0),
                        a.get("ref_s", 0)))
        for key, what in (("tri_i", "triangular solve"), ("ref_i", "refined solve")):
            rs = [e["before"][key] / e["after"][key] for e in rows.values()
                  if e.get("before", {}).get(key) and e.get("after", {}).get(key)]
            if rs:
                g = math.exp(sum(math.log(r) for r in rs) / len(rs))
                f.write("\nInstructions per %s, before / after: geometric mean %.2f, "
                        "range %.2f to %.2f, over %d problems." % (what, g, min(rs), max(rs),
                                                                  len(rs)))
        if any(e.get("after", {}).get("tri_i") is None for e in rows.values()):
            f.write("\nA - marks a problem left out of the counted runs (COUNT_NAMES).")
        f.write("\n")
    else:
        f.write("| problem | n | factor | steps | tri instr | refined instr | tri s "
                "| refined s |\n|" + "---|" * 8 + "\n")
        for p, e in rows.items():
            a = e["after"]
            f.write("| %s | %s | %s | %.2f | %s | %s | %.2e | %.2e |\n" % (
                p, e["n"], e["factor"], a["steps"], num(a["tri_i"]), num(a["ref_i"]),
                a["tri_s"], a["ref_s"]))
PY
echo "wrote $prefix.csv and $prefix.md"

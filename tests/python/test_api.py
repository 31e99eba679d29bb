import json
import logging
import os
import signal
import struct
import subprocess
import threading

import numpy as np
import pytest
import scipy.sparse as sp
from scipy.optimize import linprog as scipy_linprog

import halvex
from conftest import LP_QUICK, QP_QUICK, data_file

QUIET = {"print_level": 0}


def relative_error(a, b):
    return abs(a - b) / max(1.0, abs(b))


def check_reduced_costs(p, r, tol):
    """z is c + Px - A'y with the signs of the bounds the point sits at."""
    z, x = r.z, r.x
    scale = tol * (1 + np.abs(p.c) + np.abs(p.P @ x))
    np.testing.assert_allclose(z, p.c + p.P @ x - p.A.T @ r.y, atol=1e-9 * scale.max())
    with np.errstate(invalid="ignore"):
        inside = (x > p.lb + 1e-4 * (1 + np.abs(p.lb))) & (x < p.ub - 1e-4 * (1 + np.abs(p.ub)))
    assert np.all(np.abs(z[inside]) <= 100 * scale[inside])
    assert np.all(z[np.isinf(p.lb)] <= 100 * scale[np.isinf(p.lb)])
    assert np.all(z[np.isinf(p.ub)] >= -100 * scale[np.isinf(p.ub)])


@pytest.mark.parametrize("folder,name",
                         [("netlib", n) for n in LP_QUICK] + [("maros", n) for n in QP_QUICK])
def test_quick_sets_reach_the_published_optima(folder, name, optima):
    path = data_file(folder, name)
    r = halvex.solve(path, tol=1e-8, **QUIET)
    # An LP ends at a vertex after the crossover, which must find the optimum.
    assert r.status in (("optimal",) if folder == "netlib" else ("optimal", "acceptable"))
    assert relative_error(r.objective, optima[folder][name]) <= 1e-6
    assert r.info["check"]["verified"]
    assert (r.basis is not None) == (folder == "netlib")
    p = halvex.read(path)
    assert r.x.shape == (p.num_col,) and r.y.shape == r.row_activity.shape == (p.num_row,)
    np.testing.assert_allclose(p.A @ r.x, r.row_activity, atol=1e-7 * (1 + np.abs(r.x).max()))
    check_reduced_costs(p, r, 1e-6)
    if r.basis is not None:
        cols, rows = r.basis
        assert len(cols) == p.num_col and len(rows) == p.num_row
        assert cols.count("BS") + rows.count("BS") == p.num_row
    h = r.history
    assert all(len(h[k]) == len(h["iteration"]) for k in h)
    assert h["iteration"][-1] == r.iterations and np.all(np.diff(h["iteration"]) > 0)


@pytest.mark.parametrize("folder,name", [("netlib", "afiro"), ("maros", "qafiro"),
                                         ("maros", "hs118")])
def test_a_problem_read_solves_as_its_file(folder, name):
    path = data_file(folder, name)
    from_file = halvex.solve(path, **QUIET)
    from_arrays = halvex.solve(halvex.read(path), **QUIET)
    assert from_arrays.status == from_file.status
    assert from_arrays.objective == pytest.approx(from_file.objective, rel=1e-9)
    np.testing.assert_allclose(from_arrays.x, from_file.x, atol=1e-9)


# min 1/2 x'Px + q'x, x1 + x2 = 1, 0 <= x <= 0.7: x = (0.3, 0.7), 1.88.
P2 = np.array([[4.0, 1.0], [1.0, 2.0]])
Q2 = np.array([1.0, 1.0])
A2 = np.array([[1.0, 1.0], [1.0, 0.0], [0.0, 1.0]])
L2, U2 = np.array([1.0, 0.0, 0.0]), np.array([1.0, 0.7, 0.7])


@pytest.mark.parametrize("P,A,bounds", [
    (P2, A2, {}),
    (sp.csc_matrix(P2), sp.csr_matrix(A2), {}),
    (np.triu(P2), A2, {}),
    (sp.tril(P2), sp.coo_matrix(A2), {}),
    (P2, A2[:1], {"lb": [0, 0], "ub": [0.7, 0.7]}),
])
def test_solve_qp_takes_dense_and_sparse_inputs_and_either_triangle(P, A, bounds):
    m = A.shape[0]
    r = halvex.solve_qp(P, Q2, A, L2[:m], U2[:m], **bounds, **QUIET)
    assert r.status == "optimal"
    np.testing.assert_allclose(r.x, [0.3, 0.7], atol=1e-6)
    assert r.objective == pytest.approx(1.88, rel=1e-7)
    np.testing.assert_allclose(r.z, P2 @ r.x + Q2 - A.T @ r.y if not sp.issparse(A)
                               else P2 @ r.x + Q2 - A.T @ r.y, atol=1e-9)


@pytest.mark.parametrize("change,message", [
    ({"A": np.ones((3, 3))}, r"A has shape \(3, 3\)"),
    ({"l": [1.0, 0.0]}, "l has shape"),
    ({"q": [np.nan, 1.0]}, "q contains NaN"),
    ({"A": np.array([[np.nan, 1], [1, 0], [0, 1]])}, "A contains NaN"),
    ({"P": np.array([[4.0, 1.0], [0.5, 2.0]])}, "P is not symmetric"),
    ({"P": np.eye(3)}, r"P has shape \(3, 3\)"),
    ({"l": [2.0, 0.0, 0.0]}, r"l\[0\] > u\[0\]"),
    ({"lb": [0.0, np.inf]}, r"lb\[1\] is inf"),
    ({"P": np.array([[4.0, 1.0], [1.0, -2.0]])}, r"P is not convex: P\[1, 1\] < 0"),
    ({"primal_tolerance": 1e-8}, "unknown option 'primal_tolerance'"),
    ({"max_iter": -3}, "max_iter needs a whole number"),
    ({"crossover": "maybe"}, "crossover is on or off"),
    ({"json": "out.json"}, "json writes a file"),
])
def test_bad_input_raises_value_error_naming_it(change, message):
    args = {"P": P2, "q": Q2, "A": A2, "l": L2, "u": U2}
    args.update(change)
    with pytest.raises(ValueError, match=message):
        halvex.solve_qp(**args)


def test_bad_files_raise_value_error_with_the_line(tmp_path):
    bad = tmp_path / "bad.mps"
    bad.write_text("NAME BAD\nROWS\n N obj\n L r1\nCOLUMNS\n x r9 1\nENDATA\n")
    with pytest.raises(ValueError, match="bad.mps:6"):
        halvex.solve(str(bad))
    with pytest.raises(ValueError, match="format"):
        halvex.read(str(bad), format="odd")


def random_lp(seed):
    rng = np.random.default_rng(seed)
    n, m_ub, m_eq = 10, 6, 3
    x0 = rng.uniform(0.1, 0.9, n)
    A_ub, A_eq = rng.normal(size=(m_ub, n)), rng.normal(size=(m_eq, n))
    bounds = None if seed == 0 else [(0, 1) if j % 3 else (None, 2) for j in range(n)]
    return dict(c=rng.normal(size=n) + (2.0 if seed == 0 else 0.0), A_ub=A_ub,
                b_ub=A_ub @ x0 + rng.uniform(0.1, 1, m_ub), A_eq=A_eq, b_eq=A_eq @ x0,
                bounds=bounds)


@pytest.mark.parametrize("problem", [random_lp(0), random_lp(1), random_lp(2),
                                     dict(c=[1.0, 1.0], A_eq=[[1.0, 1.0]], b_eq=[-1.0]),
                                     dict(c=[-1.0, 0.0], A_ub=[[0.0, 1.0]], b_ub=[1.0])])
def test_linprog_answers_as_scipy_does(problem):
    ours = halvex.linprog(**problem, options={"presolve": False})
    theirs = scipy_linprog(**problem, method="highs")
    assert ours.status == theirs.status
    assert ours.success == theirs.success
    if theirs.status != 0:
        return
    assert ours.fun == pytest.approx(theirs.fun, rel=1e-7, abs=1e-9)
    np.testing.assert_allclose(ours.x, theirs.x, atol=1e-6)
    for part in ("ineqlin", "eqlin", "lower", "upper"):
        np.testing.assert_allclose(ours[part].marginals, theirs[part].marginals, atol=1e-6)
    np.testing.assert_allclose(ours.slack, theirs.slack, atol=1e-6)


def test_four_threads_solve_at_once_as_one_does():
    paths = [data_file("netlib", n) for n in LP_QUICK[:4]] + \
            [data_file("maros", n) for n in QP_QUICK[:4]]
    serial = [halvex.solve(p, threads=1, **QUIET) for p in paths]
    results, logs = [None] * len(paths), [[] for _ in paths]

    def work(first):
        for k in range(first, len(paths), 4):
            results[k] = halvex.solve(paths[k], threads=1, log=logs[k].append)

    workers = [threading.Thread(target=work, args=(t,)) for t in range(4)]
    for w in workers:
        w.start()
    for w in workers:
        w.join()
    for s, r, lines in zip(serial, results, logs):
        assert (r.status, r.objective, r.iterations) == (s.status, s.objective, s.iterations)
        np.testing.assert_array_equal(r.x, s.x)
        # Each solve's log went to its own call-back, whole.
        table = [int(l.split()[0]) for l in lines if l.split() and l.split()[0].isdigit()]
        assert table == list(r.history["iteration"])


def test_the_log_goes_to_the_call_back_or_to_logging(caplog):
    path = data_file("netlib", "afiro")
    lines = []
    r = halvex.solve(path, log=lines.append, print_freq=3)
    shown = [int(l.split()[0]) for l in lines if l.split() and l.split()[0].isdigit()]
    # Every third iteration, and the last one always.
    every = list(r.history["iteration"])
    assert shown == [i for i in every if i % 3 == 0] + ([every[-1]] if every[-1] % 3 else [])
    lines.clear()
    halvex.solve(path, log=lines.append, print_level=0)
    assert lines == []
    with caplog.at_level(logging.INFO, logger="halvex"):
        halvex.solve(path)
    assert any("Optimal solution found" in rec.getMessage() for rec in caplog.records)


def test_interrupts_and_raising_call_backs_stop_the_solve():
    path = data_file("netlib", "afiro")

    def interrupt(line):
        if line.split()[:1] == ["2"]:
            signal.raise_signal(signal.SIGINT)
    with pytest.raises(KeyboardInterrupt):
        halvex.solve(path, log=interrupt)
    with pytest.raises(ZeroDivisionError):
        halvex.solve(path, log=lambda line: 1 / 0)
    assert halvex.solve(path, **QUIET).status == "optimal"


def png_size(path):
    with open(path, "rb") as f:
        head = f.read(24)
    assert head[:8] == b"\x89PNG\r\n\x1a\n" and head[12:16] == b"IHDR"
    return struct.unpack(">II", head[16:24])


def test_the_json_history_and_its_picture(tmp_path):
    command, path = os.environ["HALVEX_COMMAND"], data_file("netlib", "afiro")
    record_path, png = tmp_path / "afiro.json", tmp_path / "afiro.png"
    subprocess.run([command, "solve", path, "--json", str(record_path), "--print-level", "0"],
                   check=True)
    record = json.loads(record_path.read_text())
    assert record["history"]["iteration"] == list(range(record["iterations"] + 1))
    r = halvex.solve(path, **QUIET)
    # The command and the package log the same iterations.
    for column, values in r.history.items():
        np.testing.assert_allclose(record["history"][column], values, rtol=1e-6, atol=1e-300)
    subprocess.run([command, "plot", str(record_path), "-o", str(png)], check=True)
    assert png_size(png) == (640, 400)
    assert png_size(halvex.plot_convergence(r, str(tmp_path / "result.png"))) == (640, 400)
    (tmp_path / "empty.json").write_text("{}")
    failed = subprocess.run([command, "plot", str(tmp_path / "empty.json"), "-o", str(png)],
                            capture_output=True, text=True)
    assert failed.returncode == 2 and "no iteration history" in failed.stderr

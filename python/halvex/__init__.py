"""halvex: an interior-point solver for linear and convex quadratic programs.

    import halvex
    result = halvex.solve("afiro.mps.gz", primal_tol=1e-8)
    result = halvex.solve_qp(P, q, A, l, u, lb, ub)
    result = halvex.linprog(c, A_ub, b_ub, A_eq, b_eq, bounds)   # scipy's layout

Options are those of the command ``halvex solve`` with ``_`` for ``-``:
``primal_tol``, ``max_iter``, ``presolve``, ``crossover``, ``threads``, ...
See docs/python.md.
"""
import logging
import re

import numpy as np
import scipy.sparse as sp

from . import _halvex

__all__ = ["Problem", "Result", "read", "solve", "solve_qp", "linprog", "plot_convergence",
           "STATUS_CODES"]

logger = logging.getLogger("halvex")

# The file's "no bound", both ways.
_INF = 1e20

# Status names and the return codes that go with them.
STATUS_CODES = {"optimal": 0, "acceptable": 9, "primal infeasible": 2, "dual infeasible": 3,
                "primal and dual infeasible": 23, "iteration limit": 5, "time limit": 10,
                "interrupted": 99, "failure": 8, "out of memory": 1}

# Options of the command that write files; the Python API returns their
# contents instead.
_FILE_OPTIONS = {"json", "solution", "write_basis"}

# Log line kinds of the host: errors, warnings, notes, the iteration table.
_LOG_LEVELS = {1: logging.ERROR, 4: logging.ERROR, 3: logging.WARNING}


class Problem:
    """A linear or quadratic program: minimise (or maximise, sense -1)
    c'x + 1/2 x'Px + obj_constant subject to row_lower <= A x <= row_upper
    and lb <= x <= ub.  A and P are scipy.sparse CSC matrices, P symmetric
    (both triangles stored); infinite bounds are +-inf."""

    def __init__(self, c, A, row_lower, row_upper, lb, ub, P=None, name="", sense=1,
                 obj_constant=0.0, col_names=None, row_names=None, is_integer=None,
                 row_sense=None):
        self.c, self.A, self.P = c, A, P
        self.row_lower, self.row_upper, self.lb, self.ub = row_lower, row_upper, lb, ub
        self.name, self.sense, self.obj_constant = name, sense, obj_constant
        self.col_names, self.row_names = col_names, row_names
        self.is_integer, self.row_sense = is_integer, row_sense

    @property
    def num_col(self):
        return len(self.c)

    @property
    def num_row(self):
        return len(self.row_lower)

    def __repr__(self):
        kind = "QP" if self.P is not None and self.P.nnz else "LP"
        return "<halvex.Problem %s %r: %d rows, %d columns>" % (kind, self.name, self.num_row,
                                                             self.num_col)


class Result:
    """What a solve found.  ``status`` and ``status_code`` say how it ended;
    ``x``, ``y`` (row duals), ``z`` (reduced costs c + Px - A'y),
    ``row_activity`` are None when the solve gave no point.  ``info`` holds
    the final measures, the check of the claim and the crossover's counters;
    ``history`` the iteration log by column; ``basis`` a (columns, rows)
    pair of status names ("BS", "LB", "UB", "FR", "FX") when crossover ran."""

    def __init__(self, raw, z=None):
        self.problem = raw.get("problem", "")
        self.status = raw["status"]
        self.status_code = raw["return_code"]
        self.objective = raw["objective"]
        point = self.objective is not None
        self.x = raw["x"] if point else None
        self.y = raw["y"] if point else None
        self.z = z if point else None
        self.row_activity = raw["row_activity"] if point else None
        self.iterations = raw["iterations"]
        self.times = raw["times"]
        self.info = raw["info"]
        self.history = raw["history"]
        self.basis = raw["basis"]

    @property
    def success(self):
        return self.status in ("optimal", "acceptable")

    def __repr__(self):
        return "<halvex.Result %s, objective %s, %d iterations>" % (self.status, self.objective,
                                                                   self.iterations)


def _to_inf(v):
    v = np.array(v, dtype=float)
    v[v >= _INF] = np.inf
    v[v <= -_INF] = -np.inf
    return v


def _from_dict(d):
    n, m = len(d["c"]), len(d["row_lower"])
    A = sp.csc_matrix((d["a_values"], d["a_rowind"], d["a_colptr"]), shape=(m, n))
    lower = sp.csc_matrix((d["q_values"], d["q_rowind"], d["q_colptr"]), shape=(n, n))
    P = (lower + lower.T + sp.diags(d["q_diag"])).tocsc()
    P.sort_indices()
    return Problem(d["c"], A, _to_inf(d["row_lower"]), _to_inf(d["row_upper"]), _to_inf(d["lb"]),
                   _to_inf(d["ub"]), P=P, name=d["name"], sense=d["sense"],
                   obj_constant=d["obj_constant"], col_names=d["col_names"],
                   row_names=d["row_names"], is_integer=d["is_integer"].astype(bool),
                   row_sense=d["row_sense"])


def read(path, format="auto"):
    """Reads an MPS or QPS file (fixed or free form, plain or gzip)."""
    return _from_dict(_halvex.read(str(path), format))


def _option_args(options):
    args = []
    for name, value in options.items():
        if name in _FILE_OPTIONS:
            raise ValueError("option %s writes a file; the result holds what it would write"
                             % name)
        flag = "--" + name.replace("_", "-")
        if isinstance(value, bool) or value is None:
            if name == "lp_as_qp":
                if value:
                    args.append(flag)
                continue
            if name not in ("crossover", "presolve"):
                raise ValueError("option %s needs a value, not %r" % (name, value))
            value = "on" if value else "off"
        args.append("%s=%s" % (flag, value))
    return args


def _python_names(message):
    return re.sub(r"--([a-z-]+)", lambda m: m.group(1).replace("-", "_"), message)


def _log_function(log, print_level):
    """The call-back the extension calls with each log line."""
    quiet = print_level == 0

    def emit(kind, line):
        if quiet and kind not in (1, 4):
            return
        if log is not None:
            log(line)
        else:
            logger.log(_LOG_LEVELS.get(kind, logging.INFO), "%s", line)
    return emit


def _run(solver, target, options, log):
    args = _option_args(options)
    try:
        _halvex.parse_options(args)
    except ValueError as e:
        raise ValueError(_python_names(str(e))) from None
    return solver(target, args, _log_function(log, int(options.get("print_level", 2))))


def _dense_vector(v, n, name, fill=None):
    if v is None:
        if fill is None:
            raise ValueError("%s is missing" % name)
        return np.full(n, fill, dtype=float)
    a = np.asarray(v, dtype=float)
    if a.ndim == 0:
        a = np.full(n, float(a))
    a = a.reshape(-1) if a.ndim == 2 and 1 in a.shape else a
    if a.shape != (n,):
        raise ValueError("%s has shape %s; it needs %d entries" % (name, np.shape(v), n))
    if np.isnan(a).any():
        raise ValueError("%s contains NaN" % name)
    return a


def _sparse(M, shape, name):
    M = sp.csc_matrix(M, dtype=float)
    if M.shape != shape:
        raise ValueError("%s has shape %s; it needs %s" % (name, M.shape, shape))
    M.sum_duplicates()
    if not np.isfinite(M.data).all():
        raise ValueError("%s contains NaN or infinite entries" % name)
    M.eliminate_zeros()
    M.sort_indices()
    return M


def _lower_triangle(P, n):
    """P with either triangle or both given, as its lower triangle."""
    P = _sparse(P, (n, n), "P")
    lower, upper = sp.tril(P, -1), sp.triu(P, 1)
    if lower.nnz and upper.nnz:
        diff = abs(P - P.T)
        scale = max(abs(P).max(), 1.0)
        if diff.nnz and diff.max() > 1e-10 * scale:
            raise ValueError("P is not symmetric")
    elif upper.nnz:
        lower = upper.T
    diag = P.diagonal()
    # The cheap half of convexity; the solver meets the rest.
    if (diag < 0).any():
        raise ValueError("P is not convex: P[%d, %d] < 0" % ((np.argmax(diag < 0),) * 2))
    return diag, sp.csc_matrix(lower)


def _problem_dict(c, A, l, u, lb, ub, P, name="", sense=1, obj_constant=0.0, col_names=None,
                  row_names=None):
    n = len(c)
    c = _dense_vector(c, n, "c")
    if not np.isfinite(c).all():
        raise ValueError("c contains infinite entries")
    m = 0 if A is None else np.shape(A)[0]
    A = _sparse(A if A is not None else sp.csc_matrix((0, n)), (m, n), "A")
    l = _dense_vector(l, m, "l", -np.inf)
    u = _dense_vector(u, m, "u", np.inf)
    lb = _dense_vector(lb, n, "lb", -np.inf)
    ub = _dense_vector(ub, n, "ub", np.inf)
    for lo, up, what, other in ((l, u, "l", "u"), (lb, ub, "lb", "ub")):
        bad = np.nonzero(lo > up)[0]
        if len(bad):
            raise ValueError("%s[%d] > %s[%d]" % (what, bad[0], other, bad[0]))
        for v, name, wrong in ((lo, what, np.inf), (up, other, -np.inf)):
            bad = np.nonzero(v == wrong)[0]
            if len(bad):
                raise ValueError("%s[%d] is %s" % (name, bad[0], wrong))
    if P is None:
        diag, lower = np.zeros(n), sp.csc_matrix((n, n))
    else:
        diag, lower = _lower_triangle(P, n)
    clip = lambda v: np.clip(v, -_INF, _INF)
    return {"name": name, "sense": sense, "obj_constant": float(obj_constant),
            "c": c, "lb": clip(lb), "ub": clip(ub), "row_lower": clip(l), "row_upper": clip(u),
            "a_colptr": A.indptr.astype(np.int32), "a_rowind": A.indices.astype(np.int32),
            "a_values": A.data, "q_diag": np.asarray(diag, dtype=float),
            "q_colptr": lower.indptr.astype(np.int32), "q_rowind": lower.indices.astype(np.int32),
            "q_values": lower.data,
            "col_names": list(col_names) if col_names is not None else
            ["C%d" % j for j in range(n)],
            "row_names": list(row_names) if row_names is not None else
            ["R%d" % i for i in range(m)]}


def _reduced_costs(raw, c, A, P):
    if raw["objective"] is None:
        return None
    x, y = raw["x"], raw["y"]
    z = np.asarray(c, dtype=float) - A.T @ y
    if P is not None:
        z = z + P @ x
    return np.asarray(z).reshape(-1)


def _solve_problem(p, options, log):
    d = _problem_dict(p.c, p.A, p.row_lower, p.row_upper, p.lb, p.ub, p.P, p.name, p.sense,
                      p.obj_constant, p.col_names, p.row_names)
    raw = _run(_halvex.solve_dict, d, options, log)
    return Result(raw, _reduced_costs(raw, p.c, p.A, p.P))


def solve(problem, log=None, **options):
    """Solves a Problem, or the MPS/QPS file at a path.

    log: a callable that gets each log line; without one the lines go to the
    logger "halvex" (iteration table and notes at INFO, warnings and errors
    above).  Options are the command's, e.g. primal_tol=1e-8, max_iter=100,
    time_limit=10, presolve="off", crossover=False, threads=1, print_level=1.
    A bad name or value raises ValueError naming it."""
    if isinstance(problem, Problem):
        return _solve_problem(problem, options, log)
    raw = _run(_halvex.solve_file, str(problem), options, log)
    p = _from_dict(raw.pop("problem_data"))
    return Result(raw, _reduced_costs(raw, p.c, p.A, p.P if p.P.nnz else None))


def solve_qp(P, q, A=None, l=None, u=None, lb=None, ub=None, log=None, **options):
    """Minimises 1/2 x'Px + q'x subject to l <= A x <= u and lb <= x <= ub.

    P is symmetric, with either triangle or both given (None for an LP);
    matrices dense or scipy.sparse; a missing bound is infinite."""
    q = np.asarray(q, dtype=float).reshape(-1)
    n = len(q)
    _dense_vector(q, n, "q")
    d = _problem_dict(q, A, l, u, lb, ub, P)
    raw = _run(_halvex.solve_dict, d, options, log)
    Afull = sp.csc_matrix((d["a_values"], d["a_rowind"], d["a_colptr"]),
                          shape=(len(d["row_lower"]), n))
    Pfull = None
    if P is not None:
        low = sp.csc_matrix((d["q_values"], d["q_rowind"], d["q_colptr"]), shape=(n, n))
        Pfull = low + low.T + sp.diags(d["q_diag"])
    return Result(raw, _reduced_costs(raw, q, Afull, Pfull))


# scipy.optimize.linprog's status codes for ours.
_LINPROG_STATUS = {"optimal": 0, "acceptable": 0, "iteration limit": 1, "time limit": 1,
                   "primal infeasible": 2, "primal and dual infeasible": 2,
                   "dual infeasible": 3}
_LINPROG_MESSAGE = {0: "Optimization terminated successfully.",
                    1: "The iteration or time limit was reached.",
                    2: "The problem is infeasible.", 3: "The problem is unbounded.",
                    4: "Numerical difficulties encountered."}
# scipy's option names for the command's.
_LINPROG_OPTIONS = {"maxiter": "max_iter", "time_limit": "time_limit", "presolve": "presolve",
                    "primal_feasibility_tolerance": "primal_tol",
                    "dual_feasibility_tolerance": "dual_tol", "tol": "tol"}


def _linprog_bounds(bounds, n):
    lb, ub = np.zeros(n), np.full(n, np.inf)
    if bounds is None:
        return lb, ub
    b = list(bounds) if not isinstance(bounds, np.ndarray) else bounds.tolist()
    if len(b) == 2 and all(v is None or np.isscalar(v) for v in b):
        b = [b] * n
    if len(b) == 1 and n != 1:
        b = b * n
    if len(b) != n:
        raise ValueError("bounds has %d pairs; it needs 1 or %d" % (len(b), n))
    for j, pair in enumerate(b):
        if pair is None or len(pair) != 2:
            raise ValueError("bounds[%d] is not a (min, max) pair" % j)
        lo, up = pair
        lb[j] = -np.inf if lo is None else float(lo)
        ub[j] = np.inf if up is None else float(up)
    return lb, ub


def linprog(c, A_ub=None, b_ub=None, A_eq=None, b_eq=None, bounds=None, method=None,
            options=None, **unsupported):
    """scipy.optimize.linprog's interface: minimises c'x subject to
    A_ub x <= b_ub, A_eq x == b_eq and bounds (default (0, None) for every
    variable).  Returns a scipy OptimizeResult with x, fun, slack, con,
    success, status, message, nit and the marginals of ineqlin, eqlin,
    lower and upper.  ``method`` and ``x0`` are accepted and ignored; ``options`` takes
    scipy's disp, maxiter, time_limit, presolve, tol and the feasibility
    tolerances, and the options of halvex.solve."""
    from scipy.optimize import OptimizeResult
    for name, value in unsupported.items():
        if name not in ("integrality", "callback", "x0"):
            raise TypeError("linprog() got an unexpected keyword argument '%s'" % name)
        # x0 is a mere hint; the other two would change the problem or the run.
        if name != "x0" and value is not None and np.any(value):
            raise ValueError("%s is not supported: halvex solves continuous problems "
                             "without a per-iteration call-back" % name)
    c = np.asarray(c, dtype=float).reshape(-1)
    n = len(c)
    opts = {}
    log = None
    for name, value in (options or {}).items():
        if name == "disp":
            log = print if value else None
        else:
            opts[_LINPROG_OPTIONS.get(name, name)] = value
    blocks, lows, ups = [], [], []
    m_ub = m_eq = 0
    if A_ub is not None or b_ub is not None:
        if A_ub is None or b_ub is None:
            raise ValueError("A_ub and b_ub go together")
        A_ub = _sparse(A_ub if np.ndim(A_ub) != 1 else np.atleast_2d(A_ub),
                       (np.shape(A_ub)[0] if np.ndim(A_ub) == 2 else 1, n), "A_ub")
        m_ub = A_ub.shape[0]
        b = _dense_vector(b_ub, m_ub, "b_ub")
        blocks.append(A_ub), lows.append(np.full(m_ub, -np.inf)), ups.append(b)
    if A_eq is not None or b_eq is not None:
        if A_eq is None or b_eq is None:
            raise ValueError("A_eq and b_eq go together")
        A_eq = _sparse(A_eq if np.ndim(A_eq) != 1 else np.atleast_2d(A_eq),
                       (np.shape(A_eq)[0] if np.ndim(A_eq) == 2 else 1, n), "A_eq")
        m_eq = A_eq.shape[0]
        b = _dense_vector(b_eq, m_eq, "b_eq")
        blocks.append(A_eq), lows.append(b), ups.append(b)
    A = sp.vstack(blocks).tocsc() if blocks else None
    lb, ub = _linprog_bounds(bounds, n)
    r = solve_qp(None, c, A, np.concatenate(lows) if lows else None,
                 np.concatenate(ups) if ups else None, lb, ub, log=log, **opts)
    status = _LINPROG_STATUS.get(r.status, 4)
    res = OptimizeResult(status=status, success=status == 0, nit=r.iterations,
                         message="%s (halvex: %s)" % (_LINPROG_MESSAGE[status], r.status),
                         x=r.x, fun=r.objective, halvex=r)
    if r.x is not None:
        ax = r.row_activity
        res.slack = (ups[0] - ax[:m_ub]) if m_ub else np.zeros(0)
        res.con = (ups[-1] - ax[m_ub:]) if m_eq else np.zeros(0)
        # The row duals are the objective's sensitivities to the right-hand
        # sides, as scipy's marginals; the reduced costs split by sign.
        res.ineqlin = OptimizeResult(residual=res.slack, marginals=r.y[:m_ub])
        res.eqlin = OptimizeResult(residual=res.con, marginals=r.y[m_ub:])
        res.lower = OptimizeResult(residual=r.x - lb, marginals=np.maximum(r.z, 0.0))
        res.upper = OptimizeResult(residual=ub - r.x, marginals=np.minimum(r.z, 0.0))
    return res


def plot_convergence(result_or_json, path, title=None):
    """Draws primal and dual infeasibility, gap and complementarity per
    iteration on a log scale into path (PNG); takes a Result, the command's
    JSON record as a dict, or the path of one."""
    from .plot import plot_convergence as draw
    return draw(result_or_json, path, title)

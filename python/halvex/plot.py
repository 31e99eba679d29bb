"""The convergence picture of a solve: primal and dual infeasibility, gap
and complementarity per iteration on a log scale.

    python3 -m halvex.plot RESULT.json -o FILE.png     (also: halvex plot ...)
"""
import argparse
import json
import sys

import numpy as np

# (history column, legend) in the order they are drawn.
SERIES = (("primalInfeas", "primal infeasibility"), ("dualInfeas", "dual infeasibility"),
          ("dualityGap", "duality gap"), ("complementarity", "complementarity"))


def _history(source):
    """The history and a title from a Result, a JSON record or its path."""
    if isinstance(source, dict):
        record = source
    elif hasattr(source, "history"):
        return source.history, "%s: %s" % (source.problem or "problem", source.status)
    else:
        with open(source) as f:
            record = json.load(f)
    if "history" not in record:
        raise ValueError("the record has no iteration history")
    return record["history"], "%s: %s" % (record.get("problem") or "problem",
                                          record.get("status", ""))


def plot_convergence(source, path, title=None):
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    history, default_title = _history(source)
    iterations = np.asarray(history["iteration"], dtype=float)
    if not len(iterations):
        raise ValueError("the iteration history is empty: the solve made no iteration")
    fig, ax = plt.subplots(figsize=(6.4, 4.0), dpi=100)
    drawn = 0
    for column, label in SERIES:
        values = np.asarray([np.nan if v is None else v for v in history[column]], dtype=float)
        # A log scale has no place for the exact zeros of a finished solve.
        values[~(values > 0)] = np.nan
        if np.isfinite(values).any():
            ax.semilogy(iterations, values, marker="o", markersize=3, label=label)
            drawn += 1
    ax.set_xlabel("iteration")
    ax.set_ylabel("measure")
    ax.set_title(title or default_title)
    ax.grid(True, which="major", alpha=0.3)
    if drawn:
        ax.legend()
    fig.tight_layout()
    fig.savefig(path, format="png")
    plt.close(fig)
    return path


def main(argv=None):
    parser = argparse.ArgumentParser(prog="halvex plot", description=__doc__.split("\n\n")[0])
    parser.add_argument("json", help="the JSON record of a solve (halvex solve --json)")
    parser.add_argument("-o", "--output", required=True, help="the PNG file to write")
    parser.add_argument("--title", help="the picture's title (default: problem and status)")
    args = parser.parse_args(argv)
    try:
        plot_convergence(args.json, args.output, args.title)
    except (OSError, ValueError, KeyError) as e:
        print("halvex plot: %s" % e, file=sys.stderr)
        return 2
    return 0


if __name__ == "__main__":
    sys.exit(main())

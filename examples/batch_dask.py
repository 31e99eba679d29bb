#!/usr/bin/env python3
"""Solves a batch of MPS/QPS files on a Dask cluster, one solve per task.

    python3 examples/batch_dask.py FILE...                    # a local cluster
    python3 examples/batch_dask.py --scheduler tcp://host:8786 FILE...

Without --scheduler it starts a dask.distributed LocalCluster of worker
processes on this machine; with one, the same code runs on that cluster,
whose workers need the halvex package installed (docs/python.md).  The
files must be readable on the workers under the paths given.
"""
import argparse
import sys

import halvex


def solve_batch(client, paths, **options):
    """Solves every file on the cluster of client, in the order given; the
    options are halvex.solve's.  Returns the halvex.Result of each."""
    # Each solve is a task of its own: one thread per worker keeps the
    # workers from fighting over the cores (the solver threads itself).
    options.setdefault("print_level", 0)
    futures = client.map(halvex.solve, list(paths), pure=False, **options)
    return client.gather(futures)


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("files", nargs="+")
    parser.add_argument("--scheduler", help="address of a running Dask scheduler")
    parser.add_argument("--workers", type=int, default=2, help="local worker processes (2)")
    parser.add_argument("--threads", type=int, default=1,
                        help="threads of each solve's factorisation (1)")
    args = parser.parse_args(argv)

    from dask.distributed import Client, LocalCluster
    if args.scheduler:
        client = Client(args.scheduler)
    else:
        client = Client(LocalCluster(n_workers=args.workers, threads_per_worker=1,
                                     processes=True, dashboard_address=None))
    with client:
        results = solve_batch(client, args.files, threads=args.threads)
    failed = 0
    print("%-24s %-18s %22s %6s" % ("problem", "status", "objective", "iter"))
    for path, r in zip(args.files, results):
        print("%-24s %-18s %22.12g %6d" % (r.problem or path, r.status,
                                           r.objective if r.objective is not None else float("nan"),
                                           r.iterations))
        failed += not r.success
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())

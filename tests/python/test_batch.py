import os
import sys

import numpy as np

import halvex
from conftest import LP_QUICK, QP_QUICK, data_file

sys.path.insert(0, os.environ["HALVEX_EXAMPLES"])
import batch_dask  # noqa: E402


def test_a_batch_on_a_local_dask_cluster_gives_the_serial_results():
    from dask.distributed import Client, LocalCluster
    paths = [data_file("netlib", n) for n in LP_QUICK[:5]] + \
            [data_file("maros", n) for n in QP_QUICK[:5]]
    serial = [halvex.solve(p, threads=1, print_level=0) for p in paths]
    with LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                      dashboard_address=None) as cluster, Client(cluster) as client:
        batch = batch_dask.solve_batch(client, paths, threads=1)
    assert len(batch) == len(paths)
    for s, b in zip(serial, batch):
        assert (b.problem, b.status, b.objective, b.iterations) == \
               (s.problem, s.status, s.objective, s.iterations)
        np.testing.assert_array_equal(b.x, s.x)

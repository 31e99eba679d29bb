import csv
import os

import pytest


def _quick(name):
    return [p for p in os.environ.get(name, "").split(",") if p]


LP_QUICK = _quick("HALVEX_LP_QUICK")
QP_QUICK = _quick("HALVEX_QP_QUICK")


def data_file(folder, name):
    """The file of a shared problem, whatever the case of its name."""
    root = os.path.join(os.environ["HALVEX_DATA_DIR"], folder)
    for entry in os.listdir(root):
        if entry.split(".")[0].lower() == name.lower():
            return os.path.join(root, entry)
    raise FileNotFoundError("%s not in %s" % (name, root))


def optimal(folder):
    with open(os.path.join(os.environ["HALVEX_DATA_DIR"], folder, "optimal.csv")) as f:
        return {row["name"].lower(): float(row["objective"]) for row in csv.DictReader(f)}


@pytest.fixture(scope="session")
def optima():
    return {"netlib": optimal("netlib"), "maros": optimal("maros")}

#!/usr/bin/env python3
"""Draws a series of metricdb, and how full the memory slots of its pool of points are.

  plot_metricdb.py FOLDER KEY OUT.png [--metricdb PROGRAM]

KEY is a line of `metricdb series --db FOLDER`. The program can be started while a server writes the database."""

# %% The arguments
import argparse
import csv
import subprocess

import matplotlib

matplotlib.use("Agg")  # without a display
import matplotlib.pyplot as plt
import numpy as np

import tslb

parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
parser.add_argument("folder")
parser.add_argument("key")
parser.add_argument("out")
parser.add_argument("--metricdb", default="metricdb", help="the program")
arguments = parser.parse_args()

# %% The series. Its points are encoded, so metricdb decodes them
text = subprocess.run([arguments.metricdb, "query", "--db", arguments.folder, arguments.key, "--format", "csv"],
                      check=True, capture_output=True, text=True).stdout
rows = list(csv.reader(text.splitlines()))[1:]
times = np.array([time.rstrip("Z") for time, _ in rows], "datetime64[ns]")
values = np.array([float(value) for _, value in rows])
print(f"{arguments.key}: {len(values)} points")

# %% The pool. A database of metricdb is a durable store
with tslb.open_store(arguments.folder) as store:
    points = store["points"]
    assert isinstance(points, tslb.Pool)
    slots = points.occupancy()
    taken = slots["status"] == tslb.Status.ACTIVE
    live = np.where(taken, slots["bytes_used"].astype(np.int64) - slots["bytes_deleted"], 0)
    deleted = np.where(taken, slots["bytes_deleted"], 0)
    print(f"points: {len(slots)} memory slots of {points.slot_bytes} bytes, {live.sum()} bytes in use")

# %% Both in one picture
figure, (above, below) = plt.subplots(2, figsize=(9, 6), layout="constrained")
above.plot(times, values, ".-", markersize=3)
above.set_title(arguments.key)
indices = np.arange(len(slots))
below.bar(indices, live, label="in use")
below.bar(indices, deleted, bottom=live, label="deleted")
below.axhline(points.slot_bytes, color="grey", linewidth=1, label="size of a slot")
below.set(title="Occupancy of the pool of points", xlabel="memory slot", ylabel="bytes", xlim=(-1, len(slots)))
below.xaxis.get_major_locator().set_params(integer=True)
below.legend()
figure.savefig(arguments.out)

"""Arrays of tslb databases in Python: streams, block files and durable stores, as NumPy arrays.

    import numpy as np
    import tslb

    reading = np.dtype([("gatekeeper", "<u4"), ("place", "S12"), ("celsius", "<f4")])
    with tslb.open_store("readings") as store:
        records = store["readings"].records(reading)
        print(records["celsius"].max())

docs/python.md is the introduction. Whatever is opened to read is checked as a whole, as the database does it.
"""

from ._native import (BrokenError, DamagedError, Error, FullError, InvalidError, LockedError, MismatchError,
                      NoStoreError, RefusedError)
from .arrays import NIL, Array, Chunk, Pool, Status, open_block_files, open_stream
from .batches import Batch
from .declarations import Declaration, Kind, describe
from .frames import to_pandas
from .layouts import read_layout, write_layout
from .stores import Store, open_store

__all__ = [
    "Array", "Batch", "BrokenError", "Chunk", "DamagedError", "Declaration", "Error", "FullError", "InvalidError",
    "Kind", "LockedError", "MismatchError", "NIL", "NoStoreError", "Pool", "RefusedError", "Status",
    "Store", "describe", "open_block_files", "open_store", "open_stream", "read_layout", "to_pandas", "write_layout",
]

# Tracebacks and help show the names that a program uses.
for _name in __all__:
    if hasattr(globals()[_name], "__module__"):
        globals()[_name].__module__ = __name__


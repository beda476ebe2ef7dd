"""Arrays of tslb databases in Python: streams, block files and durable stores, as NumPy arrays.

    import numpy as np
    import tslb

    reading = np.dtype([("gatekeeper", "<u4"), ("place", "S12"), ("celsius", "<f4")])
    with tslb.open_store("readings") as store:
        records = store["readings"].records(reading)
        print(records["celsius"].max())

docs/python.md is the introduction. Whatever is opened to read is checked as a whole, as the database does it.
"""

from ._native import (BrokenError, DamagedError, Error, FullError, LockedError, MismatchError, NoStoreError,
                      RefusedError)
from .arrays import NIL, Array, Chunk, Pool, Status, open_block_files, open_stream
from .frames import to_pandas
from .stores import Batch, Declaration, Kind, Store, describe, open_store

__all__ = [
    "Array", "Batch", "BrokenError", "Chunk", "DamagedError", "Declaration", "Error", "FullError",
    "Kind", "LockedError", "MismatchError", "NIL", "NoStoreError", "Pool", "RefusedError", "Status",
    "Store", "describe", "open_block_files", "open_store", "open_stream", "to_pandas",
]

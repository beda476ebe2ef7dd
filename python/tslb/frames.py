"""Arrays as data frames of pandas, which is imported when it is needed."""

from __future__ import annotations

from typing import TYPE_CHECKING, Any

import numpy as np
import numpy.typing as npt

from .arrays import Array, Status

if TYPE_CHECKING:
    import pandas


def to_pandas(array: Array, dtype: npt.DTypeLike = None, status: Status | None = Status.ACTIVE) -> pandas.DataFrame:
    """A copy of the records with this status, or of all with None. The frame's index has the indices of the slots.
    Fields with several values become one column for each: "name.0", "name.1" and so on."""
    import pandas

    records = array.records(dtype)
    indices = np.arange(len(records)) if status is None else np.flatnonzero(array.status[:len(records)] == status)
    chosen = records[indices]
    columns: dict[str, npt.NDArray[Any]] = {}
    for name in chosen.dtype.names or ():
        field = chosen[name]
        if field.ndim == 1:
            columns[name] = field.astype("V").astype(object) if field.dtype.kind == "V" else field.copy()
        else:
            flat = field.reshape(len(chosen), -1)
            columns.update({f"{name}.{i}": flat[:, i].copy() for i in range(flat.shape[1])})
    if chosen.dtype.names is None:
        raise ValueError(f"{array.name}: a data frame needs a dtype with fields")
    return pandas.DataFrame(columns, index=pandas.Index(indices, name="idx"))

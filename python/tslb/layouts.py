"""Layouts: text files NAME.layout that say what the records of an array have. docs/formats.md describes them."""

from __future__ import annotations

import os
import pathlib
import re
from collections.abc import Iterator
from typing import Any

import numpy as np
import numpy.typing as npt

from ._records import checked_dtype
from ._sidecar import field_of

# Relative to the package, so that an installation can be moved.
_INSTALLED = pathlib.Path(__file__).absolute().parents[4] / "share" / "tslb" / "layouts"
_SUFFIX = ".layout"
_NAME = re.compile("[!-\"$-~]{1,128}")  # "#" begins a comment
_BITS = re.compile(r"(.+):(\d+-\d+)")
# Types by the kind of a dtype. Times are stored as numbers.
_TYPES = {"u": "u", "i": "i", "f": "f", "M": "i", "m": "i", "b": "u", "S": "char", "V": "bytes"}


def read_layout(name: str | os.PathLike[str]) -> np.dtype[Any]:
    """The dtype that a layout describes: an installed one by its name, or a file by its path. Bits of a number are that
    number, under a name with the bits. ValueError with the line."""
    path = os.fsdecode(name)
    if "/" not in path and not path.endswith(_SUFFIX):
        path = str(_INSTALLED / (path + _SUFFIX))
        if not os.path.exists(path):
            raise ValueError(f"no layout {os.fsdecode(name)!r} is installed: there is no {path}")
    record_bytes, fields = None, []
    with open(path, encoding="ascii", errors="surrogateescape") as file:
        for number, line in enumerate(file, 1):
            words = line.split("#")[0].split()
            try:
                if words and words[0] == "layout" and record_bytes is None:
                    _, _, record_bytes = _layout_line(*words)
                elif words and (words[0] != "field" or record_bytes is None):
                    raise ValueError("expected \"layout NAME bytes COUNT\", then \"field NAME OFFSET TYPE\"")
                elif words:
                    fields.append(field_of(*words[1:]))
            except (TypeError, ValueError) as why:
                raise ValueError(f"{path}: line {number}: {why}") from None
    if not fields:
        raise ValueError(f"{path}: no fields")
    try:
        names, formats, offsets = zip(*sorted(fields, key=lambda field: (field[2], field[0])))
        return np.dtype({"names": names, "formats": formats, "offsets": offsets, "itemsize": record_bytes})
    except ValueError as why:
        raise ValueError(f"{path}: {why}") from None


def _layout_line(_: str, name: str, word: str, record_bytes: str) -> tuple[str, str, int]:
    if word != "bytes":
        raise ValueError("expected \"layout NAME bytes COUNT\"")
    return name, word, int(record_bytes)


def write_layout(dtype: npt.DTypeLike, name: str, path: str | os.PathLike[str]) -> None:
    """Writes the layout `name` of records of this dtype, for `tslb-inspect --layout`. Times become numbers, and fields
    of a structure are named as in "place.latitude". ValueError with the field that a layout cannot have."""
    checked = checked_dtype(dtype, name)
    if checked.names is None:
        raise ValueError(f"{name}: the dtype has no fields")
    if _NAME.fullmatch(name) is None:
        raise ValueError(f"{name!r}: a name has 1 to 128 printable ASCII characters without blanks and \"#\"")
    lines = [f"layout {name} bytes {checked.itemsize}"]
    lines += [f"field {field} {offset} {kind}" for field, offset, kind in _fields(checked, "", 0)]
    with open(path, "w", encoding="ascii") as file:
        file.write("\n".join(lines) + "\n")


def _fields(dtype: np.dtype[Any], name: str, offset: int) -> Iterator[tuple[str, int, str]]:
    if dtype.fields is not None:
        for field, place in dtype.fields.items():
            yield from _fields(place[0], f"{name}.{field}" if name else field, offset + place[1])
        return
    base, shape = dtype.base, dtype.shape
    count = int(np.prod(shape))
    if shape and (base.fields is not None or base.kind in "SV"):  # a layout has no arrays of these
        for i in range(count):
            yield from _fields(base, f"{name}[{i}]", offset + i * base.itemsize)
        return
    text = _TYPES.get(base.kind)
    if text is None or base.str.startswith(">") or (base.kind == "f" and base.itemsize not in (4, 8)):
        raise ValueError(f"{name}: a layout has no type for {base.str}")
    if text in ("char", "bytes"):
        text += f"[{base.itemsize}]"
    else:
        text += str(8 * base.itemsize) + (f"[{count}]" if shape else "")
    bits = _BITS.fullmatch(name)
    if bits is not None:
        name, text = bits.group(1), f"{text}:{bits.group(2)}"
    if _NAME.fullmatch(name) is None:
        raise ValueError(f"{name!r}: a name has 1 to 128 printable ASCII characters without blanks and \"#\"")
    yield name, offset, text

"""The arrays of a store: what a program declares, and what a store describes."""

from __future__ import annotations

import dataclasses
import enum
import operator
import os
import re
from typing import Any

import numpy as np
import numpy.typing as npt

from ._native import ffi, lib, new_error, raise_error
from ._records import check_size, checked_dtype


class Kind(enum.IntEnum):
    """Kind of an array of a store."""

    RECORDS = 0
    """Records by a number that is issued once; they are never freed."""
    SLOTS = 1
    """Slots for records: a freed one is taken again. The first 4 bytes of a record are the library's."""
    BIG_BUFFER = 2
    """Chunks of any length, in up to 256 memory slots with 32-bit addresses."""
    BIT_VECTOR = 3
    """Chunks whose length is a multiple of 8, in up to 2,041 memory slots with 32-bit addresses."""


_NAME = re.compile("[a-zA-Z0-9_-]{1,31}")
_MAX_DESCRIPTION_BYTES = 255
# First and last value of each number of a declaration.
_RANGES = {"tbl_id": (-1 << 31, (1 << 31) - 1), "record_bytes": (0, (1 << 32) - 1), "n_direct": (0, (1 << 32) - 1),
           "max_slots": (0, (1 << 15) - 1), "rec_version": (0, 255)}


@dataclasses.dataclass
class Declaration:
    """An array of a store. ValueError with the name of the field that cannot be as it is given."""

    name: str  # of the store's arrays: 1 to 31 letters, digits, "_" and "-"
    kind: Kind = Kind.SLOTS
    tbl_id: int = 0  # number of the array, which referrers of chunks have
    dtype: npt.DTypeLike = None  # of the records; begins with ("gatekeeper", "<u4") if the kind is SLOTS
    record_bytes: int = 0  # follows from dtype; of a pool: bytes of a memory slot, the limit of a chunk with its header
    n_direct: int = 16  # slots in one piece of memory, which are read without a copy; later ones are in blocks of 16
    has_inactive: bool = False  # slots: with the inactive list
    frees_slots: bool = True  # pools: a slot whose chunks were all deleted is taken again
    has_headers: bool = True  # pools: chunks have compaction headers of 16 bytes: length, referrer, deleted or not
    max_slots: int = 0  # pools: limit of memory slots; 0: that of the addresses
    rec_version: int = 0  # of the records' format, 0 to 255, for the program's own use
    description: str = ""  # for readers of the store, at most 255 bytes
    # Of a described array: the fields that stand for its flags, and the flags themselves, which can say more.
    _described: tuple[Kind, bool, bool, int] | None = dataclasses.field(default=None, repr=False, compare=False)

    def __post_init__(self) -> None:
        if not isinstance(self.name, str) or _NAME.fullmatch(self.name) is None:
            raise ValueError(f"name: {self.name!r} is not 1 to 31 letters, digits, \"_\" and \"-\"")
        try:
            self.kind = Kind(self.kind)
        except ValueError:
            raise ValueError(f"{self.name}: kind: {self.kind!r} is none of {', '.join(map(str, Kind))}") from None
        if self.dtype is not None and self.is_pool:
            raise ValueError(f"{self.name}: dtype: a pool has chunks and no records; give record_bytes")
        if self.dtype is not None:
            self.dtype = checked_dtype(self.dtype, self.name, self.kind == Kind.SLOTS)
            self.record_bytes = self.dtype.itemsize
        for field, (first, last) in _RANGES.items():
            value = getattr(self, field)
            try:
                is_allowed = first <= operator.index(value) <= last
            except TypeError:
                is_allowed = False
            if not is_allowed:
                raise ValueError(f"{self.name}: {field}: {value!r} is not a number from {first} to {last}")
        if len(os.fsencode(self.description)) > _MAX_DESCRIPTION_BYTES:
            raise ValueError(f"{self.name}: description: has more than {_MAX_DESCRIPTION_BYTES} bytes")
        if self.record_bytes == 0:
            raise ValueError(f"{self.name}: {'record_bytes' if self.is_pool else 'dtype'}: is missing")

    @property
    def is_pool(self) -> bool:
        return self.kind >= Kind.BIG_BUFFER

    def _fill(self, decl: Any) -> None:
        decl.name = os.fsencode(self.name)
        decl.description = os.fsencode(self.description)
        decl.kind = int(self.kind)
        decl.tbl_id, decl.record_bytes, decl.n_direct = self.tbl_id, self.record_bytes, self.n_direct
        decl.rec_version, decl.max_slots = self.rec_version, self.max_slots
        decl.daflag, decl.has_compat = self._daflag, self.is_pool and self.has_headers

    @property
    def _daflag(self) -> int:
        if self._described is not None and self._described[:3] == (self.kind, self.has_inactive, self.frees_slots):
            return self._described[3]
        if self.is_pool:
            return int(self.frees_slots)
        return 0 if self.kind == Kind.RECORDS else 2 if self.has_inactive else 1


def native_decls(declarations: list[Declaration]) -> Any:
    decls = ffi.new("tslb_py_decl[]", len(declarations))
    for declaration, decl in zip(declarations, decls):
        declaration._fill(decl)
    return decls


def describe(folder: str | os.PathLike[str]) -> list[Declaration]:
    """The arrays of a store, without loading them."""
    error = new_error()
    capacity, n_arrays = 0, 16
    while capacity < n_arrays:
        capacity = n_arrays
        decls = ffi.new("tslb_py_decl[]", capacity)
        n_arrays = lib.tslb_py_store_describe(os.fsencode(folder), decls, capacity, error)
    if n_arrays < 0:
        raise_error(error)
    found = []
    for decl in ffi.unpack(decls, n_arrays):
        kind = Kind(decl.kind)
        declaration = Declaration(
            os.fsdecode(ffi.string(decl.name)), kind, decl.tbl_id, None, decl.record_bytes, decl.n_direct,
            kind == Kind.SLOTS and decl.daflag & 2 != 0, decl.daflag != 0, decl.has_compat != 0, decl.max_slots,
            decl.rec_version, os.fsdecode(ffi.string(decl.description)))
        declaration._described = (kind, declaration.has_inactive, declaration.frees_slots, decl.daflag)
        found.append(declaration)
    return found


def checked_dtypes(dtypes: Any, declarations: list[Declaration]) -> dict[str, np.dtype[Any]]:
    """Types of records, by the names of the store's arrays. ValueError for another name, and for a type that the array
    cannot have."""
    declared = {declaration.name: declaration for declaration in declarations}
    types = {name: np.dtype(of.dtype) for name, of in declared.items() if of.dtype is not None}
    for name, dtype in dtypes.items():
        if name not in declared:
            raise ValueError(f"dtypes: the store has no array {name!r}; it has {', '.join(declared)}")
        of = declared[name]
        if of.is_pool:
            raise ValueError(f"dtypes: {name} is a pool, which has chunks and no records")
        types[name] = checked_dtype(dtype, name, of.kind == Kind.SLOTS)
        check_size(types[name], name, of.record_bytes)
    return types

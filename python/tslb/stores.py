"""Durable stores: opened to read beside their writer, or to write, in batches."""

from __future__ import annotations

import dataclasses
import enum
import os
import threading
from collections.abc import Iterator, Mapping, Sequence
from types import TracebackType
from typing import Any

import numpy as np
import numpy.typing as npt

from ._native import Error, FullError, Handle, ffi, lib, new_error, raise_error
from .arrays import NIL, Array, Pool, array_of, copied_image, native_image

_GATEKEEPER_BYTES = 4


class Kind(enum.IntEnum):
    """Kind of an array of a store."""

    RECORDS = 0
    SLOTS = 1
    BIG_BUFFER = 2
    BIT_VECTOR = 3


@dataclasses.dataclass
class Declaration:
    """An array of a store. `record_bytes` follows from `dtype`; of a pool it is the bytes of a slot for chunks."""

    name: str
    kind: Kind = Kind.SLOTS
    tbl_id: int = 0
    dtype: npt.DTypeLike = None
    record_bytes: int = 0
    n_direct: int = 16
    has_inactive: bool = False  # slots: with the inactive list
    frees_slots: bool = True  # pools: a slot whose chunks were all deleted is taken again
    has_headers: bool = True  # pools: chunks have compaction headers
    max_slots: int = 0
    rec_version: int = 0
    description: str = ""

    def __post_init__(self) -> None:
        self.kind = Kind(self.kind)
        if self.dtype is not None:
            self.record_bytes = np.dtype(self.dtype).itemsize

    def _fill(self, decl: Any) -> None:
        decl.name = os.fsencode(self.name)[:39]
        decl.description = os.fsencode(self.description)[:255]
        decl.kind = int(self.kind)
        decl.tbl_id, decl.record_bytes, decl.n_direct = self.tbl_id, self.record_bytes, self.n_direct
        decl.rec_version, decl.max_slots = self.rec_version, self.max_slots
        if self.kind >= Kind.BIG_BUFFER:
            decl.daflag, decl.has_compat = int(self.frees_slots), self.has_headers
        elif self.kind == Kind.SLOTS:
            decl.daflag = 2 if self.has_inactive else 1


def _describe(folder: str | os.PathLike[str]) -> tuple[Any, int]:
    error = new_error()
    capacity = 16
    while True:
        decls = ffi.new("tslb_py_decl[]", capacity)
        n_arrays = lib.tslb_py_store_describe(os.fsencode(folder), decls, capacity, error)
        if n_arrays < 0:
            raise_error(error)
        if n_arrays <= capacity:
            return decls, n_arrays
        capacity = n_arrays


def describe(folder: str | os.PathLike[str]) -> list[Declaration]:
    """The arrays of a store, without loading them."""
    found = []
    decls, n_arrays = _describe(folder)
    for decl in ffi.unpack(decls, n_arrays):
        kind = Kind(decl.kind)
        found.append(Declaration(
            os.fsdecode(ffi.string(decl.name)), kind, decl.tbl_id, None, decl.record_bytes, decl.n_direct,
            kind == Kind.SLOTS and decl.daflag & 2 != 0, decl.daflag != 0, decl.has_compat != 0, decl.max_slots,
            decl.rec_version, os.fsdecode(ffi.string(decl.description))))
    return found


def open_store(folder: str | os.PathLike[str], *, write: bool = False, create: Sequence[Declaration] | None = None,
               dtypes: Mapping[str, npt.DTypeLike] | None = None, shadow: bool = False) -> Store:
    """Opens a durable store.

    To read, also beside its writer, whose later batches it does not see; the state is that of the last durable batch.
    With `write` to change it; with `create`, the declarations of all arrays, it is created if it does not exist, and
    arrays that it does not have are added. `dtypes` are the types of records, by the names of arrays. `shadow` finds
    changes that were not named, which this package cannot make: for arrays that C code in the process changes."""
    return Store(folder, write or create is not None, create, dtypes or {}, shadow)


class Store(Mapping[str, Array]):
    """An open store: a mapping of its arrays by their names. A context manager that closes it."""

    def __init__(self, folder: str | os.PathLike[str], write: bool, create: Sequence[Declaration] | None,
                 dtypes: Mapping[str, npt.DTypeLike], shadow: bool) -> None:
        if create is None:
            decls, n_arrays = _describe(folder)
        else:
            n_arrays = len(create)
            decls = ffi.new("tslb_py_decl[]", n_arrays)
            for i, declaration in enumerate(create):
                declaration._fill(decls[i])
        error = new_error()
        pointer = lib.tslb_py_store_open(os.fsencode(folder), decls, n_arrays, write, create is not None, shadow, error)
        if pointer == ffi.NULL:
            raise_error(error)
        self._handle: Handle | None = Handle(pointer, lambda store: lib.tslb_py_store_close(store, new_error()))
        self._writes = write
        self._arrays: dict[str, Array] = {}
        self._indices: dict[str, int] = {}
        types = {d.name: d.dtype for d in create or () if d.dtype is not None} | dict(dtypes)
        for i in range(n_arrays):
            name = os.fsdecode(ffi.string(decls[i].name))
            self._indices[name] = i
            self._arrays[name] = self._make_array(i, types.get(name))

    def _make_array(self, index: int, dtype: npt.DTypeLike) -> Array:
        if self._writes:
            # The array is looked up each time: a closed store is noticed.
            def native() -> Any:
                return lib.tslb_py_store_array(self._open.pointer, index)

            return array_of(native, lambda: copied_image(native()), dtype, changes=True)
        # Not through the store, so that views of a closed store stay valid.
        handle = self._open
        pointer = lib.tslb_py_store_array(handle.pointer, index)
        return array_of(lambda: (handle, pointer)[1], lambda: native_image(handle, pointer), dtype)

    @property
    def _open(self) -> Handle:
        if self._handle is None:
            raise ValueError("the store is closed")
        return self._handle

    def __getitem__(self, name: str) -> Array:
        return self._arrays[name]

    def __iter__(self) -> Iterator[str]:
        return iter(self._arrays)

    def __len__(self) -> int:
        return len(self._arrays)

    def __enter__(self) -> Store:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        """Closes the store. Arrays and views of a store that was opened to read stay valid; its memory is released when
        there are none. One that was opened to write is written and released at once, or raises why it was not; a batch
        that is open raises Error, and the store stays open."""
        if self._handle is None:
            return
        if self._writes:
            handle = self._handle
            error = new_error()
            if lib.tslb_py_store_close(handle.pointer, error) != 0 and error.code == 1:
                raise_error(error)
            ffi.gc(handle.pointer, None)  # it is released already
            self._handle = None
            if error.code != 0:
                raise_error(error)
        self._handle = None

    @property
    def payload(self) -> bytes | None:
        """The payload of the last durable batch that had one, as of the opening or restoring."""
        n_bytes = ffi.new("size_t *")
        bytes_ = lib.tslb_py_store_payload(self._open.pointer, n_bytes)
        return None if bytes_ == ffi.NULL else ffi.buffer(bytes_, n_bytes[0])[:]

    @property
    def warning(self) -> str:
        """What the opening found remarkable, or nothing."""
        text = ffi.new("char[512]")
        lib.tslb_py_store_warning(self._open.pointer, text, len(text))
        return os.fsdecode(ffi.string(text))

    def batch(self) -> Batch:
        """A batch, for `with`."""
        return Batch(self)

    def restore(self) -> None:
        """Brings the arrays back to the last durable batch after a RefusedError."""
        self._call(lib.tslb_py_store_restore)

    def snapshot(self) -> None:
        """Writes a generation, so that the next opening reads no journal."""
        self._call(lib.tslb_py_store_snapshot)

    def backup(self, folder: str | os.PathLike[str]) -> None:
        """Copies the store to a missing or empty folder."""
        self._call(lib.tslb_py_store_backup, os.fsencode(folder))

    def _call(self, function: Any, *arguments: Any) -> None:
        error = new_error()
        if function(self._open.pointer, *arguments, error) != 0:
            raise_error(error)


class Batch:
    """Changes that become durable together, when the block of `with` ends. It has the thread that entered it.

    An exception in the block gives the batch up, and with it batches of other threads that are not durable yet: the
    store refuses them, and is restored to the last durable batch before the exception goes on."""

    def __init__(self, store: Store) -> None:
        self._store = store
        self._pointer: Any = None
        self._thread = 0

    def __enter__(self) -> Batch:
        error = new_error()
        self._pointer = lib.tslb_py_begin(self._store._open.pointer, error)
        if self._pointer == ffi.NULL:
            self._pointer = None
            raise_error(error)
        self._thread = threading.get_ident()
        return self

    def __exit__(self, kind: type[BaseException] | None, why: BaseException | None,
                 _: TracebackType | None) -> None:
        batch = self._open
        self._pointer = None
        if why is None:
            error = new_error()
            if lib.tslb_py_commit(batch, error) != 0:
                raise_error(error)
        else:
            lib.tslb_py_refuse(batch, f"{type(why).__name__}: {why}".encode("utf-8", "replace")[:200])
            self._store.restore()

    @property
    def _open(self) -> Any:
        if self._pointer is None:
            raise ValueError("the batch has ended, or not begun")
        if self._thread != threading.get_ident():
            raise ValueError("the batch is of another thread")
        return self._pointer

    def _find(self, name: str, idx: int | None = None) -> tuple[int, Array, Any]:
        array = self._store[name]
        if idx is not None and not 0 <= idx < len(array):
            raise IndexError(f"{name}: slot {idx} of {len(array)}")
        return self._store._indices[name], array, array._native()

    def _pool(self, name: str) -> tuple[int, Pool]:
        index, array, _ = self._find(name)
        if not isinstance(array, Pool):
            raise ValueError(f"{name} is not a pool")
        return index, array

    def add(self, name: str, record: Any) -> int:
        """Takes a slot, or the next id, and writes a record to it. Returns the index."""
        _ = self._open
        _, array, native = self._find(name)
        if isinstance(array, Pool):
            raise ValueError(f"{name} is a pool: put_chunk adds to it")
        bytes_ = self._bytes_of(array, record)  # before anything is changed
        idx = lib.tslb_py_take(native, array.has_lists)
        if idx == NIL:
            raise FullError(f"{name}: there is no slot for a record")
        self._write(name, idx, bytes_)
        return int(idx)

    def write(self, name: str, idx: int, record: Any) -> None:
        """Writes a whole record: a value of the array's dtype, a tuple of its fields, or bytes. The first word of a
        slot array's record is the library's, and stays."""
        _, array, _ = self._find(name, idx)
        if isinstance(array, Pool):
            raise ValueError(f"{name} is a pool")
        self._write(name, idx, self._bytes_of(array, record))

    def _write(self, name: str, idx: int, bytes_: bytes) -> None:
        index, array, native = self._find(name, idx)
        first = _GATEKEEPER_BYTES if array.has_lists else 0
        if lib.tslb_py_write(self._open, index, native, idx, first, bytes_[first:], len(bytes_) - first) != 0:
            raise MemoryError(f"{name}: slot {idx}")

    @staticmethod
    def _bytes_of(array: Array, record: Any) -> bytes:
        if isinstance(record, (bytes, bytearray, memoryview)):
            bytes_ = bytes(record)
        elif array.dtype is None:
            raise ValueError(f"{array.name} has no dtype, so its records are written as bytes")
        else:
            bytes_ = np.array(record, array.dtype).tobytes()
        if len(bytes_) != array.record_bytes:
            raise ValueError(f"{array.name}: a record has {array.record_bytes} bytes, not {len(bytes_)}")
        return bytes_

    def free(self, name: str, idx: int) -> None:
        """Moves a slot to the free list."""
        self._change(name, idx, 0, 0)

    def inactivate(self, name: str, idx: int, time: int) -> None:
        """Moves an active slot to the inactive list; `time` in seconds."""
        self._change(name, idx, 1, time)

    def activate(self, name: str, idx: int) -> None:
        """Makes an inactive slot active."""
        self._change(name, idx, 2, 0)

    def _change(self, name: str, idx: int, what: int, time: int) -> None:
        _ = self._open
        _, array, native = self._find(name, idx)
        if isinstance(array, Pool) or not array.has_lists or (what != 0 and not array.has_inactive):
            raise ValueError(f"{name} has no such list")
        # Asked before: the library would write a line about a refusal.
        status = lib.tslb_py_status(native, idx)
        if not (status in (2, 3) if what == 0 else status == 1 + what if what == 1 else status == 3):
            raise ValueError(f"{name}: slot {idx} has the status {status}")
        lib.tslb_py_change(native, idx, what, time)

    def put_chunk(self, name: str, data: bytes | bytearray | memoryview, referrer: tuple[int, int, int] = (0, 0, 0),
                  wide: bool = False) -> int:
        """Takes a chunk with these bytes, and returns its address. In a bit-vector pool the length is rounded up to a
        multiple of 8, with zeroes. `referrer` (table, index, offset of the field with the address) is kept in the
        compaction header. FullError: the pool has no room."""
        index, pool = self._pool(name)
        bytes_ = bytes(data)
        if pool.is_bit_vector:
            bytes_ += bytes(-len(bytes_) % 8)
        address, error = ffi.new("uint64_t *"), new_error()
        if lib.tslb_py_put_chunk(self._open, index, wide, bytes_, len(bytes_), referrer, address, error) != 0:
            raise_error(error)
        return int(address[0])

    def delete_chunk(self, name: str, address: int) -> None:
        """Deletes a chunk with a 32-bit address of a pool with headers."""
        index, pool = self._pool(name)
        if not pool.has_headers:
            raise ValueError(f"{name}: chunks of this pool cannot be deleted")
        batch = self._open
        pool.chunk(address)  # IndexError for one outside of the pool
        lib.tslb_py_delete_chunk(batch, index, address)

    def sweep(self, name: str) -> int:
        """Releases empty slots of a pool, and returns their number."""
        index, _ = self._pool(name)
        return int(lib.tslb_py_sweep(self._open, index))

    def set_payload(self, payload: bytes) -> None:
        """Gives the batch a payload of at most 65,536 bytes; the store keeps the last one."""
        error = new_error()
        if lib.tslb_py_set_payload(self._open, payload, len(payload), error) != 0:
            raise_error(error)

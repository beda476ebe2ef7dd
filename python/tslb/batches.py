"""Batches: changes of a store that become durable together."""

from __future__ import annotations

import operator
import threading
from types import TracebackType
from typing import TYPE_CHECKING, Any, NamedTuple

import numpy as np
import numpy.typing as npt

from ._native import FullError, ffi, lib, new_error, raise_error
from ._records import GATEKEEPER_BYTES, checked_dtype, packed
from .arrays import NIL, Array, Pool, checked_index

if TYPE_CHECKING:
    from .stores import Store


class _AddressField(NamedTuple):
    """A record's field that has the address of a chunk."""

    array: str
    referrer: tuple[int, int, int]  # table, index, offset
    n_bytes: int


def _referrer(referrer: tuple[int, int, int] | None) -> list[int]:
    tbl_id, idx, offset = (checked_index(number, "referrer") for number in referrer or (0, 0, 0))
    if not (-1 << 31 <= tbl_id < 1 << 32 and 0 <= idx < 1 << 32 and 0 <= offset < 1 << 15):
        raise ValueError(f"referrer: {(tbl_id, idx, offset)} is no table, index, and offset below 32,768")
    return [tbl_id & 0xFFFFFFFF, idx, offset]


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
        if idx is not None and not 0 <= checked_index(idx, f"{name}: the index") < len(array):
            raise IndexError(f"{name}: slot {idx} of {len(array)}")
        return self._store._indices[name], array, array._native()

    def _pool(self, name: str) -> tuple[int, Pool]:
        index, array, _ = self._find(name)
        if not isinstance(array, Pool):
            raise ValueError(f"{name} is not a pool")
        return index, array

    def add(self, name: str, record: Any) -> int:
        """Takes a slot, or the next id, and writes a record to it. Returns the index. ValueError: a value of the record
        does not fit its field."""
        _ = self._open
        array, native = self._records(name)
        bytes_ = self._bytes_of(array, record)  # before anything is changed
        idx = lib.tslb_py_take(native, array.has_lists)
        if idx == NIL:
            raise FullError(f"{name}: there is no slot for a record")
        self._write(name, idx, bytes_)
        return int(idx)

    def add_many(self, name: str, records: Any) -> npt.NDArray[np.uint32]:
        """Adds the records of a structured array or of a sequence, in one call. Returns their indices. FullError: those
        before the first one without a slot are added; its text has their number."""
        batch = self._open
        array, native = self._records(name)
        if array.dtype is None and not isinstance(records, np.ndarray):
            raise ValueError(f"{name} has no dtype, so its records are added as a structured array")
        dtype = checked_dtype(records.dtype, name) if array.dtype is None else array.dtype
        self._expect_size(array, dtype.itemsize)
        indices = np.empty(len(records), np.uint32)
        n_added = lib.tslb_py_add_many(batch, self._store._indices[name], native, array.has_lists,
                                       GATEKEEPER_BYTES if array.has_lists else 0,
                                       packed(dtype, records, name, (len(records),)).tobytes(), dtype.itemsize,
                                       len(records), ffi.from_buffer("uint32_t[]", indices))
        if n_added != len(records):
            raise FullError(f"{name}: there is a slot for {n_added} of {len(records)} records")
        return indices

    def _records(self, name: str) -> tuple[Array, Any]:
        _, array, native = self._find(name)
        if isinstance(array, Pool):
            raise ValueError(f"{name} is a pool: put_chunk adds to it")
        return array, native

    def write(self, name: str, idx: int, record: Any) -> None:
        """Writes a whole record: a value of the array's dtype, a tuple of its fields, or bytes. The first word of a
        slot array's record is the library's, and stays. ValueError as for `add`."""
        array, _ = self._records(name)
        self._find(name, idx)
        self._write(name, idx, self._bytes_of(array, record))

    def _write(self, name: str, idx: int, bytes_: bytes) -> None:
        first = GATEKEEPER_BYTES if self._store[name].has_lists else 0
        self._write_bytes(name, idx, first, bytes_[first:])

    def _write_bytes(self, name: str, idx: int, offset: int, bytes_: bytes) -> None:
        index, _, native = self._find(name, idx)
        if lib.tslb_py_write(self._open, index, native, idx, offset, bytes_, len(bytes_)) != 0:
            raise MemoryError(f"{name}: slot {idx}")

    @staticmethod
    def _bytes_of(array: Array, record: Any) -> bytes:
        if isinstance(record, (bytes, bytearray, memoryview)):
            bytes_ = bytes(record)
        elif array.dtype is None:
            raise ValueError(f"{array.name} has no dtype, so its records are written as bytes")
        else:
            bytes_ = packed(array.dtype, record, array.name).tobytes()
        Batch._expect_size(array, len(bytes_))
        return bytes_

    @staticmethod
    def _expect_size(array: Array, n_bytes: int) -> None:
        if n_bytes != array.record_bytes:
            raise ValueError(f"{array.name}: a record has {array.record_bytes} bytes, not {n_bytes}")

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
        if not -1 << 63 <= checked_index(time, f"{name}: the time") < 1 << 63:
            raise ValueError(f"{name}: the time {time} does not fit 64 bits")
        if isinstance(array, Pool) or not array.has_lists or (what != 0 and not array.has_inactive):
            raise ValueError(f"{name} has no such list")
        # Asked before: the library would write a line about a refusal.
        status = lib.tslb_py_status(native, idx)
        if not (status in (2, 3) if what == 0 else status == 1 + what if what == 1 else status == 3):
            raise ValueError(f"{name}: slot {idx} has the status {status}")
        lib.tslb_py_change(native, idx, what, time)

    def put_chunk(self, name: str, data: bytes | bytearray | memoryview,
                  referrer: tuple[int, int, int] | None = None, wide: bool = False,
                  of: tuple[str, int, str] | None = None) -> int:
        """Takes a chunk with these bytes, and returns its address. In a bit-vector pool the length is rounded up to a
        multiple of 8, with zeroes. FullError: the pool has no room.

        With `of`, an array of records, an index and a field, the address is also written to that field of the record: 4
        bytes, or 8 for a wide address. Its place is the referrer in the chunk's compaction header. A caller that writes
        the field itself gives the `referrer`: table, index, and offset of the field."""
        index, pool = self._pool(name)
        if not isinstance(data, (bytes, bytearray, memoryview)):
            raise TypeError(f"{name}: a chunk is bytes, not {type(data).__name__}; put_text takes texts")
        field = None
        if of is not None:
            if referrer is not None or wide:
                raise ValueError(f"{name}: `of` says the referrer and the width of the address")
            field = self._address_field(of)
            referrer, wide = field.referrer, field.n_bytes == 8
        bytes_ = bytes(data)
        if pool.is_bit_vector:
            bytes_ += bytes(-len(bytes_) % 8)
        address, error = ffi.new("uint64_t *"), new_error()
        if lib.tslb_py_put_chunk(self._open, index, wide, bytes_, len(bytes_), _referrer(referrer), address,
                                 error) != 0:
            raise_error(error)
        if field is not None:
            self._write_bytes(field.array, field.referrer[1], field.referrer[2],
                              int(address[0]).to_bytes(field.n_bytes, "little"))
        return int(address[0])

    def put_text(self, name: str, text: str, of: tuple[str, int, str] | None = None) -> int:
        """put_chunk with a text in UTF-8. A reader removes the zeroes at the end of a chunk of a bit-vector pool."""
        return self.put_chunk(name, text.encode(), of=of)

    def _address_field(self, of: tuple[str, int, str]) -> _AddressField:
        name, idx, field_name = of
        array, _ = self._records(name)
        self._find(name, idx)
        if array.dtype is None or array.dtype.fields is None or field_name not in array.dtype.fields:
            raise ValueError(f"{name}: the dtype has no field {field_name!r}")
        dtype, offset = array.dtype.fields[field_name][:2]
        if dtype.str not in ("<u4", "|V4", "<u8", "|V8"):
            raise ValueError(f"{name}.{field_name}: an address is <u4, or <u8 in a wide field, not {dtype.str}")
        if array.has_lists and offset < GATEKEEPER_BYTES:
            raise ValueError(f"{name}.{field_name}: is the library's")
        return _AddressField(name, (array.tbl_id, operator.index(idx), offset), dtype.itemsize)

    def delete_chunk(self, name: str, address: int) -> None:
        """Deletes a chunk with a 32-bit address of a pool with headers."""
        index, pool = self._pool(name)
        if not pool.has_headers:
            raise ValueError(f"{name}: chunks of this pool cannot be deleted")
        batch = self._open
        pool.chunk(address)  # IndexError for one outside of the pool
        lib.tslb_py_delete_chunk(batch, index, operator.index(address))

    def sweep(self, name: str) -> int:
        """Releases empty slots of a pool, and returns their number."""
        index, _ = self._pool(name)
        return int(lib.tslb_py_sweep(self._open, index))

    def set_payload(self, payload: bytes) -> None:
        """Gives the batch a payload of at most 65,536 bytes; the store keeps the last one."""
        error = new_error()
        if lib.tslb_py_set_payload(self._open, payload, len(payload), error) != 0:
            raise_error(error)

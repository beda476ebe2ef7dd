"""Arrays and pools, read through their flat image: the headers, then all slots one after the other."""

from __future__ import annotations

import enum
import mmap
import operator
import os
from collections.abc import Callable, Iterator
from typing import Any, NamedTuple

import numpy as np
import numpy.typing as npt

from ._native import Error, Handle, ffi, lib, new_error, raise_error
from ._records import check_size, checked_dtype
from ._sidecar import described_dtype, verify_files

#: End of a list, no slot.
NIL = 0xFFFFFFFF

_FOLDER_BYTES = 32  # of the name of a context, in the folder of data blocks
_MEM_SLOT_HEADER = np.dtype([("bytes_used", "<u4"), ("bytes_deleted", "<u4")])
_COMPAT = np.dtype([("tbl_id", "<u4"), ("idx", "<u4"), ("offset", "<i2"), ("", "V2"), ("flag", "u1"), ("", "V1"),
                    ("length", "<u2")])


class Status(enum.IntEnum):
    """Status of a slot."""

    UNSET = 0
    FREE = 1
    ACTIVE = 2
    INACTIVE = 3
    NOT_READY = 0xFFFFFFFF


class Chunk(NamedTuple):
    """A chunk of a pool with compaction headers: its place, its referrer, and its data."""

    slot: int
    byte: int
    tbl_id: int
    idx: int
    offset: int
    is_deleted: bool
    data: memoryview


def checked_index(value: Any, what: str) -> int:
    """The value as a number, or TypeError."""
    try:
        return operator.index(value)
    except TypeError:
        raise TypeError(f"{what} is a number, not {value!r}") from None


def described(native: Any) -> Any:
    """What the headers of an array in memory say."""
    info = ffi.new("tslb_py_array *")
    lib.tslb_py_describe(native, info)
    return info


def image_bytes(info: Any) -> int:
    return int(info.header_bytes + info.n_used * info.slot_bytes)


class Array:
    """A record array or a slot array.

    An array of a stream, of block files or of a store that was opened to read does not change: results are read-only
    views of one image, valid as long as they are referred to. An array of a store that was opened to write is copied by
    each call."""

    def __init__(self, native: Any, image: Callable[[], memoryview], dtype: npt.DTypeLike = None,
                 changes: bool = False, file: str = "", mapped: Any = None) -> None:
        self._native = native  # of an array in memory
        self._image = image
        self._changes = changes
        self._file = file  # of a stream, which does not contain a name
        self._mapped = mapped  # what the headers of a mapped stream say, whose array is not in memory
        self._cached: memoryview | None = None
        self._dtype: np.dtype[Any] | None = None
        if dtype is not None:
            self.dtype = dtype

    @property
    def dtype(self) -> np.dtype[Any] | None:
        """Type of the records for calls that are given none."""
        return self._dtype

    @dtype.setter
    def dtype(self, dtype: npt.DTypeLike) -> None:
        is_written_slots = self._changes and self.has_lists
        self._dtype = None if dtype is None else checked_dtype(dtype, self.name, is_written_slots)

    @property
    def _info(self) -> Any:
        return described(self._native()) if self._mapped is None else self._mapped

    def __len__(self) -> int:
        """The number of ids that were issued."""
        return int(self._info.n_used)

    def __repr__(self) -> str:
        return f"<{type(self).__name__} {self.name!r}, {len(self)} slots of {self.record_bytes} bytes>"

    @property
    def name(self) -> str:
        """Name of the array; of a stream, that of the file."""
        if self._file:
            return self._file
        info = self._info  # which its field does not keep
        return os.fsdecode(ffi.string(info.name))

    @property
    def tbl_id(self) -> int:
        return int(self._info.tbl_id)

    @property
    def record_bytes(self) -> int:
        """Bytes of a record, without nodes."""
        return int(self._info.record_bytes)

    @property
    def rec_version(self) -> int:
        return int(self._info.rec_version)

    @property
    def n_direct(self) -> int:
        """The number of slots in block 0. Later ones are in blocks of 16."""
        return int(self._info.n_direct)

    @property
    def is_copied(self) -> bool:
        """Whether the image is a copy of the array's memory: by each call, or once if the array does not change."""
        info = self._info
        return self._changes or (self._mapped is None and info.n_used > info.n_direct)

    @property
    def has_lists(self) -> bool:
        return bool(self._info.daflag)

    @property
    def has_inactive(self) -> bool:
        return bool(self._info.daflag & 2)

    @property
    def image(self) -> memoryview:
        """The flat image."""
        if self._changes:
            return self._image()
        if self._cached is None:
            self._cached = self._image()
        return self._cached

    def _column(self, dtype: npt.DTypeLike, at: int, image: memoryview | None = None) -> npt.NDArray[Any]:
        """A field at this byte of every slot."""
        info = self._info
        image = self.image if image is None else image
        n_slots = (len(image) - info.header_bytes) // info.slot_bytes
        if n_slots == 0:
            return np.empty(0, dtype)  # NumPy accepts no field outside of the buffer, not even of no slot
        return np.ndarray((n_slots,), dtype, image, info.header_bytes + at, (info.slot_bytes,))

    def records(self, dtype: npt.DTypeLike = None) -> npt.NDArray[Any]:
        """All records, also those of slots that are not active, by index.

        `dtype` has the bytes of a record. Without one, and without Array.dtype, records are bytes (np.void)."""
        wanted = checked_dtype(dtype, self.name) if dtype is not None else self.dtype
        if wanted is None:
            wanted = np.dtype((np.void, self.record_bytes))
        check_size(wanted, self.name, self.record_bytes)
        return self._column(wanted, self._info.record_at)

    @property
    def status(self) -> npt.NDArray[np.uint32]:
        """The status of each slot (Status). Slots of an array without lists are active."""
        if not self.has_lists:
            return np.full(len(self), Status.ACTIVE, np.uint32)
        return self._column("<u4", 0)

    def active(self) -> npt.NDArray[np.intp]:
        """The indices of active slots, ascending."""
        return np.flatnonzero(self.status == Status.ACTIVE)

    def free(self) -> list[int]:
        """The free list: the slot that is taken next comes first."""
        return self._walk(self._info.free_head, self._info.n_free)

    def inactive(self) -> list[int]:
        """The inactive list: the slot that has been inactive longest comes first."""
        return self._walk(self._info.inactive_head, self._info.n_inactive)

    def times(self) -> npt.NDArray[np.uint32]:
        """When each slot was taken, then when it was inactivated, in seconds; for arrays with an inactive list."""
        if not self.has_inactive:
            raise ValueError(f"{self.name} has no inactive list")
        return self._column("<u4", self._info.slot_bytes - 4)

    def _walk(self, idx: int, n_slots: int) -> list[int]:
        if n_slots == 0:
            return []
        following = self._column("<u4", 4)
        indices: list[int] = []
        while idx < len(following) and len(indices) < n_slots:
            indices.append(int(idx))
            idx = following[idx]
        return indices


class Pool(Array):
    """A chunk pool. Its records are memory slots: two counters, then the chunks."""

    @property
    def is_bit_vector(self) -> bool:
        return bool(self._info.is_bit_vector)

    @property
    def has_headers(self) -> bool:
        """Whether each chunk has a compaction header, with its length."""
        return bool(self._info.has_compat)

    @property
    def slot_bytes(self) -> int:
        """Bytes of a slot that chunks can use."""
        return int(self._info.mslot_bytes)

    @property
    def totals(self) -> dict[str, int]:
        """The counters of the pool's header. `available` is negative once slots were taken again."""
        info = self._info
        return {"bytes": info.pool_bytes, "reserved": info.reserved_bytes, "overhead": info.overhead_bytes,
                "available": info.available_bytes}

    def occupancy(self) -> npt.NDArray[Any]:
        """Per memory slot: status, bytes of chunks, and bytes of deleted ones."""
        return self._occupancy(self.image)

    def _occupancy(self, image: memoryview) -> npt.NDArray[Any]:
        header = self._column(_MEM_SLOT_HEADER, self._info.record_at, image)
        slots = np.empty(len(header), [("status", "<u4"), *_MEM_SLOT_HEADER.descr])
        slots["status"] = self._column("<u4", 0, image) if self.has_lists else Status.ACTIVE
        for name in _MEM_SLOT_HEADER.names or ():
            slots[name] = header[name]
        return slots

    def chunk(self, address: int | np.integer[Any] | bytes | np.void, n_bytes: int | None = None,
              wide: bool = False) -> memoryview:
        """The data of a chunk. In a pool without headers the caller knows its length.

        `address` is the address as a number, or its bytes, as a field of a record has them. 8 bytes are a 64-bit
        address; a number is one with `wide`. The address has to be one that the pool issued: of others, only those that
        lie outside of the pool are refused."""
        if isinstance(address, (bytes, np.void)):
            bytes_ = bytes(address)
            if len(bytes_) not in (4, 8):
                raise ValueError(f"{self.name}: an address has 4 or 8 bytes, not {len(bytes_)}")
            wide = len(bytes_) == 8
            address = int.from_bytes(bytes_, "little")
        address = checked_index(address, f"{self.name}: an address")
        if not 0 <= address < 1 << (64 if wide else 32):
            raise IndexError(f"{self.name}: {address:#x} is no address of {64 if wide else 32} bits")
        if n_bytes is not None and checked_index(n_bytes, f"{self.name}: n_bytes") < 0:
            raise ValueError(f"{self.name}: n_bytes is {n_bytes}")
        slot, byte = ffi.new("uint32_t *"), ffi.new("uint32_t *")
        lib.tslb_py_place(self._info, address, wide, slot, byte)
        record = self._record(slot[0])
        if n_bytes is None:
            if not self.has_headers:
                raise ValueError(f"{self.name}: chunks of this pool have no length")
            n_bytes = int.from_bytes(record[byte[0] - 2:byte[0]], "little")
        data = record[byte[0]:byte[0] + n_bytes]
        if len(data) != n_bytes or byte[0] > len(record):
            raise IndexError(f"{self.name}: {n_bytes} bytes at address {address:#x} are not in the pool")
        return memoryview(bytes(data)) if self._changes else data

    def chunks(self) -> Iterator[Chunk]:
        """The chunks of a pool with headers, in the order of their places, with deleted ones in slots that stay."""
        if not self.has_headers:
            raise ValueError(f"{self.name}: chunks of this pool have no headers, so they are found only by address")
        image = self.image
        for slot, counters in enumerate(self._occupancy(image)):
            if counters["status"] != Status.ACTIVE:
                continue
            record = self._record(slot, image)
            at, end = _MEM_SLOT_HEADER.itemsize, _MEM_SLOT_HEADER.itemsize + int(counters["bytes_used"])
            while at + _COMPAT.itemsize <= min(end, len(record)):
                header = np.frombuffer(record, _COMPAT, 1, at)[0]
                first = at + _COMPAT.itemsize
                past = first + int(header["length"])
                if header["length"] == 0 or past > min(end, len(record)):
                    break
                yield Chunk(slot, at - _MEM_SLOT_HEADER.itemsize, int(header["tbl_id"]), int(header["idx"]),
                            int(header["offset"]), bool(header["flag"] & 1), record[first:past])
                at = past

    def _record(self, slot: int, image: memoryview | None = None) -> memoryview:
        info = self._info
        if slot >= info.n_used:
            raise IndexError(f"{self.name}: slot {slot} of {info.n_used}")
        if self._changes and image is None:
            # The memory of the pool, of which the caller copies a chunk.
            return memoryview(ffi.buffer(lib.tslb_py_record(self._native(), slot), info.record_bytes))
        at = info.header_bytes + slot * info.slot_bytes + info.record_at
        return (self.image if image is None else image)[at:at + info.record_bytes]


def array_of(native: Any, image: Callable[[], memoryview], dtype: npt.DTypeLike = None, changes: bool = False,
             file: str = "", mapped: Any = None) -> Array:
    info = described(native()) if mapped is None else mapped
    return (Pool if info.is_pool else Array)(native, image, dtype, changes, file, mapped)


def copied_image(native: Any) -> memoryview:
    """A flat image of its own, of the slots that the array has now."""
    info = described(native)
    image = bytearray(image_bytes(info))
    lib.tslb_py_flatten(native, info.n_used, ffi.from_buffer(image))
    return memoryview(image).toreadonly()


def native_image(handle: Handle, native: Any) -> memoryview:
    """A view of the array's memory if all slots are in block 0, else a copy."""
    info = described(native)
    if info.n_used > info.n_direct:
        return copied_image(native)
    return handle.view(lib.tslb_py_block0(native), image_bytes(info))


def open_stream(path: str | os.PathLike[str], dtype: npt.DTypeLike = None, *, rebuild_lists: bool = False,
                verify: bool = False) -> Array:
    """Opens a snapshot stream: an Array, or a Pool. Records are views of the mapped file, nothing is copied.

    The stream is loaded and checked as a whole before: DamagedError with the byte. The memory for this is released. No
    program changes the file, not even later; one that writes streams writes new files. Without `dtype`, that of the
    sidecar `path`.tslb is used, if there is one that has a layout. With `verify` the file is compared with the checksum
    in the sidecar before: DamagedError."""
    file = os.fsdecode(path)
    try:
        fd = os.open(path, os.O_RDONLY)
    except OSError as why:
        raise Error(f"{file}: {why.strerror}", file, errno=why.errno or 0) from None
    try:
        return _stream_of(fd, file, dtype, rebuild_lists, verify)
    finally:
        os.close(fd)


def _stream_of(fd: int, file: str, dtype: npt.DTypeLike, rebuild_lists: bool, verify: bool) -> Array:
    """The stream of an open file. The path names it in errors, and its sidecar; another file can be there meanwhile."""
    if verify:
        verify_files(file + ".tslb", lambda _: file, fd)
    error = new_error()
    pointer = lib.tslb_py_load_stream(fd, os.fsencode(file), rebuild_lists, error)
    if pointer == ffi.NULL:
        raise_error(error)
    handle = Handle(pointer, lib.tslb_py_release)
    info = described(pointer)
    n_bytes = image_bytes(info)
    if dtype is None:
        dtype = described_dtype(file + ".tslb", info.record_bytes, info.n_used)
    name = os.path.basename(file)
    # Rebuilt lists are in memory alone, and so is the rest of a last slot that is cut in the file.
    if rebuild_lists or os.fstat(fd).st_size != n_bytes:
        return array_of(lambda: handle.pointer, lambda: native_image(handle, handle.pointer), dtype, file=name)
    mapped = mmap.mmap(fd, n_bytes, access=mmap.ACCESS_READ)

    def image() -> memoryview:
        if mapped.size() < n_bytes:  # of the file
            raise Error(f"{file}: was changed after it was opened", file)
        return memoryview(mapped)

    return array_of(None, image, dtype, file=name, mapped=info)


def open_block_files(base_path: str | os.PathLike[str], name: str, tbl_id: int, dtype: npt.DTypeLike = None, *,
                     rebuild_lists: bool = False, verify: bool = False) -> Array:
    """Opens the block files base_path/name/tbl_id.N.darr, while no process writes them. Records beyond block 0 are
    copied once. With `rebuild_lists` the lists are made from the statuses, for files that a kill left. Without `dtype`,
    that of the sidecar base_path/name/tbl_id.darr.tslb is used, if there is one that has a layout.
    With `verify` the files are compared with the checksums in the sidecar before: DamagedError."""
    if not -1 << 31 <= checked_index(tbl_id, "tbl_id") < 1 << 31:
        raise ValueError(f"tbl_id: {tbl_id} does not fit 32 bits")
    base, whole_name = os.fsdecode(base_path), os.fsdecode(name)
    # Block 0 is in the folder with the whole name, the data blocks are in that with its beginning.
    folders = [os.path.join(base, part) for part in (whole_name, os.fsdecode(os.fsencode(name)[:_FOLDER_BYTES]))]
    sidecar = os.path.join(folders[0], f"{tbl_id}.darr.tslb")
    if verify:
        verify_files(sidecar, lambda number: os.path.join(folders[number != "0"], f"{tbl_id}.{number}.darr"))
    error = new_error()
    pointer = lib.tslb_py_load_block_files(os.fsencode(base_path), os.fsencode(name), tbl_id, rebuild_lists, error)
    if pointer == ffi.NULL:
        raise_error(error)
    handle = Handle(pointer, lib.tslb_py_release)
    if dtype is None:
        info = described(pointer)
        dtype = described_dtype(sidecar, info.record_bytes, info.n_used)
    return array_of(lambda: handle.pointer, lambda: native_image(handle, handle.pointer), dtype)

"""Durable stores: opened to read beside their writer, or to write, in batches."""

from __future__ import annotations

import os
from collections.abc import Iterator, Mapping, Sequence
from typing import Any

import numpy.typing as npt

from ._native import Handle, ffi, lib, new_error, raise_error
from .arrays import Array, array_of, copied_image, native_image
from .batches import Batch
from .declarations import Declaration, checked_dtypes, describe, native_decls


def open_store(folder: str | os.PathLike[str], *, write: bool = False, create: Sequence[Declaration] | None = None,
               dtypes: Mapping[str, npt.DTypeLike] | None = None, shadow: bool = False) -> Store:
    """Opens a durable store.

    To read, also beside its writer, whose later batches it does not see; the state is that of the last durable batch.
    With `write` to change it; with `create`, the declarations of all arrays, it is created if it does not exist, and
    arrays that it does not have are added. `dtypes` are the types of records, by the names of arrays. `shadow` finds
    changes that were not named, which this package cannot make: for arrays that C code in the process changes."""
    return Store(folder, write or create is not None, create, dtypes or {}, shadow)


class _Opened:
    """A store's handle until the store is closed."""

    def __init__(self, handle: Handle) -> None:
        self._handle: Handle | None = handle

    @property
    def is_closed(self) -> bool:
        return self._handle is None

    @property
    def handle(self) -> Handle:
        if self._handle is None:
            raise ValueError("the store is closed")
        return self._handle

    def close(self) -> None:
        self._handle = None


class Store(Mapping[str, Array]):
    """An open store: a mapping of its arrays by their names. A context manager that closes it."""

    def __init__(self, folder: str | os.PathLike[str], write: bool, create: Sequence[Declaration] | None,
                 dtypes: Mapping[str, npt.DTypeLike], shadow: bool) -> None:
        declarations = describe(folder) if create is None else list(create)
        for declaration in declarations:
            if not isinstance(declaration, Declaration):
                raise TypeError(f"create is a list of Declaration, not of {type(declaration).__name__}")
        types = checked_dtypes(dtypes, declarations)
        error = new_error()
        pointer = lib.tslb_py_store_open(os.fsencode(folder), native_decls(declarations), len(declarations), write,
                                         create is not None, shadow, error)
        if pointer == ffi.NULL:
            raise_error(error)
        self._opened = _Opened(Handle(pointer, lambda store: lib.tslb_py_store_close(store, new_error())))
        self._writes = write
        self._indices = {declaration.name: i for i, declaration in enumerate(declarations)}
        self._arrays = {name: self._make_array(i, types.get(name)) for name, i in self._indices.items()}

    def _make_array(self, index: int, dtype: npt.DTypeLike) -> Array:
        # No array refers to the store itself: without such a cycle, the last reference to a store closes it.
        opened = self._opened
        if self._writes:
            # The array is looked up each time: a closed store is noticed.
            def native() -> Any:
                return lib.tslb_py_store_array(opened.handle.pointer, index)

            return array_of(native, lambda: copied_image(native()), dtype, changes=True)
        # Not through _Opened, so that views of a closed store stay valid.
        handle = opened.handle
        pointer = lib.tslb_py_store_array(handle.pointer, index)
        return array_of(lambda: (handle, pointer)[1], lambda: native_image(handle, pointer), dtype)

    @property
    def _open(self) -> Handle:
        return self._opened.handle

    def __getitem__(self, name: str) -> Array:
        if name not in self._arrays:
            raise KeyError(f"the store has no array {name!r}; it has {', '.join(self._arrays)}")
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
        if self._opened.is_closed:
            return
        if self._writes:
            handle = self._open
            error = new_error()
            if lib.tslb_py_store_close(handle.pointer, error) != 0 and error.code == 1:
                raise_error(error)
            ffi.gc(handle.pointer, None)  # it is released already
            self._opened.close()
            if error.code != 0:
                raise_error(error)
        self._opened.close()

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

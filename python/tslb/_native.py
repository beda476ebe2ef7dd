"""The shared object of the package, and its errors as exceptions."""

from __future__ import annotations

import os
import pathlib
from typing import Any

import cffi

_FOLDER = pathlib.Path(__file__).parent

ffi = cffi.FFI()
ffi.cdef((_FOLDER / "_interface.h").read_text())
lib: Any = ffi.dlopen(str(_FOLDER / "_shim.so"))


class Error(Exception):
    """What a file or a store refused. `file` and `byte` say where, `errno` why a system call failed, or 0."""

    def __init__(self, text: str, file: str = "", byte: int = 0, errno: int = 0) -> None:
        super().__init__(text)
        self.file = file
        self.byte = byte
        self.errno = errno


class InvalidError(Error, ValueError):
    """A declaration or a call that is not allowed, as the store says it."""


class NoStoreError(Error):
    """The folder is not a store, or does not exist."""


class LockedError(Error):
    """Another writer has the store, or this process has: a Store that was not closed."""


class DamagedError(Error):
    """Stored bytes are not what a writer left."""


class MismatchError(Error):
    """The store has other arrays than those declared."""


class FullError(Error):
    """A pool has no room for a chunk, or an array for a record. Nothing was changed."""


class RefusedError(Error):
    """A batch was not written. The store has the state of the last durable batch again once it is restored."""


class BrokenError(Error):
    """The store accepts no more batches: close it, and open it again."""


# By tslb_durable_code_t. The others are Error.
_CLASSES: dict[int, type[Error]] = {
    1: InvalidError, 4: NoStoreError, 6: LockedError, 7: DamagedError, 8: MismatchError, 9: FullError,
    10: RefusedError, 11: BrokenError,
}


def new_error() -> Any:
    return ffi.new("tslb_py_error *")


def raise_error(error: Any) -> None:
    """Raises the exception of a filled tslb_py_error."""
    file = os.fsdecode(ffi.string(error.file))
    text = os.fsdecode(ffi.string(error.text))
    if file and file not in text:
        text = f"{file}: {text}"
    raise _CLASSES.get(error.code, Error)(text, file, error.byte, error.errnum)


class Handle:
    """A native object, released when nothing refers to it."""

    def __init__(self, pointer: Any, release: Any) -> None:
        self._pointer = ffi.gc(pointer, release)

    @property
    def pointer(self) -> Any:
        return self._pointer

    def view(self, address: Any, n_bytes: int) -> memoryview:
        """A read-only view of native memory that keeps the object."""
        kept = ffi.gc(ffi.cast("char *", address), lambda _, keep=self: None)
        return memoryview(ffi.buffer(kept, n_bytes)).toreadonly()

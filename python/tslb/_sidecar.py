"""Sidecars of streams and block files, as tslb-inspect --seal writes them: the layout of the records."""

from __future__ import annotations

import errno
import mmap
import os
import re
from collections.abc import Callable
from typing import Any

import numpy as np

from ._native import DamagedError, Error, ffi, lib

_TYPE = re.compile(r"(u|i|f|char|bytes)(8|16|32|64)?(?:\[(\d+)\])?(?::(\d+-\d+))?")


def _crc32c(data: Any) -> int:
    return int(lib.tslb_py_crc32c(ffi.from_buffer(data), len(data), 0))


def field_of(name: str, offset: str, kind: str) -> tuple[str, Any, int]:
    """Name, format and offset for a dtype. Bits of a number are that number, under the name with the bits."""
    matched = _TYPE.fullmatch(kind)
    if matched is None:
        raise ValueError(f"unknown type {kind!r}")
    base, bits, count, places = matched.groups()
    if base in ("char", "bytes"):
        return name, f"{'S' if base == 'char' else 'V'}{int(count)}", int(offset)
    number = f"<{base}{int(bits) // 8}"
    return (f"{name}:{places}" if places else name), (number, (int(count),)) if count else number, int(offset)


def _lines(text: bytes, path: str) -> list[list[str]]:
    """The words of each line but the last one, which is the checksum of the others."""
    body, _, last = text[:-1].rpartition(b"\n")
    if not text.startswith(b"tslb-sidecar ") or not text.endswith(b"\n"):
        raise DamagedError(f"{path}: is not a sidecar", path)
    if text.split(b"\n", 1)[0] != b"tslb-sidecar 1":
        raise DamagedError(f"{path}: has a version that this package does not read", path)
    if last != b"crc32c %08x" % _crc32c(body + b"\n"):
        raise DamagedError(f"{path}: wrong checksum, or unexpected end", path)
    return [line.split(" ") for line in body.decode("utf-8", "surrogateescape").split("\n")]


def described_dtype(path: str | os.PathLike[str], record_bytes: int, n_slots: int) -> np.dtype[Any] | None:
    """The dtype of the records, or None without a sidecar or without a layout in it. DamagedError for a damaged
    sidecar, and for that of another array. The contents of the array's files are not compared with their checksums."""
    name = os.fsdecode(path)
    try:
        with open(path, "rb") as file:
            lines = _lines(file.read(), name)
    except FileNotFoundError:
        return None
    try:
        geometry = next(words for words in lines if words[0] == "geometry")
        sealed = dict(zip(geometry[1::2], map(int, geometry[2::2])))
        if (sealed["record_bytes"], sealed["slots"]) != (record_bytes, n_slots):
            raise DamagedError(f"{name}: seals an array of another size", name)
        fields = [field_of(*words[1:]) for words in lines if words[0] == "field"]
        if not fields:
            return None
        names, formats, offsets = zip(*fields)
        return np.dtype({"names": names, "formats": formats, "offsets": offsets, "itemsize": record_bytes})
    except (StopIteration, KeyError, TypeError, ValueError) as error:
        raise DamagedError(f"{name}: is not a sidecar that tslb-inspect writes: {error}", name) from None


def verify_files(path: str, file_of: Callable[[str], str], fd: int | None = None) -> None:
    """Compares files, which `file_of` finds by their numbers, with lengths and checksums in the sidecar. `fd`: the open
    file of a stream, of which the path is a name alone."""
    try:
        with open(path, "rb") as file:
            lines = _lines(file.read(), path)
    except FileNotFoundError:
        raise Error(f"{path}: there is no sidecar to verify with", path, errno=errno.ENOENT) from None
    for words in lines:
        if words[0] == "file":
            _verify_file(file_of(words[1]), fd, int(words[3]), int(words[5], 16))


def _verify_file(path: str, fd: int | None, n_bytes: int, checksum: int) -> None:
    try:
        with open(path if fd is None else fd, "rb", closefd=fd is None) as file:
            found = os.fstat(file.fileno()).st_size
            if found != n_bytes:
                raise DamagedError(f"{path}: has {found} bytes, but {n_bytes} were sealed", path)
            with mmap.mmap(file.fileno(), 0, access=mmap.ACCESS_READ) as contents:
                if _crc32c(contents) != checksum:
                    raise DamagedError(f"{path}: the contents are not those that were sealed", path)
    except OSError as why:
        raise Error(f"{path}: {why.strerror}", path, errno=why.errno or 0) from None

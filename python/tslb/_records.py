"""Types of records that can be stored, and values as the bytes of records."""

from __future__ import annotations

from typing import Any

import numpy as np
import numpy.typing as npt

GATEKEEPER_BYTES = 4  # the library's word at the front of a slot's record


def checked_dtype(dtype: npt.DTypeLike, name: str, is_slots: bool = False) -> np.dtype[Any]:
    """The dtype of the array `name`, or ValueError: with Python objects, which are addresses in this process, or for a
    slot array with other fields in the first word."""
    try:
        checked = np.dtype(dtype)
    except TypeError as why:
        raise ValueError(f"{name}: {why}") from None
    if checked.hasobject:
        raise ValueError(f"{name}: the dtype has Python objects, which cannot be stored")
    if is_slots and not _begins_with_word(checked):
        raise ValueError(f"{name}: the first {GATEKEEPER_BYTES} bytes of a slot's record are the library's: begin the "
                         'dtype with ("gatekeeper", "<u4"), or use Kind.RECORDS')
    return checked


def _begins_with_word(dtype: np.dtype[Any]) -> bool:
    if dtype.fields is None:
        return False
    first = [field[:2] for field in dtype.fields.values() if field[1] < GATEKEEPER_BYTES]
    return len(first) == 1 and first[0][1] == 0 and (first[0][0].str == "<u4" or _begins_with_word(first[0][0]))


def check_size(dtype: np.dtype[Any], name: str, record_bytes: int) -> None:
    if dtype.itemsize != record_bytes:
        raise ValueError(f"{name}: a record has {record_bytes} bytes, but the dtype {dtype.itemsize}")


def packed(dtype: np.dtype[Any], values: Any, name: str, shape: tuple[int, ...] = ()) -> npt.NDArray[Any]:
    """Records with these values, or ValueError with the field that has no place for its value. Padding is zero."""
    records = np.zeros(shape, dtype)
    _fill(records, values, name)
    return records


def _fill(to: npt.NDArray[Any], value: Any, place: str) -> None:
    names = to.dtype.names
    if names is None:
        _fill_field(to, value, place)
    elif isinstance(value, (np.void, np.ndarray)) and value.dtype.names is not None:
        if value.shape != to.shape:
            raise ValueError(f"{place}: has the shape {to.shape}, not {value.shape}")
        if value.dtype == to.dtype:
            to[...] = value
        elif value.dtype.names != names:
            raise ValueError(f"{place}: the fields are {', '.join(names)}, not {', '.join(value.dtype.names)}")
        else:
            for field in names:
                _fill(to[field], value[field], f"{place}.{field}")
    elif not isinstance(value, (tuple, list)):
        raise ValueError(f"{place}: {_shown(value)} is no tuple of {', '.join(names)}")
    elif to.ndim > 0:
        _expect_count(value, len(to), f"{place}: has {len(to)} records")
        for i, part in enumerate(value):
            _fill(to[i, ...], part, f"{place}[{i}]")
    else:
        _expect_count(value, len(names), f"{place}: a record has the {len(names)} fields {', '.join(names)}")
        for field, part in zip(names, value):
            _fill(to[field], part, f"{place}.{field}")


def _expect_count(values: Any, count: int, text: str) -> None:
    if len(values) != count:
        raise ValueError(f"{text}, not {len(values)}")


def _fill_field(to: npt.NDArray[Any], value: Any, place: str) -> None:
    if _fits_as_it_is(value, to.dtype):
        to[...] = value
        return
    source = np.asarray(bytes(value) if isinstance(value, (bytearray, memoryview)) else value)
    try:
        with np.errstate(all="ignore"):
            made = _CONVERSIONS.get(to.dtype.kind, _number)(source, to.dtype)
        to[...] = np.broadcast_to(made, to.shape)
    except _Misfit as misfit:
        at = misfit.at
        raise ValueError(f"{place}{''.join(f'[{i}]' for i in at)}: {_shown(source[at] if at else value)} does not fit "
                         f"{to.dtype.str.lstrip('|')}") from None
    except (TypeError, ValueError, OverflowError) as why:
        raise ValueError(f"{place}: {_shown(value)} is no {to.dtype.str.lstrip('|')}: {why}") from None


def _fits_as_it_is(value: Any, dtype: np.dtype[Any]) -> bool:
    """Whether NumPy stores a single value unchanged: the common case, in a tenth of the time."""
    if type(value) is int:
        bits = 8 * dtype.itemsize
        return (dtype.kind == "u" and 0 <= value < 1 << bits) or (dtype.kind == "i" and abs(value) < 1 << bits - 1)
    if type(value) is float:
        return dtype.kind == "f" and dtype.itemsize >= 4 and abs(value) < 3e38
    return type(value) is bytes and dtype.kind == "S" and len(value) <= dtype.itemsize


class _Misfit(Exception):
    """A value would be stored as another one: the first one of those that are lost."""

    def __init__(self, is_lost: Any) -> None:
        super().__init__()
        self.at: tuple[int, ...] = tuple(int(i) for i in np.argwhere(is_lost)[0]) if np.ndim(is_lost) else ()


def _expect_none(is_lost: Any) -> None:
    if np.any(is_lost):
        raise _Misfit(is_lost)


def _shown(value: Any) -> str:
    if isinstance(value, (np.datetime64, np.timedelta64)):
        text = str(value)
    else:
        text = repr(value.item() if isinstance(value, np.generic) else value)
    return text if len(text) <= 60 else text[:57] + "..."


def _number(source: npt.NDArray[Any], dtype: np.dtype[Any]) -> npt.NDArray[Any]:
    if source.dtype.kind not in "biufcO":
        raise TypeError("not a number")
    if source.dtype.kind == "c" and dtype.kind != "c":
        raise TypeError("a complex number")
    if source.dtype.kind == "O" and dtype.kind in "iu":  # numbers that NumPy cannot cast
        _expect_none(np.asarray(abs(source) >= 1 << 64, bool))
    made = source.astype(dtype)
    if dtype.kind in "fc":  # fewer digits are no misfit
        is_lost = np.isinf(made) & np.isfinite(source.astype(np.result_type(source, dtype)))
    else:
        is_lost = made != source
        if source.dtype.kind == "f":  # the largest number, which a processor may return, is rounded to 2^64
            is_lost |= source >= float(1 << 8 * dtype.itemsize)
    _expect_none(is_lost)
    return made


def _text(source: npt.NDArray[Any], dtype: np.dtype[Any]) -> npt.NDArray[Any]:
    if source.dtype.kind not in "SU":
        raise TypeError("not a text")
    width = dtype.itemsize // np.dtype(dtype.kind + "1").itemsize
    _expect_none(np.char.str_len(source) > width)
    return source.astype(dtype)


def _bytes(source: npt.NDArray[Any], dtype: np.dtype[Any]) -> npt.NDArray[Any]:
    if source.dtype.kind not in "SV" or source.dtype.names is not None:
        raise TypeError("not bytes")
    _expect_none(source.dtype.itemsize > dtype.itemsize)
    return source.astype(dtype)


def _time(source: npt.NDArray[Any], dtype: np.dtype[Any]) -> npt.NDArray[Any]:
    if source.dtype.kind in "OU":
        source = source.astype(f"{dtype.kind}8" if source.dtype.kind == "U" else f"{dtype.kind}8[us]")
    if source.dtype.kind not in "iu" + dtype.kind:
        raise TypeError("neither a time nor an integer")
    made = source.astype(dtype)
    _expect_none((made.astype(source.dtype) != source) & (source == source))  # NaT differs from itself
    return made


_CONVERSIONS = {"S": _text, "U": _text, "V": _bytes, "M": _time, "m": _time}

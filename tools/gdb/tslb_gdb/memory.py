"""Reads the inferior's memory by address.

Types of the inferior are not used, because the library and the host can lack debug information. No function of the
inferior is called, because a core cannot run and a stopped thread can hold the lock.
"""

import struct

import gdb

NULL_TEXT = "null"
DUMPED_BYTES = 64


class Unreadable(Exception):
    """Memory cannot be read. The text has the address."""


def pointer_text(address):
    return "0x%x" % address if address else NULL_TEXT


def read(address, count):
    address &= 2**64 - 1
    if address == 0:
        raise Unreadable("null pointer")
    try:
        return gdb.selected_inferior().read_memory(address, count).tobytes()
    except (gdb.error, OverflowError):  # includes gdb.MemoryError
        raise Unreadable("%d bytes at 0x%x cannot be read" % (count, address)) from None


def read_as(layout, address):
    """Reads a named tuple whose class has FORMAT."""
    return layout(*struct.unpack(layout.FORMAT, read(address, struct.calcsize(layout.FORMAT))))


def read_pointers(address, count):
    return struct.unpack("<%dQ" % count, read(address, 8 * count))


def dump(address, count):
    """Returns lines of hexadecimal and text, or one line if the memory cannot be read."""
    try:
        data = read(address, min(count, DUMPED_BYTES))
    except Unreadable as problem:
        return ["unreadable: %s" % problem]
    lines = []
    for at in range(0, len(data), 16):
        row = data[at : at + 16]
        text = "".join(chr(byte) if 32 <= byte < 127 else "." for byte in row)
        lines.append("%4d: %-47s  %s" % (at, " ".join("%02x" % byte for byte in row), text))
    if count > len(data):
        lines.append("      and %d bytes more" % (count - len(data)))
    return lines

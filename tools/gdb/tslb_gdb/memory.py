"""The inferior's memory, word by word, by address alone.

Nothing here asks for a type: the library carries no debug information, and a host may carry none either. Nothing is
called in the inferior: a core has no process that could run, and a stopped thread may hold the lock.
"""

import struct

import gdb

NULL_TEXT = "null"
DUMPED_BYTES = 64


class Unreadable(Exception):
    """Memory that is not there. The text says which."""


def shown(address):
    return "0x%x" % address if address else NULL_TEXT


def read(address, count):
    address &= 2**64 - 1
    if address == 0:
        raise Unreadable("null pointer")
    try:
        return gdb.selected_inferior().read_memory(address, count).tobytes()
    except (gdb.error, OverflowError):  # gdb.MemoryError among them
        raise Unreadable("%d bytes at 0x%x cannot be read" % (count, address)) from None


def read_as(layout, address):
    """A named tuple from memory; its class carries FORMAT."""
    return layout(*struct.unpack(layout.FORMAT, read(address, struct.calcsize(layout.FORMAT))))


def read_pointers(address, count):
    return struct.unpack("<%dQ" % count, read(address, 8 * count))


def dump(address, count):
    """Lines of hexadecimal and text; one that says so where memory is missing."""
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

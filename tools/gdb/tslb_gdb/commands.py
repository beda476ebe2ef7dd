"""The command `tslb`, the function $tslb_record and the printers of handles."""

import gdb
import gdb.printing

from .array import Array
from .lists import LIMIT, walk
from .memory import Unreadable
from .text import address, parts, slot, summary

WORD = 2**64 - 1
SCALARS = (gdb.TYPE_CODE_PTR, gdb.TYPE_CODE_INT, gdb.TYPE_CODE_ENUM, gdb.TYPE_CODE_CHAR, gdb.TYPE_CODE_BOOL)
REFERENCES = (gdb.TYPE_CODE_REF, gdb.TYPE_CODE_RVALUE_REF)


# ---- Arguments ----


def evaluate(text):
    """Value of an expression. An expression that calls a function of the inferior is an error."""
    allowed = gdb.parameter("may-call-functions")
    gdb.execute("set may-call-functions off", to_string=True)
    try:
        value = gdb.parse_and_eval(text)
        value.fetch_lazy()
    except gdb.error as problem:
        raise gdb.GdbError(str(problem)) from None
    finally:
        if allowed:
            gdb.execute("set may-call-functions on", to_string=True)
    return value


def plain(value):
    """The value without reference, and its type without typedefs."""
    if value.type.strip_typedefs().code in REFERENCES:
        value = value.referenced_value()
    return value, value.type.strip_typedefs()


def array_of(value):
    """The array of a handle, a pointer to a handle, or the address of a handle."""
    value, kind = plain(value)
    if kind.code == gdb.TYPE_CODE_STRUCT and value.address is not None:
        return Array(int(value.address))
    if kind.code in SCALARS:
        return Array(int(value) & WORD)
    raise gdb.GdbError("not a handle: a %s" % value.type)


def number_of(value):
    value, kind = plain(value)
    if kind.code not in SCALARS:
        raise gdb.GdbError("not a number: a %s" % value.type)
    return int(value) & WORD


def chunk_address_of(value):
    """(word, whether it is a 64-bit address). The width of the type decides. A structure need not be in memory."""
    value, kind = plain(value)
    if kind.code != gdb.TYPE_CODE_STRUCT:
        return number_of(value), kind.sizeof == 8
    names = [field.name for field in kind.fields()]
    if "mslot_idx" not in names or "mchunk_idx" not in names:
        raise gdb.GdbError("not a chunk address: a %s" % value.type)
    slot_idx, chunk_idx = int(value["mslot_idx"]), int(value["mchunk_idx"])
    if kind.sizeof == 8:
        return slot_idx | chunk_idx << 32, True
    if "mslotgroup_idx" in names:
        return slot_idx | int(value["mslotgroup_idx"]) << 8 | chunk_idx << 11, False
    return slot_idx | chunk_idx << 8, False


# ---- Commands ----


class Tslb(gdb.Command):
    """Show arrays and pools of libtslb.

HANDLE is a handle, a pointer to a handle, or the address of a handle. The commands call and change nothing in the
program. Arguments are expressions. Quote an expression that contains blanks."""

    def __init__(self):
        super().__init__("tslb", gdb.COMMAND_DATA, prefix=True)


class SubCommand(gdb.Command):
    """Base of the commands below `tslb`. `lines` takes min_args to max_args arguments and yields the output."""

    def __init__(self, name, min_args, max_args):
        self.name, self.min_args, self.max_args = name, min_args, max_args
        super().__init__("tslb " + name, gdb.COMMAND_DATA, gdb.COMPLETE_EXPRESSION)

    def invoke(self, argument, from_tty):
        words = gdb.string_to_argv(argument)
        if not self.min_args <= len(words) <= self.max_args:
            text = "%d arguments; quote an argument that contains blanks. See: help tslb %s"
            raise gdb.GdbError(text % (len(words), self.name))
        try:
            for line in self.lines(*words):
                print(line)
        except Unreadable as problem:
            raise gdb.GdbError(str(problem)) from None


class Show(SubCommand):
    """tslb show HANDLE: the handle, the headers of block 0, list roots and levels."""

    def lines(self, handle):
        for name, text in parts(array_of(evaluate(handle))):
            yield "%-11s  %s" % (name, text)


class Slot(SubCommand):
    """tslb slot HANDLE IDX: a slot, its nodes and the first bytes of its record."""

    def lines(self, handle, idx):
        return slot(array_of(evaluate(handle)), number_of(evaluate(idx)))


class List(SubCommand):
    """tslb list HANDLE free|inactive [LIMIT]: the slots of a list in list order, at most LIMIT (default 100)."""

    def lines(self, handle, which, limit=None):
        if which not in ("free", "inactive"):
            raise gdb.GdbError("unknown list %s: use free or inactive" % which)
        return walk(array_of(evaluate(handle)), which, number_of(evaluate(limit)) if limit else LIMIT)


class ChunkAddress(SubCommand):
    """tslb address HANDLE ADDRESS: the chunk at an address of a pool.

ADDRESS is a maddr_t, a maddr64_t or a number. A number of 8 bytes is a 64-bit address."""

    def lines(self, handle, chunk_address):
        return address(array_of(evaluate(handle)), *chunk_address_of(evaluate(chunk_address)))


class RecordFunction(gdb.Function):
    """$tslb_record(HANDLE, IDX): the record of a slot as a void *, null if it has no memory."""

    def __init__(self):
        super().__init__("tslb_record")

    def invoke(self, handle, idx):
        try:
            at = array_of(handle).record_at(number_of(idx))
        except Unreadable:
            at = 0
        return gdb.Value(at).cast(gdb.lookup_type("void").pointer())


# ---- Printers ----


class HandlePrinter:
    """Prints a handle: the parts of the array as children."""

    def __init__(self, value):
        self.array = Array(int(value.address))

    def to_string(self):
        return summary(self.array)

    def children(self):
        return parts(self.array)


class HandlePointerPrinter:
    """Prints a pointer to a handle in one line, to keep backtraces short."""

    def __init__(self, value):
        self.array = Array(int(value))

    def to_string(self):
        return summary(self.array)


class HandlePrinters(gdb.printing.PrettyPrinter):
    """Chooses the printer by the name of the structure without typedefs."""

    def __init__(self):
        super().__init__("tslb")

    def __call__(self, value):
        kind = value.type.strip_typedefs()
        if kind.code == gdb.TYPE_CODE_PTR and kind.target().strip_typedefs().tag == "DynArrHandle_t":
            return HandlePointerPrinter(value)
        if kind.tag == "DynArrHandle_t" and value.address is not None:
            return HandlePrinter(value)
        return None


def register(objfile):
    """Registers everything. gdb keeps the commands; it removes the printers when the library is unloaded."""
    Tslb()
    Show("show", 1, 1)
    Slot("slot", 2, 2)
    List("list", 2, 3)
    ChunkAddress("address", 2, 2)
    RecordFunction()
    gdb.printing.register_pretty_printer(objfile, HandlePrinters(), replace=True)

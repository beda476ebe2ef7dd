"""Arrays: the handle, block 0, and the tables with the addresses of data blocks.

The offsets here do not change between versions of the library: block 0 and slots are stored formats, and the
handle is a public structure of one cache line.
"""

from collections import namedtuple
from functools import cached_property

from .memory import Unreadable, read_as, read_pointers
from .stored import TSLB_DA_DAFLAG_INLL as FLAG_INLL
from .stored import TSLB_DA_DAFLAG_LL as FLAG_LL
from .stored import TSLB_ARR_HDR_BYTES, TSLB_LLI_BYTES
from .stored import TSLB_DA_NIL_IDX as NIL_IDX
from .stored import TSLB_ENTRIES_PER_TABLE as ENTRIES_PER_TABLE
from .stored import TSLB_LEVELS as LEVELS
from .stored import TSLB_NODE_BYTES as NODE_BYTES
from .stored import TSLB_SLOTS_PER_BLOCK as SLOTS_PER_BLOCK

MPOOL_TYPE_SHM = 1
MPOOL_TYPE_DRAM_TMP = 5
# Tables for 16 million records. Reading them takes a second.
MAX_TABLES_READ = 70000


class Handle(namedtuple("Handle", "arr_base ir_base ctx_name tbl_id mem_type daflag spinlock n_direct")):
    FORMAT = "<QQ33s3xIbBHI"


class DynHdr(namedtuple("DynHdr", "lib_version rec_version pad hdr_size lli_sz")):
    FORMAT = "<BBHHH"


class ListRoots(
    namedtuple(
        "ListRoots", "free_head free_tail inact_head inact_tail n_inact n_act n_free lltype policy_use"
    )
):
    FORMAT = "<7IB3xB"
    BYTES = TSLB_LLI_BYTES


class ArrHdr(namedtuple("ArrHdr", "n_alloc n_used n_direct record_size")):
    FORMAT = "<4I"
    BYTES = TSLB_ARR_HDR_BYTES


class NodeFw(namedtuple("NodeFw", "status next")):
    FORMAT = "<II"


class NodeBw(namedtuple("NodeBw", "prev ts")):
    FORMAT = "<II"


# The tables and blocks of one level. `complete` is False if not all of them were counted.
Level = namedtuple("Level", "number tables blocks complete first_id last_id n_issued")


def first_of_level(level):
    """First number of a level, counted from the end of the direct area: 0, 0x100, 0x1100 ..."""
    return 0x11111100 & ((1 << 4 * (level + 1)) - 1)


def _can_be_read(part):
    try:
        part()
        return True
    except Unreadable:
        return False


class Array:
    """An array in the inferior. Each part is read on first use, which can raise Unreadable."""

    def __init__(self, address):
        self.address = address

    @cached_property
    def handle(self):
        return read_as(Handle, self.address)

    @property
    def is_readable(self):
        return _can_be_read(lambda: self.handle)

    @property
    def has_block0(self):
        return _can_be_read(lambda: self.dyn_hdr)

    @property
    def name(self):
        return self.handle.ctx_name.split(b"\0")[0].decode("utf-8", "backslashreplace")

    # ---- Block 0 ----

    @cached_property
    def dyn_hdr(self):
        return read_as(DynHdr, self.handle.arr_base)

    @property
    def user_hdr_at(self):
        return self.handle.arr_base + 8

    @property
    def lists_at(self):
        return self.user_hdr_at + self.dyn_hdr.hdr_size

    @cached_property
    def lists(self):
        if self.dyn_hdr.lli_sz < ListRoots.BYTES:
            raise Unreadable("no list roots: lli_sz is %d" % self.dyn_hdr.lli_sz)
        return read_as(ListRoots, self.lists_at)

    @property
    def arr_hdr_at(self):
        return self.lists_at + self.dyn_hdr.lli_sz

    @cached_property
    def arr_hdr(self):
        return read_as(ArrHdr, self.arr_hdr_at)

    # ---- Slots ----

    @property
    def has_nodes(self):
        return self.handle.daflag & (FLAG_LL | FLAG_INLL) != 0

    @property
    def has_inactive_list(self):
        return self.handle.daflag & FLAG_INLL != 0

    @property
    def shift(self):
        return NODE_BYTES if self.has_nodes else 0

    @property
    def slot_bytes(self):
        return self.arr_hdr.record_size + self.shift + (NODE_BYTES if self.has_inactive_list else 0)

    @property
    def n_direct(self):
        """The value that the library uses. If block 0 is a mapped file, other processes can change its header."""
        return self.handle.n_direct if self.handle.mem_type == MPOOL_TYPE_SHM else self.arr_hdr.n_direct

    def place_of(self, idx):
        """(level, block number) of an index. Level 0 is block 0; (None, None) if no level holds the index."""
        if idx < self.n_direct:
            return 0, 0
        beyond = idx - self.n_direct
        for level in range(1, LEVELS + 1):
            if beyond < first_of_level(level + 1):
                return level, beyond // SLOTS_PER_BLOCK + 1
        return None, None

    def record_at(self, idx):
        """Address of a record, even if its id was not issued. Raises Unreadable if the record has no memory."""
        level, _ = self.place_of(idx)
        if level is None:
            raise Unreadable("no level holds slot %d" % idx)
        if level == 0:
            return self.arr_hdr_at + ArrHdr.BYTES + idx * self.slot_bytes + self.shift
        beyond = idx - self.n_direct
        in_level = beyond - first_of_level(level)
        at = self.root_of(level)
        for digit in range(4 * level, 0, -4):
            if at == 0:
                break
            at = read_pointers(at, ENTRIES_PER_TABLE)[in_level >> digit & 15]
        if at == 0:
            raise Unreadable("slot %d has no memory" % idx)
        return at + beyond % SLOTS_PER_BLOCK * self.slot_bytes + self.shift

    def node_fw(self, record):
        return read_as(NodeFw, record - NODE_BYTES)

    def node_bw(self, record):
        return read_as(NodeBw, record + self.arr_hdr.record_size)

    # ---- Levels ----

    @cached_property
    def roots(self):
        return read_pointers(self.handle.ir_base, LEVELS) if self.handle.ir_base else (0,) * LEVELS

    def root_of(self, level):
        return self.roots[level - 1]

    def levels(self):
        """The levels that have a table. A table that cannot be read is counted, without blocks."""
        budget = MAX_TABLES_READ
        for number in range(1, LEVELS + 1):
            if not self.root_of(number):
                continue
            tables, blocks, complete = self._count(self.root_of(number), number, budget)
            budget -= tables
            first = self.n_direct + first_of_level(number)
            end = self.n_direct + first_of_level(number + 1)
            issued = max(0, min(self.arr_hdr.n_used, end) - first)
            yield Level(number, tables, blocks, complete, first, end - 1, issued)

    @staticmethod
    def _count(root, tiers, budget):
        tables = blocks = 0
        complete = True
        waiting = [(root, tiers)]
        while waiting:
            if tables >= budget:
                return tables, blocks, False
            at, tier = waiting.pop()
            tables += 1
            try:
                below = [entry for entry in read_pointers(at, ENTRIES_PER_TABLE) if entry]
            except Unreadable:
                complete = False
                continue
            if tier == 1:
                blocks += len(below)
            else:
                waiting.extend((entry, tier - 1) for entry in below)
        return tables, blocks, complete

"""Chunk pools: the header of an array whose records are memory slots, and the addresses of chunks."""

from collections import namedtuple

from .array import MPOOL_TYPE_DRAM_TMP
from .memory import Unreadable, read_as
from .stored import MCHUNK_FLAG_DELETED as CHUNK_DELETED
from .stored import MPOOL_FLAG_BV as FLAG_BV
from .stored import MPOOL_FLAG_COMPAT as FLAG_COMPAT
from .stored import MPOOL_FLAG_PERSIST as FLAG_PERSIST
from .stored import TSLB_BV_SLOT_BITS, TSLB_BV_UNIT_BYTES, TSLB_POOL_HDR_BYTES
from .stored import TSLB_COMPAT_BYTES as COMPAT_BYTES
from .stored import TSLB_MEM_SLOT_HDR_BYTES as SLOT_HDR_BYTES



class PoolHdr(
    namedtuple(
        "PoolHdr",
        "flag pad max_slots mslot_sz cursor total_msz total_mused total_mwast total_mdel total_mavail",
    )
):
    FORMAT = "<BBhI5Qq"  # total_mavail is signed: it can be negative
    BYTES = TSLB_POOL_HDR_BYTES


class MemSlot(namedtuple("MemSlot", "bytes_used bytes_del")):
    FORMAT = "<II"


class Compat(namedtuple("Compat", "tbl_id tbl_idx tbl_moff flag pad mchunk_len")):
    FORMAT = "<IIhxxBBH"


class Compat64(namedtuple("Compat64", "tbl_id tbl_idx tbl_moff flag pad mchunk_len")):
    FORMAT = "<IIIBBH"


Address = namedtuple("Address", "kind slot_idx byte_off")


class Pool:
    """The pool of an array. Raises Unreadable if the user header is not a pool's."""

    def __init__(self, array):
        self.array = array
        if array.dyn_hdr.hdr_size != PoolHdr.BYTES:
            raise Unreadable("not a pool: its user header has %d bytes" % array.dyn_hdr.hdr_size)
        self.hdr = read_as(PoolHdr, array.user_hdr_at)
        # Another array can have a user header of the same length.
        if self.hdr.mslot_sz + SLOT_HDR_BYTES != array.arr_hdr.record_size:
            raise Unreadable("not a pool: its records are not memory slots of %d bytes" % self.hdr.mslot_sz)

    @property
    def has_compat(self):
        return self.hdr.flag & FLAG_COMPAT != 0

    @property
    def is_bitvector(self):
        return self.hdr.flag & FLAG_BV != 0

    @property
    def kind(self):
        if not self.is_bitvector:
            return "big-buffer pool"
        ring = self.array.handle.mem_type == MPOOL_TYPE_DRAM_TMP
        return "bit-vector ring" if ring else "bit-vector pool"

    @property
    def cursor(self):
        """(slot, offset). The slot is NIL_IDX before the first chunk."""
        return self.hdr.cursor & 0xFFFFFFFF, self.hdr.cursor >> 32

    def decode(self, word, is_64):
        if is_64:
            return Address("64-bit", word & 0xFFFFFFFF, word >> 32)
        if self.is_bitvector:
            slot_idx = word & ((1 << TSLB_BV_SLOT_BITS) - 1)
            return Address("bit-vector", slot_idx, (word >> TSLB_BV_SLOT_BITS) * TSLB_BV_UNIT_BYTES)
        return Address("big-buffer", word & 0xFF, word >> 8)

    def mem_slot(self, record):
        return read_as(MemSlot, record)

    def compat(self, chunk, is_64):
        return read_as(Compat64 if is_64 else Compat, chunk)

"""Output texts. A part that cannot be read becomes a line with the reason."""

from . import stored
from .array import NIL_IDX
from .memory import NULL_TEXT, Unreadable, dump, pointer_text, read
from .pool import (
    CHUNK_DELETED,
    COMPAT_BYTES,
    FLAG_BV,
    FLAG_COMPAT,
    FLAG_PERSIST,
    SLOT_HDR_BYTES,
    Pool,
)

STATUS_NAMES = {
    getattr(stored, "TSLB_DA_SLOT_" + name): name for name in ("UNSET", "FREE", "ACTIVE", "INACTIVE", "NOT_READY")
}
MEM_TYPE_NAMES = ("DRAM", "SHM", "PMEM", "PMEM_TMP", "SHM_TMP", "DRAM_TMP")
USER_HDR_SHOWN = 16


def status_name(status):
    return STATUS_NAMES.get(status, "unknown status %d" % status)


def idx_text(idx):
    return "none" if idx == NIL_IDX else str(idx)


def flag_names(value, names):
    """Names of the set bits, and the unnamed bits as a number."""
    found = [name for bit, name in names if value & bit]
    rest = value & ~sum(bit for bit, _ in names)
    return "|".join(found + (["0x%x" % rest] if rest else [])) or "none"


def plural(count, noun):
    return "%d %s%s" % (count, noun, "" if count == 1 else "s")


# ---- A handle ----


def summary(array):
    """One line about a handle."""
    if array.address == 0:
        return NULL_TEXT
    try:
        handle = array.handle
        lead = '0x%x "%s" %d' % (array.address, array.name, handle.tbl_id)
    except Unreadable as problem:
        return "0x%x (unreadable: %s)" % (array.address, problem)
    try:
        hdr = array.arr_hdr
        return "%s: %d used, %d allocated, records of %d" % (lead, hdr.n_used, hdr.n_alloc, hdr.record_size)
    except Unreadable as problem:
        return "%s: block 0 unreadable: %s" % (lead, problem)


def _handle(array):
    handle = array.handle
    known = 0 <= handle.mem_type < len(MEM_TYPE_NAMES)
    mem_type = MEM_TYPE_NAMES[handle.mem_type] if known else "memory type %d" % handle.mem_type
    lock = {0: "free", 1: "held"}.get(handle.spinlock, "damaged (%d)" % handle.spinlock)
    flags = flag_names(handle.daflag, ((1, "LL"), (2, "INLL")))
    return '"%s" %d, %s, daflag %s, lock %s, n_direct %d, block 0 %s, root table %s' % (
        array.name, handle.tbl_id, mem_type, flags, lock, handle.n_direct,
        pointer_text(handle.arr_base), pointer_text(handle.ir_base),
    )


def _dyn_hdr(array):
    hdr = array.dyn_hdr
    return "lib_version %d, rec_version %d, hdr_size %d, lli_sz %d" % (
        hdr.lib_version, hdr.rec_version, hdr.hdr_size, hdr.lli_sz,
    )


def _pool_hdr(array):
    pool = Pool(array)
    hdr = pool.hdr
    slot_idx, byte_off = pool.cursor
    flags = flag_names(hdr.flag, ((FLAG_COMPAT, "COMPAT"), (FLAG_PERSIST, "PERSIST"), (FLAG_BV, "BV")))
    return "%s, flag %s, slots of %d, max_slots %d, current slot %s up to %d, msz %d, mused %d, mwast %d, mavail %d" % (
        pool.kind, flags, hdr.mslot_sz, hdr.max_slots, idx_text(slot_idx), byte_off,
        hdr.total_msz, hdr.total_mused, hdr.total_mwast, hdr.total_mavail,
    )


def _user_hdr(array):
    size = array.dyn_hdr.hdr_size
    head = read(array.user_hdr_at, min(size, USER_HDR_SHOWN)).hex(" ")
    return "%s: %s%s" % (plural(size, "byte"), head, " ..." if size > USER_HDR_SHOWN else "")


def _lists(array):
    roots = array.lists
    return "free %d (%s to %s), inactive %d (%s to %s), n_act %d, reuse policy %s" % (
        roots.n_free, idx_text(roots.free_head), idx_text(roots.free_tail),
        roots.n_inact, idx_text(roots.inact_head), idx_text(roots.inact_tail),
        roots.n_act, "on" if roots.policy_use else "off",
    )


def _arr_hdr(array):
    hdr = array.arr_hdr
    return "n_used %d, n_alloc %d, n_direct %d, record_size %d, a slot %d" % (
        hdr.n_used, hdr.n_alloc, hdr.n_direct, hdr.record_size, array.slot_bytes,
    )


def _level(level):
    counts = "%s, %s" % (plural(level.tables, "table"), plural(level.blocks, "block"))
    at_least = "" if level.complete else "at least "
    return "%s%s, ids %d to %d, %d issued" % (
        at_least, counts, level.first_id, level.last_id, level.n_issued,
    )


def _user_part(array):
    """Name and text of the user header, a pool's or the host's. None if the array has none."""
    if array.dyn_hdr.hdr_size == 0:
        return None
    try:
        return "DynMemHdr_t", _pool_hdr(array)
    except Unreadable:
        return "user header", _user_hdr(array)


def parts(array):
    """Yields (name, text) of each part of an array."""

    def part(name, describe):
        try:
            return name, describe(array)
        except Unreadable as problem:
            return name, "unreadable: %s" % problem

    yield part("handle", _handle)
    if not array.is_readable:
        return
    yield part("DynHdr_t", _dyn_hdr)
    if not array.has_block0:
        return
    try:
        user = _user_part(array)
    except Unreadable as problem:
        user = "user header", "unreadable: %s" % problem
    if user:
        yield user
    if array.dyn_hdr.lli_sz or array.has_nodes:
        yield part("DynArrLLI_t", _lists)
    yield part("DynArrHdr_t", _arr_hdr)
    try:
        for level in array.levels():
            yield "level %d" % level.number, _level(level)
    except Unreadable as problem:
        yield "levels", "unreadable: %s" % problem


# ---- A slot ----


def nodes(array, record):
    """One line about the nodes of a slot."""
    fw = array.node_fw(record)
    text = "%s, next %s" % (status_name(fw.status), idx_text(fw.next))
    if array.has_inactive_list:
        bw = array.node_bw(record)
        text += ", prev %s, ts %d" % (idx_text(bw.prev), bw.ts)
    return text


def slot(array, idx):
    """Lines about one slot."""
    n_used = array.arr_hdr.n_used
    level, block = array.place_of(idx)
    if idx >= n_used:
        yield "slot %d was not issued: n_used is %d" % (idx, n_used)
    if idx >= n_used and level is None:
        return
    try:
        record = array.record_at(idx)
    except Unreadable as problem:
        yield str(problem)
        return
    where = "block 0" if level == 0 else "level %d, block %d" % (level, block)
    yield "slot %d, %s, record 0x%x" % (idx, where, record)
    if array.has_nodes:
        try:
            yield nodes(array, record)
        except Unreadable as problem:
            yield "nodes unreadable: %s" % problem
    try:
        mem = Pool(array).mem_slot(record)
        yield "memory slot, %d bytes used, %d deleted" % mem
        yield from dump(record + SLOT_HDR_BYTES, array.arr_hdr.record_size - SLOT_HDR_BYTES)
    except Unreadable:
        yield from dump(record, array.arr_hdr.record_size)


# ---- An address ----


def _chunk(pool, chunk, is_64, room):
    data, length = chunk, room
    if pool.has_compat:
        head = pool.compat(chunk, is_64)
        yield "header: for table %d, index %d, offset %d, %s%s" % (
            head.tbl_id, head.tbl_idx, head.tbl_moff, plural(head.mchunk_len, "byte"),
            ", deleted" if head.flag & CHUNK_DELETED else "",
        )
        data, length = chunk + COMPAT_BYTES, min(head.mchunk_len, max(0, room - COMPAT_BYTES))
    yield "data 0x%x" % data
    yield from dump(data, length)


def address(array, word, is_64):
    """Yields lines about the chunk at an address of the pool."""
    pool = Pool(array)
    found = pool.decode(word, is_64)
    yield "%s address 0x%x of a %s: slot %d, offset %d" % (
        found.kind, word, pool.kind, found.slot_idx, found.byte_off,
    )
    if found.slot_idx >= array.arr_hdr.n_used:
        yield "slot %d was not issued: n_used is %d" % (found.slot_idx, array.arr_hdr.n_used)
        return
    if found.byte_off >= pool.hdr.mslot_sz:
        yield "the offset is outside the slot, which has %d bytes" % pool.hdr.mslot_sz
        return
    record = array.record_at(found.slot_idx)
    chunk = record + SLOT_HDR_BYTES + found.byte_off
    state = nodes(array, record) + ", " if array.has_nodes else ""
    yield "slot: %s%d bytes used, %d deleted" % ((state,) + pool.mem_slot(record))
    yield from _chunk(pool, chunk, is_64, pool.hdr.mslot_sz - found.byte_off)

"""Walks a free or inactive list. Links and counters can have any values."""

from collections import namedtuple

from .array import NIL_IDX
from .memory import Unreadable
from .text import idx_text, nodes, plural, status_name

LIMIT = 100

# Roots of a list, and the status of its slots.
Roots = namedtuple("Roots", "head tail count status has_back_links")


def roots_of(array, which):
    found = array.lists
    if which == "free":
        return Roots(found.free_head, found.free_tail, found.n_free, 1, False)
    # Slots have back nodes only with FLAG_INLL, whatever the roots contain.
    return Roots(found.inact_head, found.inact_tail, found.n_inact, 3, array.has_inactive_list)


def _mismatches(array, record, roots, before):
    fw = array.node_fw(record)
    if fw.status != roots.status:
        yield "its status should be %s" % status_name(roots.status)
    if roots.has_back_links and array.node_bw(record).prev != before:
        yield "its prev should be %s" % idx_text(before)


def _end_mismatches(roots, last, length):
    """Texts for a tail or counter that does not match a complete list."""
    if last != roots.tail:
        yield "the tail is %s, but the root says %s" % (idx_text(last), idx_text(roots.tail))
    if length != roots.count:
        yield "the counter says %d" % roots.count


def walk(array, which, limit):
    """Yields one line per slot in list order, with inconsistencies."""
    roots = roots_of(array, which)
    idx, before, seen = roots.head, NIL_IDX, set()
    while idx != NIL_IDX:
        if idx in seen:
            yield "a cycle: slot %d links back to %d" % (before, idx)
            break
        if len(seen) == limit:
            yield "stopped after %s; the counter says %d" % (plural(limit, "slot"), roots.count)
            return
        if idx >= array.arr_hdr.n_used:
            yield "slot %d was not issued: the list is broken here" % idx
            break
        try:
            record = array.record_at(idx)
            notes = "".join("; " + text for text in _mismatches(array, record, roots, before))
            yield "%6d: %s%s" % (idx, nodes(array, record), notes)
        except Unreadable as problem:
            yield "slot %d: %s: the list is broken here" % (idx, problem)
            break
        seen.add(idx)
        before, idx = idx, array.node_fw(record).next
    else:
        yield from _end_mismatches(roots, before, len(seen))
    yield plural(len(seen), "slot") + " on the %s list" % which

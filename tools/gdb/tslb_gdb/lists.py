"""The walk over a free or an inactive list, which trusts nothing that it reads."""

from collections import namedtuple

from .array import NIL_IDX
from .memory import Unreadable
from .text import idx_text, nodes, plural, status_name

LIMIT = 100

# One of the two lists of an array: its roots, and the status that its slots have.
Roots = namedtuple("Roots", "head tail count status has_back_links")


def roots_of(array, which):
    found = array.lists
    if which == "free":
        return Roots(found.free_head, found.free_tail, found.n_free, 1, False)
    # Without its bit there are no back nodes, whatever the roots say.
    return Roots(found.inact_head, found.inact_tail, found.n_inact, 3, array.has_inactive_list)


def _complaints(array, record, roots, before):
    fw = array.node_fw(record)
    if fw.status != roots.status:
        yield "its status should be %s" % status_name(roots.status)
    if roots.has_back_links and array.node_bw(record).prev != before:
        yield "its prev should be %s" % idx_text(before)


def _ending(roots, last, length):
    """What the roots say against a list that came to its end."""
    if last != roots.tail:
        yield "the tail is %s, but the root says %s" % (idx_text(last), idx_text(roots.tail))
    if length != roots.count:
        yield "the counter says %d" % roots.count


def walk(array, which, limit):
    """Lines: a slot each, in the list's order, and what is wrong."""
    roots = roots_of(array, which)
    idx, before, seen = roots.head, NIL_IDX, set()
    while idx != NIL_IDX:
        if idx in seen:
            yield "a cycle: slot %d leads to %d again" % (before, idx)
            break
        if len(seen) == limit:
            yield "and so on: %s shown, the counter says %d" % (plural(limit, "slot"), roots.count)
            return
        if idx >= array.arr_hdr.n_used:
            yield "slot %d was not issued: the list is broken here" % idx
            break
        try:
            record = array.record_at(idx)
            notes = "".join("; " + text for text in _complaints(array, record, roots, before))
            yield "%6d: %s%s" % (idx, nodes(array, record), notes)
        except Unreadable as problem:
            yield "slot %d: %s: the list is broken here" % (idx, problem)
            break
        seen.add(idx)
        before, idx = idx, array.node_fw(record).next
    else:
        yield from _ending(roots, before, len(seen))
    yield plural(len(seen), "slot") + " on the %s list" % which

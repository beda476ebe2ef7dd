// Static probes of the library (provider "tslb"), which a tracer can watch in a running process. Private.
//
// A probe is one `nop` and a note in the file. The note gives the tracer the probe's address and the registers of its
// arguments. A tracer replaces the `nop` with a trap. Arguments are values that the code has anyway: computing a value
// only for a probe would cost time in every process.
//
//   block__created    handle, number (0: block 0), bytes, address
//   slot__taken       handle, index, record
//   slot__freed       handle, index, record
//   pool__slot        handle, new slot, old slot (0xFFFFFFFF: none), bytes that were reserved in the old one
//   chunk__taken      handle, slot, offset in its chunks, bytes with the compaction header, address of the chunk
//   chunk__deleted    handle, slot, offset, bytes without the header, address of the chunk
//   snapshot__block   handle, level (0: block 0), address, bytes as total_write_sz counts them
//
// slot__freed and pool__slot fire under the handle's spin lock. A trace therefore never shows the next owner of the
// slot before them, but a tracer that watches them delays other threads. slot__taken fires after the lock is released,
// unless the caller holds it.
#ifndef TSLB_PROBES_H
#define TSLB_PROBES_H

#if !defined(TSLB_NO_PROBES) && __has_include(<sys/sdt.h>)
#include <sys/sdt.h>
#define TSLB_PROBE_3(name, ...) STAP_PROBE3(tslb, name, __VA_ARGS__)
#define TSLB_PROBE_4(name, ...) STAP_PROBE4(tslb, name, __VA_ARGS__)
#define TSLB_PROBE_5(name, ...) STAP_PROBE5(tslb, name, __VA_ARGS__)
#else
// Never called: its arguments count as used, and are not evaluated.
template <class... Arguments>
char tslb_no_probe(const Arguments &...);
#define TSLB_PROBE_3(name, ...) static_cast<void>(sizeof(tslb_no_probe(__VA_ARGS__)))
#define TSLB_PROBE_4 TSLB_PROBE_3
#define TSLB_PROBE_5 TSLB_PROBE_3
#endif

#define TSLB_PROBE_BLOCK_CREATED(array, number, bytes, at) TSLB_PROBE_4(block__created, array, number, bytes, at)
#define TSLB_PROBE_SLOT_TAKEN(array, idx, record) TSLB_PROBE_3(slot__taken, array, idx, record)
#define TSLB_PROBE_SLOT_FREED(array, idx, record) TSLB_PROBE_3(slot__freed, array, idx, record)
#define TSLB_PROBE_POOL_SLOT(pool, new_slot, old_slot, old_bytes) \
  TSLB_PROBE_4(pool__slot, pool, new_slot, old_slot, old_bytes)
#define TSLB_PROBE_CHUNK_TAKEN(pool, slot, off, bytes, at) TSLB_PROBE_5(chunk__taken, pool, slot, off, bytes, at)
#define TSLB_PROBE_CHUNK_DELETED(pool, slot, off, bytes, at) TSLB_PROBE_5(chunk__deleted, pool, slot, off, bytes, at)
#define TSLB_PROBE_SNAPSHOT_BLOCK(array, level, at, bytes) TSLB_PROBE_4(snapshot__block, array, level, at, bytes)

#endif

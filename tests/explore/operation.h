// Operations between which the explorer can switch: atomic accesses, the lock, and the redo hook.
#ifndef TSLB_EXPLORE_OPERATION_H
#define TSLB_EXPLORE_OPERATION_H

#include <stdint.h>

constexpr int MAX_THREADS = 4;

// OP_AWAIT: a load in a loop that read the same value again and again. It runs once the word has another value.
enum op_kind_t : uint8_t { OP_LOAD, OP_AWAIT, OP_STORE, OP_SWAP, OP_ADD, OP_LOCK, OP_UNLOCK, OP_HOOK };

struct op_t {
  uintptr_t at = 0;
  uint32_t bytes = 0;
  op_kind_t kind = OP_LOAD;
  // Whether it changes its word. True for a swap that was not tried yet; false for one that failed.
  bool writes = false;
  // Additions to the same word whose results nobody uses. Their order is of no consequence.
  bool commutes = false;
  const void *caller = nullptr;  // return address in the explored program
  uint64_t unwanted = 0;         // OP_AWAIT: the value that it read last
};

struct event_t {
  op_t op;
  uint8_t thread = 0;
  bool preempts = false;  // the thread of the event before could have gone on
  uint64_t value = 0;     // read or stored
};

inline bool overlap(const op_t &a, const op_t &b) {
  return a.at < b.at + b.bytes && b.at < a.at + a.bytes;
}

// Whether the order of two operations of different threads can make a difference.
inline bool are_dependent(const op_t &a, const op_t &b) {
  if (a.kind == OP_HOOK && b.kind == OP_HOOK) return true;  // the order of the log
  if (!overlap(a, b) || !(a.writes || b.writes)) return false;
  return !(a.commutes && b.commutes && a.kind == OP_ADD && b.kind == OP_ADD);
}

#endif

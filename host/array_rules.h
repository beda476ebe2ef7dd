/* The rules of stored arrays: what holds of headers, lists, slots and the counters of pools, each with an identifier and
 * the text of its violation. The loaders, array_check and tslb-inspect share the list and the code that checks it, so none
 * of them accepts what another refuses.
 *
 * A violated rule is a fault or a remark. A fault contradicts what the library or the format relies on: the loaders and
 * array_check refuse at the first one. A remark is unusual, and the array can be used in spite of it: a killed process can
 * leave counters of a pool that lag, and hosts choose bits of their own in a pool's flag. The loaders do not look for
 * remarks. */
#ifndef ARRAY_RULES_H
#define ARRAY_RULES_H

#include <stddef.h>
#include <stdint.h>

#include "tslb_decl.h"

/* X(identifier, FAULT or REMARK, text). In a text {} stands for the next value, {x} for a value in hexadecimal, {list}
 * for a list (TSLB_RULE_FREE_LIST or _INACTIVE_LIST), {state} for the status that belongs to it. */
#define TSLB_STORED_RULES(X)                                                                                   \
  /* DynHdr_t */                                                                                               \
  X(HDR_LIB_VERSION, FAULT, "lib_version {}, which is not {}")                                                 \
  X(HDR_PAD, REMARK, "pad {}, which is reserved")                                                              \
  X(HDR_LLI_SIZE, FAULT, "lli_sz {}, which is neither 0 nor {}")                                               \
  /* DynArrLLI_t */                                                                                            \
  X(LLI_NO_LIST, FAULT, "lltype {x} has no list, lli_sz says there is one")                                    \
  X(LLI_TYPE_BITS, REMARK, "lltype {x} has bits without a meaning")                                            \
  /* DynArrHdr_t */                                                                                            \
  X(ARR_N_DIRECT, FAULT, "n_direct {} is beyond what an array can have")                                       \
  X(ARR_N_USED, FAULT, "n_used {} is beyond what an array with n_direct {} can have")                          \
  X(ARR_NO_BYTES, FAULT, "record_size 0 with {} slots in use")                                                 \
  X(ARR_RECORD_SIZE, FAULT, "record_size {} is beyond what an array can have")                                 \
  X(ARR_BLOCK0, FAULT, "n_direct {} with slots of {} bytes takes more than block 0 may")                       \
  X(ARR_DATA_BLOCK, FAULT, "record_size {} makes a block of 16 slots larger than it may be")                   \
  X(ARR_N_ALLOC, REMARK, "n_alloc {}, where direct area and data blocks come to {}")                           \
  /* DynMemHdr_t */                                                                                            \
  X(POOL_HDR_SIZE, FAULT, "hdr_size {}, a pool has {}")                                                        \
  X(POOL_MSLOT_SIZE, FAULT, "mslot_sz {} does not go with record_size {}")                                     \
  X(POOL_MSLOT_STEP, FAULT, "mslot_sz {} is no multiple of {}")                                                \
  X(POOL_RING, FAULT, "n_used {}, and a ring has {} slots")                                                    \
  X(POOL_CURSOR_SLOT, FAULT, "cur_slot_addr names slot {} of {}")                                              \
  X(POOL_CURSOR_BYTE, FAULT, "cur_slot_addr stands at byte {} of a slot of {}")                                \
  X(POOL_FLAG_BITS, REMARK, "flag {x} has bits without a meaning")                                             \
  X(POOL_PAD, REMARK, "pad_byte {}, which is reserved")                                                        \
  X(POOL_TOTAL_SIZE, REMARK, "total_msz {} is less than the {} bytes of headers")                              \
  X(POOL_TOTAL_USED, REMARK, "total_mused {}, where the slots in use come to {}")                              \
  X(POOL_TOTAL_DELETED, REMARK, "total_mdel {}, which nothing counts")                                         \
  /* nodes */                                                                                                  \
  X(SLOT_STATUS, FAULT, "status {} of slot {} is none that a slot can have")                                   \
  X(SLOT_NOT_INACTIVE, FAULT, "status {} of slot {}, and there is no inactive list")                           \
  X(SLOT_NEXT, FAULT, "active slot {} has a link to {}")                                                       \
  X(SLOT_PREV, FAULT, "active slot {} has a back link to {}")                                                  \
  /* lists */                                                                                                  \
  X(LIST_NONE, FAULT, "an inactive list where lltype {x} has none")                                            \
  X(LIST_LINK, FAULT, "the {list} names slot {} of {}")                                                        \
  X(LIST_ABSENT, FAULT, "the {list} goes on in slot {}, which is not there")                                   \
  X(LIST_RING, FAULT, "the {list} comes back to slot {}")                                                      \
  X(LIST_STATUS, FAULT, "status {} on the {list}, slot {}")                                                    \
  X(LIST_PREV, FAULT, "prev {} of slot {} on the {list}, where {} comes before it")                            \
  X(LIST_COUNT_RANGE, FAULT, "the {list} counts {} slots of {}")                                               \
  X(LIST_COUNT, FAULT, "the {list} counts {} slots and has {}")                                                \
  X(LIST_TAIL, FAULT, "tail {} of the {list}, which ends with {}")                                             \
  X(LIST_STRAY, FAULT, "slot {} says that it is {state} and is not on that list")                              \
  /* MemSlot_t */                                                                                              \
  X(POOL_SLOT_CURRENT, FAULT, "status {} of the current slot, {}")                                             \
  X(POOL_SLOT_DELETED, FAULT, "bytes_del {} of slot {}, where bytes_used is {}")                               \
  X(POOL_SLOT_USED, FAULT, "bytes_used {} of slot {}, which has {}")                                           \
  X(POOL_SLOT_CURSOR, FAULT, "bytes_used {} of the current slot, {}, where the cursor has only reached {}")    \
  X(POOL_SLOT_LAGS, REMARK, "bytes_used {} of the current slot, {}, where the cursor has reached {}")          \
  X(POOL_SLOT_NEVER_CURRENT, REMARK, "slot {} was taken and never became current")                             \
  /* compaction headers: pool_check alone */                                                                   \
  X(CHUNK_LENGTH, FAULT, "the chunk at byte {} of slot {} has {} bytes, and the slot's chunks end at byte {}") \
  X(CHUNK_DELETED, FAULT, "bytes_del {} of slot {}, where deleted chunks come to {}")

typedef enum tslb_rule_t {
#define TSLB_RULE_ID(id, severity, text) TSLB_RULE_##id,
  TSLB_STORED_RULES(TSLB_RULE_ID)
#undef TSLB_RULE_ID
      TSLB_N_RULES
} tslb_rule_t;

enum { TSLB_RULE_FREE_LIST = 0, TSLB_RULE_INACTIVE_LIST = 1 }; /* values for {list} and {state} */
enum { TSLB_RULE_MAX_VALUES = 4 };

TSLB_BEGIN_DECLS

/* 1 if a violation is a fault, 0 if it is a remark. */
int array_rule_is_fault(tslb_rule_t rule);

/* Writes the text of a violation, cut to `size` with its terminator.
 *
 * values  one for each pair of braces in the rule's text. */
void array_rule_write(tslb_rule_t rule, const uint64_t *values, char *text, size_t size);

TSLB_END_DECLS

#endif

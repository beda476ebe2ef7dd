/* The four atomic operations that the host defines. The library contains no other atomic read-modify-write. Every
 * change of a word that threads share uses these functions. They act on the word itself, in process memory or in a
 * mapped file.
 *
 * Requirements:
 * - Each function is one lock-free read-modify-write and a full barrier. A thread that reads the new value also sees
 *   the bytes written before the operation.
 * - A swap fails only if the word differs from `expected`. Spurious failures are not allowed: after a failed swap of a
 *   table entry the library releases its own table and uses the pointer in the entry.
 * - No function throws. The library is built without exceptions, and an exception from a hook would leave the array's
 *   spin lock held forever. The declarations do not say noexcept, so that definitions need not either.
 * - cas64 and get_and_inc64 receive words aligned to 8 bytes. The words of get_and_inc32 can lie at any address, since
 *   the headers before them can have any length.
 * Threads: any number, at any time, also concurrently with plain loads of the same word. */
#ifndef TSLB_ATOMICS_H
#define TSLB_ATOMICS_H

#include "tslb_decl.h"

TSLB_BEGIN_DECLS

/* Stores `desired` if the word holds `expected`. Result: non-zero if it was stored, 0 if the word was not changed. */
TSLB_API int32_t cas16(uint16_t *word, uint16_t expected, uint16_t desired);
TSLB_API int32_t cas64(uint64_t *word, uint64_t expected, uint64_t desired);

/* Adds `amount` with wraparound. Result: the value before the addition. */
TSLB_API uint32_t get_and_inc32(uint32_t *word, uint32_t amount);
TSLB_API uint64_t get_and_inc64(uint64_t *word, uint64_t amount);

TSLB_END_DECLS

#endif

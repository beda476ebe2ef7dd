/* The four atomic operations that the host defines. The library holds no atomic read-modify-write of its own: every
 * change of a word that threads share goes through these, on the word itself, in process memory or in a mapped file.
 *
 * What each must keep:
 * - one lock-free read-modify-write that is a full barrier: bytes written before a swap that succeeds are visible to
 *   whoever reads the new value;
 * - a swap fails only when the word differs from `expected`. A failure without a cause is not tolerated: after a
 *   failed swap of a table entry the library releases its own table and uses the pointer it expects to find there;
 * - none throws. The library is built without exceptions, and one that left a hook would leave the spin lock of the
 *   array held for good. The declarations do not say noexcept, so that definitions need not either;
 * - cas64 and get_and_inc64 get words aligned to 8 bytes. The words of get_and_inc32 can lie at any address, since
 *   the headers ahead of them can have any length.
 * Threads: any number, at any time, also beside plain loads of the same word. */
#ifndef TSLB_ATOMICS_H
#define TSLB_ATOMICS_H

#include "tslb_decl.h"

TSLB_BEGIN_DECLS

/* Stores `desired` if the word holds `expected`. Result: non-zero if it was stored, 0 if the word was left alone. */
TSLB_API int32_t cas16(uint16_t *word, uint16_t expected, uint16_t desired);
TSLB_API int32_t cas64(uint64_t *word, uint64_t expected, uint64_t desired);

/* Adds `amount`, wrapping. Result: the value before the addition. */
TSLB_API uint32_t get_and_inc32(uint32_t *word, uint32_t amount);
TSLB_API uint64_t get_and_inc64(uint64_t *word, uint64_t amount);

TSLB_END_DECLS

#endif

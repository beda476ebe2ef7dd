/* What every public header of the library shares: the export mark, C linkage, and the means to state a stored layout
 * where it is declared. C11 and C++17 on. */
#ifndef TSLB_DECL_H
#define TSLB_DECL_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

/* The library is built with hidden symbols: only what carries this mark crosses its border. The host's hooks carry it
 * too, so that a host built with hidden symbols still offers them to the library. */
#define TSLB_API __attribute__((visibility("default")))

#ifdef __cplusplus
#define TSLB_BEGIN_DECLS extern "C" {
#define TSLB_END_DECLS }
#else
#define TSLB_BEGIN_DECLS
#define TSLB_END_DECLS
#endif

/* For a stored structure that can begin at any byte, because what lies ahead of it has any length. Its layout is the
 * natural one; the attribute only tells the compiler that no field is aligned. */
#define TSLB_UNALIGNED __attribute__((packed, aligned(1)))

/* The open end of a stored structure, which C++ compilers give as an extension and warn about. */
#define TSLB_FLEXIBLE_TAIL(type, field)                                                         \
  _Pragma("GCC diagnostic push") _Pragma("GCC diagnostic ignored \"-Wpedantic\"") type field[]; \
  _Pragma("GCC diagnostic pop")

#define TSLB_STORED_SIZE(type, bytes) static_assert(sizeof(type) == (bytes), #type " is stored: its size is the format")
#define TSLB_STORED_AT(type, field, offset) \
  static_assert(offsetof(type, field) == (offset), #type "." #field " is stored: it may not move")

#endif

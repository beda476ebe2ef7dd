/* Macros that every public header of the library uses: the export mark, C linkage, and checks of stored layouts at
 * their declaration. For C11, and for C++17 and later. */
#ifndef TSLB_DECL_H
#define TSLB_DECL_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

/* Exports a declaration. The library is built with hidden symbols. The host's hooks have this mark too, so that a host
 * built with hidden symbols still exports them to the library. */
#define TSLB_API __attribute__((visibility("default")))

#ifdef __cplusplus
#define TSLB_BEGIN_DECLS extern "C" {
#define TSLB_END_DECLS }
#else
#define TSLB_BEGIN_DECLS
#define TSLB_END_DECLS
#endif

/* For a stored structure that can begin at any byte because the parts before it have any length. The layout is the
 * natural one. The attribute only declares that no field is aligned. */
#define TSLB_UNALIGNED __attribute__((packed, aligned(1)))

/* The flexible array member of a stored structure. C++ compilers accept it as an extension and warn about it. */
#define TSLB_FLEXIBLE_TAIL(type, field)                                                         \
  _Pragma("GCC diagnostic push") _Pragma("GCC diagnostic ignored \"-Wpedantic\"") type field[]; \
  _Pragma("GCC diagnostic pop")

#define TSLB_STORED_SIZE(type, bytes) static_assert(sizeof(type) == (bytes), #type " is stored: its size is the format")
#define TSLB_STORED_AT(type, field, offset) \
  static_assert(offsetof(type, field) == (offset), #type "." #field " is stored: it may not move")

#endif

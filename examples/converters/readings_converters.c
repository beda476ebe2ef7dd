/* Conversions of a host's records for tslb-convert, in both directions. Compiled to a shared object:
 *
 *   cc -shared -fPIC $(pkg-config --cflags tslb) readings_converters.c -o readings.so
 *   tslb-convert --converters ./readings.so --rec-type readings --to 2 old.stream new.stream */
#include <string.h>
#include <tslb/array_convert.h>

/* The first word of a slot's record is the array's. */
typedef struct reading_v1_t {
  uint32_t gatekeeper;
  uint32_t value;
} reading_v1_t;

typedef struct reading_v2_t {
  uint32_t gatekeeper;
  uint32_t unit;
  uint64_t value;
} reading_v2_t;

static int to_v2(void *arg, uint8_t from_version, const void *from, uint32_t from_bytes, void *to, uint32_t to_bytes) {
  reading_v1_t old;
  reading_v2_t new_one = {0};
  (void)arg, (void)from_version, (void)from_bytes, (void)to_bytes;
  memcpy(&old, from, sizeof old); /* records can be unaligned */
  new_one.gatekeeper = old.gatekeeper;
  new_one.value = old.value;
  memcpy(to, &new_one, sizeof new_one);
  return 0;
}

static int to_v1(void *arg, uint8_t from_version, const void *from, uint32_t from_bytes, void *to, uint32_t to_bytes) {
  reading_v2_t old;
  reading_v1_t new_one;
  (void)arg, (void)from_version, (void)from_bytes, (void)to_bytes;
  memcpy(&old, from, sizeof old);
  if (old.value > UINT32_MAX || old.unit != 0) return -1; /* nothing is lost silently: the conversion fails */
  new_one.gatekeeper = old.gatekeeper;
  new_one.value = (uint32_t)old.value;
  memcpy(to, &new_one, sizeof new_one);
  return 0;
}

const array_conversion_t *tslb_converters(uint32_t *n_conversions) {
  static const array_conversion_t conversions[] = {
      {"readings", 1, 2, sizeof(reading_v1_t), sizeof(reading_v2_t), to_v2, NULL},
      {"readings", 2, 1, sizeof(reading_v2_t), sizeof(reading_v1_t), to_v1, NULL},
  };
  *n_conversions = 2;
  return conversions;
}

/* A host's conversions for tslb-convert. */
#include <string.h>
#include <tslb/array_convert.h>

/* Version 7 has a value of 32 bits at byte 4, version 8 one of 64 bits at byte 8. */
static int widen(void *arg, uint8_t from_version, const void *from, uint32_t from_bytes, void *to, uint32_t to_bytes) {
  uint32_t value;
  uint64_t wide;
  (void)arg, (void)from_version, (void)from_bytes, (void)to_bytes;
  memcpy(to, from, 4);
  memcpy(&value, (const char *)from + 4, sizeof value);
  wide = value;
  memcpy((char *)to + 8, &wide, sizeof wide);
  return 0;
}

static int fail(void *arg, uint8_t from_version, const void *from, uint32_t from_bytes, void *to, uint32_t to_bytes) {
  (void)arg, (void)from_version, (void)from, (void)from_bytes, (void)to, (void)to_bytes;
  return 1;
}

__attribute__((visibility("default"))) const array_conversion_t *tslb_converters(uint32_t *n_conversions) {
  static const array_conversion_t conversions[] = {
      {"readings", 7, 8, 8, 16, widen, 0},
      {"readings", 8, 7, 16, 8, fail, 0},
  };
  *n_conversions = 2;
  return conversions;
}

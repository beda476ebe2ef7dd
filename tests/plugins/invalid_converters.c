/* Two conversions that tslb-convert cannot distinguish. */
#include <tslb/array_convert.h>

static int keep(void *arg, uint8_t from_version, const void *from, uint32_t from_bytes, void *to, uint32_t to_bytes) {
  (void)arg, (void)from_version, (void)from, (void)from_bytes, (void)to, (void)to_bytes;
  return 0;
}

const array_conversion_t *tslb_converters(uint32_t *n_conversions) {
  static const array_conversion_t conversions[] = {
      {"readings", 7, 8, 8, 16, keep, 0},
      {"readings", 7, 8, 8, 24, keep, 0},
  };
  *n_conversions = 2;
  return conversions;
}

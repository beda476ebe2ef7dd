/* Stands in for the header of static probes: each probe calls the explorer. */
#ifndef TSLB_EXPLORE_SYS_SDT_H
#define TSLB_EXPLORE_SYS_SDT_H

#include <stdint.h>

enum explore_probe_t {
  EXPLORE_block__created,
  EXPLORE_slot__taken,
  EXPLORE_slot__freed,
  EXPLORE_pool__slot,
  EXPLORE_chunk__taken,
  EXPLORE_chunk__deleted,
  EXPLORE_snapshot__block
};
extern "C" void explore_probe(enum explore_probe_t probe, const void *array, uint64_t a, uint64_t b, uint64_t c,
                              uint64_t d);

#define STAP_PROBE3(provider, name, array, a, b) \
  explore_probe(EXPLORE_##name, array, (uint64_t)(a), (uint64_t)(b), 0, 0)
#define STAP_PROBE4(provider, name, array, a, b, c) \
  explore_probe(EXPLORE_##name, array, (uint64_t)(a), (uint64_t)(b), (uint64_t)(c), 0)
#define STAP_PROBE5(provider, name, array, a, b, c, d) \
  explore_probe(EXPLORE_##name, array, (uint64_t)(a), (uint64_t)(b), (uint64_t)(c), (uint64_t)(d))

#endif

// The end of a conversion from stream to stream.
#ifndef CONVERTED_STREAM_H
#define CONVERTED_STREAM_H

#include <memory>

#include <tslb/recovery_driver.h>
#include <tslb/tslb_dynarr.h>
#include "array_check_internal.h"

struct array_release_t {
  void operator()(DynArrHandle_t *array) const { destroy_dyn_arr(array); }
};
using array_t = std::unique_ptr<DynArrHandle_t, array_release_t>;

// Writes the stream of `destination` unless it is a dry run, and counts the slots of `source` by their status. n_direct
// is that of the stream; the array's can differ. Returns RECOVERY_DONE or RECOVERY_NOT_WRITTEN.
recovery_result_t finish_conversion(dynarr_t *source, dynarr_t *destination, uint32_t n_direct, bool dry_run, int fd,
                                    recovery_counts_t *counts, refusal_t *refusal);

#endif

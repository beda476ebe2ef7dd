/* The library's clock, which the host can scale and shift, times as text, and the abort flag.
 *
 * All settings are plain words without a lock: a reading that overlaps a setter can mix old and new values. The clock
 * can go backward when a setting changes. */
#ifndef TSLB_UTIL_H
#define TSLB_UTIL_H

#include <time.h>

#include "tslb_decl.h"
#include "tslb_util_common.h"

TSLB_BEGIN_DECLS

/* Set to 1 by tslb_set_abort_on_error, cleared by nobody, read by the host alone. */
extern TSLB_API int8_t g_tslb_abort_on_error;
TSLB_API void tslb_set_abort_on_error(void);

/* Divisor of the time since the origin: above 1.0 the clock runs slower, below 1.0 faster; 1.0 at load. What is not
 * finite and above 0 is refused with a line on stderr, and the old factor stays. */
TSLB_API void tslb_set_timer_factor(double factor);
TSLB_API double tslb_get_timer_factor(void);

/* Origin of the scaling, the one instant at which the scaled and the unscaled clock agree; 0 at load. */
TSLB_API void tslb_set_tsdb_start_ts(time_t ts);
TSLB_API time_t tslb_get_tsdb_start_ts(void);

/* Seconds added to the system's time ahead of any scaling, in both clocks; may be negative; 0 at load. */
TSLB_API void tslb_set_timestamp_offset(int offset);
TSLB_API int tslb_get_timestamp_offset(void);

/* The scaled clock, in seconds: origin + (system time + offset - origin) / factor, cut toward zero. The result is
 * also stored in `*time_loc` if that is not null. Threads: any. */
TSLB_API time_t tslb_get_time(time_t *time_loc);

/* System time + offset, never scaled. */
TSLB_API time_t tslb_get_time_without_tf(time_t *time_loc);

/* Writes the scaled clock as local time, "month/day/year hour:minute:second" in at least two digits each; the
 * year is the remainder by 2000, so 2026 shows as 26 and 1999 as 1999.
 *
 * time_string           at least 18 bytes for the years 2000 to 2099; nothing bounds the text. "Error|Error" if the
 *                       time has no local form.
 * need_to_block_signal  1: no signal is handled on this thread meanwhile, and its mask is afterwards as it was. Any
 *                       other value leaves the mask alone.
 * Result                time_string. */
TSLB_API char *tslb_get_cur_date_time(char *time_string, int need_to_block_signal);

/* Writes " name = seconds UTC local", or without `name` "seconds UTC local", each as day/month/year time zone. The
 * year is that of the ISO week, which can differ from the calendar's around New Year.
 *
 * buff     of buff_size bytes; the text is cut to fit and terminated.
 * Result   buff. An instant that has no broken-down form gets an empty text in its place. */
TSLB_API char *tslb_ts_string(time_t partition_start_time, const char *name, char *buff, int buff_size);

TSLB_END_DECLS

#endif

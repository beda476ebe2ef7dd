/* The library's clock, which the host can scale and shift; times as text; the abort flag.
 *
 * All settings are plain words without a lock. A reading concurrent with a setter can mix old and new values. The clock
 * can go backward when a setting changes. */
#ifndef TSLB_UTIL_H
#define TSLB_UTIL_H

#include <time.h>

#include "tslb_decl.h"
#include "tslb_util_common.h"

TSLB_BEGIN_DECLS

/* tslb_set_abort_on_error sets it to 1. No function clears it, and only the host reads it. */
extern TSLB_API int8_t g_tslb_abort_on_error;
TSLB_API void tslb_set_abort_on_error(void);

/* Divisor of the time since the origin: above 1.0 the clock runs slower, below 1.0 faster; 1.0 at load. A factor that
 * is not finite or not above 0 is refused with a line on stderr, and the old factor is kept. */
TSLB_API void tslb_set_timer_factor(double factor);
TSLB_API double tslb_get_timer_factor(void);

/* Origin of the scaling: the scaled and the unscaled clock agree at this instant; 0 at load. */
TSLB_API void tslb_set_tsdb_start_ts(time_t ts);
TSLB_API time_t tslb_get_tsdb_start_ts(void);

/* Seconds added to the system's time before scaling, in both clocks; may be negative; 0 at load. */
TSLB_API void tslb_set_timestamp_offset(int offset);
TSLB_API int tslb_get_timestamp_offset(void);

/* Returns the scaled clock in seconds: origin + (system time + offset - origin) / factor, rounded toward zero. The
 * result is also stored in `*time_loc` if that is not null. Threads: any. */
TSLB_API time_t tslb_get_time(time_t *time_loc);

/* Returns system time + offset, never scaled. */
TSLB_API time_t tslb_get_time_without_tf(time_t *time_loc);

/* Writes the scaled clock as local time, "month/day/year hour:minute:second". Each field has at least two digits. The
 * year is the remainder by 2000, so 2026 shows as 26 and 1999 as 1999.
 *
 * time_string           at least 18 bytes for the years 2000 to 2099; the text has no other bound. "Error|Error" if the
 *                       time has no local form.
 * need_to_block_signal  1: no signal is handled on this thread during the call, and the signal mask is restored. Any
 *                       other value does not change the mask.
 * Result                time_string. */
TSLB_API char *tslb_get_cur_date_time(char *time_string, int need_to_block_signal);

/* Writes " name = seconds UTC local", or without `name` "seconds UTC local". UTC and local time have the form
 * "day/month/year time zone". The year is that of the ISO week, which can differ from the calendar year around New
 * Year.
 *
 * buff     of buff_size bytes; the text is cut to fit and terminated.
 * Result   buff. An instant without a broken-down form has an empty text in its place. */
TSLB_API char *tslb_ts_string(time_t partition_start_time, const char *name, char *buff, int buff_size);

TSLB_END_DECLS

#endif

// The library's clock. Its settings are relaxed words without an order between them. A reading concurrent with a setter
// may mix old and new values.
#include "tslb_util.h"

#include <math.h>
#include <signal.h>
#include <stdio.h>

#include "tslb_report.h"
#include "tslb_text.h"

int8_t g_tslb_abort_on_error = 0;

static double timer_factor = 1.0;
static time_t tsdb_start_ts = 0;
static int timestamp_offset = 0;

template <class T>
static T get(const T &setting) {
  T value;
  __atomic_load(&setting, &value, __ATOMIC_RELAXED);
  return value;
}

template <class T>
static void set(T &setting, T value) {
  __atomic_store(&setting, &value, __ATOMIC_RELAXED);
}

// Rounds toward zero, as the cast does. The cast is undefined for values out of range.
static int64_t seconds_of(double value) {
  if (value >= 0x1p63) return INT64_MAX;
  if (value < -0x1p63) return INT64_MIN;
  return static_cast<int64_t>(value);
}

static time_t store_and_return(time_t value, time_t *time_loc) {
  if (time_loc != nullptr) *time_loc = value;
  return value;
}

void tslb_set_abort_on_error(void) {
  g_tslb_abort_on_error = 1;
}

void tslb_set_timer_factor(double factor) {
  if (!isfinite(factor) || factor <= 0.0) {
    fprintf(stderr, "%s:%d:%s: Error: timer factor %g is not finite and positive, %g stays\n", TSLB_FILE_LINE_FUNC,
            factor, get(timer_factor));
    return;
  }
  set(timer_factor, factor);
}

double tslb_get_timer_factor(void) {
  return get(timer_factor);
}
void tslb_set_tsdb_start_ts(time_t ts) {
  set(tsdb_start_ts, ts);
}
time_t tslb_get_tsdb_start_ts(void) {
  return get(tsdb_start_ts);
}
void tslb_set_timestamp_offset(int offset) {
  set(timestamp_offset, offset);
}
int tslb_get_timestamp_offset(void) {
  return get(timestamp_offset);
}

// True below 2^52 in magnitude. The difference of two such numbers is exact as a double, and so is their sum if it is
// such a number.
static bool is_exact(int64_t seconds) {
  constexpr uint64_t LIMIT = uint64_t{1} << 52;
  return static_cast<uint64_t>(seconds) + LIMIT < 2 * LIMIT;
}

time_t tslb_get_time(time_t *time_loc) {
  const int64_t now = time(nullptr) + int64_t{get(timestamp_offset)};
  const double factor = get(timer_factor);
  // The lines below would give the same result: they subtract the origin and add it again. No system clock comes near
  // 2^52.
  if (factor == 1.0 && is_exact(get(tsdb_start_ts))) return store_and_return(now, time_loc);
  // Unsigned: a host may set any origin, and a difference beyond 64 bits wraps instead of being undefined.
  const int64_t elapsed = static_cast<int64_t>(static_cast<uint64_t>(now) - static_cast<uint64_t>(get(tsdb_start_ts)));
  // The origin is added after the division, so that at factor 1.0 whole seconds below 2^53 are unchanged.
  const double scaled = static_cast<double>(elapsed) / factor + static_cast<double>(get(tsdb_start_ts));
  return store_and_return(seconds_of(scaled), time_loc);
}

time_t tslb_get_time_without_tf(time_t *time_loc) {
  return store_and_return(time(nullptr) + int64_t{get(timestamp_offset)}, time_loc);
}

// A signal handler that calls localtime_r while this thread is inside it would wait for the time zone's lock forever.
static struct tm *local_time_signals_blocked(const time_t *at, struct tm *parts) {
  sigset_t all, before;
  sigfillset(&all);
  sigprocmask(SIG_BLOCK, &all, &before);
  struct tm *const result = localtime_r(at, parts);
  sigprocmask(SIG_SETMASK, &before, nullptr);
  return result;
}

char *tslb_get_cur_date_time(char *time_string, int need_to_block_signal) {
  const time_t now = tslb_get_time(nullptr);
  struct tm parts;
  const struct tm *const local =
      need_to_block_signal == 1 ? local_time_signals_blocked(&now, &parts) : localtime_r(&now, &parts);
  if (local == nullptr) {
    sprintf(time_string, "Error|Error");
    return time_string;
  }
  // tm_year + 1900 in 64 bits: the largest tm_year is near the end of int.
  const int year = static_cast<int>((int64_t{local->tm_year} + 1900) % 2000);
  const int fields[] = {local->tm_mon + 1, local->tm_mday, year, local->tm_hour, local->tm_min, local->tm_sec};
  char *at = time_string;
  for (int i = 0; i < 6; ++i) {
    at = put_padded(at, fields[i]);
    *at++ = "// ::"[i];  // the last character is the terminator
  }
  return time_string;
}

// Leaves `text` empty if the instant has no broken-down form or its text does not fit.
static void render_instant(char (&text)[32], const struct tm *parts) {
  if (parts == nullptr || strftime(text, sizeof(text), "%d/%m/%G %T %Z", parts) == 0) text[0] = '\0';
}

char *tslb_ts_string(time_t partition_start_time, const char *name, char *buff, int buff_size) {
  struct tm parts;
  char local[32], utc[32];
  render_instant(local, localtime_r(&partition_start_time, &parts));
  render_instant(utc, gmtime_r(&partition_start_time, &parts));
  const size_t room = buff_size > 0 ? static_cast<size_t>(buff_size) : 0;
  const long seconds = partition_start_time;
  if (name != nullptr)
    snprintf(buff, room, " %s = %ld %s %s", name, seconds, utc, local);
  else
    snprintf(buff, room, "%ld %s %s", seconds, utc, local);
  return buff;
}

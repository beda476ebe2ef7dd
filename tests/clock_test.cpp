// Tests of the clock: scaling, shifting, refusals, and times as text. The test defines the system's time.
#include <dlfcn.h>
#include <math.h>
#include <signal.h>

#include <tslb/tslb_dlog.h>
#include <tslb/tslb_util.h>
#include "array_support.h"

static time_t system_now;  // 0: the real time

extern "C" __attribute__((visibility("default"))) time_t time(time_t *at) {
  struct timespec real;
  clock_gettime(CLOCK_REALTIME, &real);
  const time_t now = system_now != 0 ? system_now : real.tv_sec;
  if (at != nullptr) *at = now;
  return now;
}

// Signal mask during the conversion.
static sigset_t mask_at_conversion;

extern "C" __attribute__((visibility("default"))) struct tm *localtime_r(const time_t *at, struct tm *parts) {
  static const auto real = reinterpret_cast<decltype(&localtime_r)>(dlsym(RTLD_NEXT, "localtime_r"));
  sigprocmask(SIG_SETMASK, nullptr, &mask_at_conversion);
  return real(at, parts);
}

class Clock : public testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC-2", 1);  // two hours east of Greenwich
    tzset();
  }
  void TearDown() override {
    system_now = 0;
    tslb_set_timer_factor(1.0);
    tslb_set_tsdb_start_ts(0);
    tslb_set_timestamp_offset(0);
  }
};

TEST_F(Clock, Arithmetic) {
  static const struct {
    const char *fault;
    double factor;
    time_t origin, now;
    int offset;
    time_t scaled, unscaled;
  } rows[] = {
      {"factor below 1 slows", 0.5, 1000, 1010, 0, 1020, 1010},
      {"rounded instead of cut", 2.0, 1000, 1011, 0, 1005, 1011},
      {"before the origin floored", 2.0, 1000, 995, 0, 997, 995},
      {"negative results floored", 2.0, 0, 1, -4, -1, -3},
      {"offset ignored at factor 1", 1.0, 0, 1000, -5, 995, 995},
      {"offset added after scaling", 2.0, 1000, 1000, 10, 1005, 1010},
      {"origin changes factor 1", 1.0, 123456789, 9007199254740991, 0, 9007199254740991, 9007199254740991},
      {"origin added before the division", 3.0, 1, 9007199254740993, 0, 3002399751580331, 9007199254740993},
      {"an origin that is not exact as a double skipped at factor 1", 1.0, (1L << 53) + 1, 3, 0, 2, 3},
      {"cast beyond the range", 1e-300, 0, 1, 0, INT64_MAX, 1},
      {"cast beyond the range, before the origin", 1e-300, 2, 1, 0, INT64_MIN, 1},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    system_now = row.now;
    tslb_set_timer_factor(row.factor);
    tslb_set_tsdb_start_ts(row.origin);
    tslb_set_timestamp_offset(row.offset);
    time_t stored = 0, stored_unscaled = 0;
    EXPECT_EQ(tslb_get_time(&stored), row.scaled);
    EXPECT_EQ(stored, row.scaled);
    EXPECT_EQ(tslb_get_time(nullptr), row.scaled);
    EXPECT_EQ(tslb_get_time_without_tf(&stored_unscaled), row.unscaled);
    EXPECT_EQ(stored_unscaled, row.unscaled);
    EXPECT_EQ(tslb_get_time_without_tf(nullptr), row.unscaled);
    EXPECT_EQ(tslb_get_timer_factor(), row.factor);
    EXPECT_EQ(tslb_get_tsdb_start_ts(), row.origin);
    EXPECT_EQ(tslb_get_timestamp_offset(), row.offset);
  }
}

TEST_F(Clock, RefusesFactorsThatAreNotFiniteAndPositive) {
  tslb_set_timer_factor(2.5);
  for (const double factor : {0.0, -0.0, -1.0, HUGE_VAL, -HUGE_VAL, nan("")}) {
    const std::string report = stderr_of([&] { tslb_set_timer_factor(factor); });
    EXPECT_EQ(report.rfind("tslb_util.cpp:", 0), 0u) << report;
    EXPECT_EQ(report.find('\n'), report.size() - 1) << "one line";
    EXPECT_EQ(tslb_get_timer_factor(), 2.5);
  }
}

TEST_F(Clock, CurrentDateAndTime) {
  char text[65];
  system_now = 1774613109;  // 27 March 2026, 12:05:09 UTC
  EXPECT_EQ(tslb_get_cur_date_time(text, 0), text);
  EXPECT_STREQ(text, "03/27/26 14:05:09");
  EXPECT_STREQ(tslb_get_cur_date_time(text, 1), "03/27/26 14:05:09");
  tslb_set_timer_factor(2.0);
  tslb_set_tsdb_start_ts(1774613109 - 20);
  EXPECT_STREQ(tslb_get_cur_date_time(text, 0), "03/27/26 14:04:59");
  tslb_set_timer_factor(1.0);
  system_now = 915148800;  // 1999: a remainder, not the last two digits
  EXPECT_STREQ(tslb_get_cur_date_time(text, 0), "01/01/1999 02:00:00");
  system_now = 4102444800;  // 2100
  EXPECT_STREQ(tslb_get_cur_date_time(text, 0), "01/01/100 02:00:00");
  system_now = -62324985600;  // five years before year 0
  EXPECT_STREQ(tslb_get_cur_date_time(text, 0), "01/01/-5 02:00:00");
  system_now = INT64_MAX / 2;
  EXPECT_STREQ(tslb_get_cur_date_time(text, 1), "Error|Error");
}

TEST_F(Clock, SignalMaskIsRestoredExactly) {
  char text[65];
  sigset_t mine, after;
  sigemptyset(&mine);
  sigaddset(&mine, SIGUSR1);
  sigaddset(&mine, SIGTERM);
  sigprocmask(SIG_SETMASK, &mine, nullptr);
  for (const int need_to_block : {0, 1, 2}) {
    tslb_get_cur_date_time(text, need_to_block);
    EXPECT_EQ(sigismember(&mask_at_conversion, SIGUSR2), need_to_block == 1 ? 1 : 0) << need_to_block;
    sigprocmask(SIG_SETMASK, nullptr, &after);
    for (int signal = 1; signal < 32; ++signal)
      EXPECT_EQ(sigismember(&after, signal), sigismember(&mine, signal)) << signal;
  }
  sigemptyset(&mine);
  sigprocmask(SIG_SETMASK, &mine, nullptr);
  tslb_dl_init_internal("stdout", 0, 0);
  stdout_of([] { tslb_dl_logging(0, "f", "g", 1, "x"); });
  EXPECT_EQ(sigismember(&mask_at_conversion, SIGUSR2), 1) << "a log line's time stamp is made with signals allowed";
}

TEST_F(Clock, InstantAsText) {
  char text[128];
  const time_t noon = 1735560000;  // 30 December 2024, 12:00 UTC: its ISO week belongs to 2025
  EXPECT_EQ(tslb_ts_string(noon, "start", text, sizeof(text)), text);
  EXPECT_STREQ(text, " start = 1735560000 30/12/2025 12:00:00 GMT 30/12/2025 14:00:00 UTC");
  EXPECT_STREQ(tslb_ts_string(noon, nullptr, text, sizeof(text)),
               "1735560000 30/12/2025 12:00:00 GMT 30/12/2025 14:00:00 UTC");
  EXPECT_STREQ(tslb_ts_string(noon, nullptr, text, 8), "1735560");
  EXPECT_STREQ(tslb_ts_string(INT64_MAX, nullptr, text, sizeof(text)), "9223372036854775807  ");
  setenv("TZ", "<AZONEOFALONGNAME>-2", 1);
  tzset();
  EXPECT_STREQ(tslb_ts_string(noon, nullptr, text, sizeof(text)), "1735560000 30/12/2025 12:00:00 GMT ");
  text[0] = 'x';
  tslb_ts_string(noon, nullptr, text, 0);
  EXPECT_EQ(text[0], 'x') << "written although there is no room";
}

TEST_F(Clock, AbortFlagStaysSet) {
  EXPECT_EQ(g_tslb_abort_on_error, 0);
  tslb_set_abort_on_error();
  EXPECT_EQ(g_tslb_abort_on_error, 1);
}

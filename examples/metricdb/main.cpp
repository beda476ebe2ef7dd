// metricdb: loads line protocol into tslb's arrays, checks and shows what they hold, and records this
// machine's counters as line protocol.
#include <fmt/format.h>
#include <tslb_util.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "check.h"
#include "input.h"
#include "loader.h"
#include "proc_sampler.h"
#include "report.h"
#include "store.h"

namespace metricdb {
namespace {

constexpr int EXIT_GOOD = 0;
constexpr int EXIT_ERROR = 1;
constexpr int EXIT_SOME_MALFORMED = 2;

constexpr int64_t NS_PER_S = 1'000'000'000;
constexpr int64_t LONGEST_S = INT64_MAX / NS_PER_S;

struct LoadArguments {
  std::vector<std::string> files;
  std::string precision = "ns";
  std::string series_pattern;
  bool check = false;
  int64_t retain_s = 0;
  int64_t idle_s = 0;
  int reuse_inactive_pct = 0;
};

struct RecordArguments {
  int seconds = 0;
  int interval_ms = 1000;
  std::string out;
  std::string host = "local";
};

// An output that could not be written: a full disk must not look like success.
[[noreturn]] void fail_output(const std::string &name) {
  const int error = errno;
  throw std::runtime_error(fmt::format("{}: cannot be written: {}", name, std::strerror(error)));
}

void print(const std::string &text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0)
    fail_output("stdout");
}

bool checks_out(const Store &store, std::vector<Input> &inputs, Precision precision, int64_t now_ns,
                int64_t retain_ns) {
  Check check(store, precision, now_ns, retain_ns);
  for (size_t i = 0; retain_ns != 0 && i < inputs.size(); ++i) {
    check.find_newest(inputs[i].text());
    inputs[i].release(true);
  }
  for (Input &input : inputs) {
    check.compare(input.text());
    input.release(false);
  }
  check.finish();
  if (check.n_differences() == 0) {
    print(fmt::format("check: {} points match\n", check.n_matching()));
    return true;
  }
  std::string text;
  for (const std::string &difference : check.first_differences()) text += "check: " + difference + "\n";
  print(text + fmt::format("check: {} differences, {} points match\n", check.n_differences(), check.n_matching()));
  return false;
}

Precision precision_of(const std::string &unit) {
  if (unit == "us") return Precision::us;
  if (unit == "ms") return Precision::ms;
  return unit == "s" ? Precision::s : Precision::ns;
}

int load(const LoadArguments &arguments) {
  // Refused rather than weakened: which series gave way follows from the policy and the moments of the sweeps, and the
  // check knows neither.
  if (arguments.check && arguments.reuse_inactive_pct != 0)
    throw std::runtime_error("--check cannot tell which series --reuse-inactive-pct gives away: use one of them");
  if (arguments.reuse_inactive_pct != 0 && arguments.idle_s == 0)
    throw std::runtime_error("--reuse-inactive-pct needs --idle: without it no series is inactive");
  using Clock = std::chrono::steady_clock;
  const Precision precision = precision_of(arguments.precision);
  // One reading for the whole load: a second pass over the same text must come to the same points.
  const int64_t now_ns = static_cast<int64_t>(tslb_get_time(nullptr)) * NS_PER_S;
  StoreConfig config;
  config.retain_ns = arguments.retain_s * NS_PER_S;
  config.idle_ns = arguments.idle_s * NS_PER_S;
  config.reuse_inactive_pct = static_cast<uint8_t>(arguments.reuse_inactive_pct);
  Store store(config);
  Loader loader(store, precision, now_ns, [](const std::string &message) { fmt::print(stderr, "{}\n", message); });
  std::vector<Input> inputs(arguments.files.begin(), arguments.files.end());
  Clock::duration busy{};
  for (Input &input : inputs) {
    const std::string_view text = input.text();
    // From here on: a pipe can make us wait for as long as it likes.
    const Clock::time_point begin = Clock::now();
    loader.load(input.name(), text);
    busy += Clock::now() - begin;
    input.release(arguments.check);
  }

  const Clock::time_point begin = Clock::now();
  const Sweep last = store.sweep();
  busy += Clock::now() - begin;

  print(load_summary(store, loader.stats(), last, std::chrono::duration<double>(busy).count()));
  if (!arguments.series_pattern.empty()) print(series_table(store, arguments.series_pattern));
  if (arguments.check && !checks_out(store, inputs, precision, now_ns, config.retain_ns)) return EXIT_ERROR;
  return loader.stats().malformed == 0 ? EXIT_GOOD : EXIT_SOME_MALFORMED;
}

int64_t wall_clock_ns() {
  using namespace std::chrono;
  return duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count();
}

int record(const RecordArguments &arguments) {
  const std::string name = arguments.out.empty() ? "stdout" : arguments.out;
  std::unique_ptr<std::FILE, int (*)(std::FILE *)> file(nullptr, std::fclose);
  if (!arguments.out.empty()) file.reset(std::fopen(arguments.out.c_str(), "w"));
  if (!arguments.out.empty() && !file) fail_output(name);
  std::FILE *const out = file ? file.get() : stdout;

  ProcSampler sampler(arguments.host);
  const int64_t n_samples = std::max<int64_t>(1, int64_t{arguments.seconds} * 1000 / arguments.interval_ms);
  // Against a fixed start, so that the time a sample takes does not add up.
  auto due = std::chrono::steady_clock::now();
  for (int64_t i = 0; i < n_samples; ++i) {
    std::this_thread::sleep_until(due);
    due += std::chrono::milliseconds(arguments.interval_ms);
    std::string text;
    sampler.sample(wall_clock_ns(), text);
    // Flushed at once: whoever reads along, or stops the recording, has whole samples.
    if (std::fwrite(text.data(), 1, text.size(), out) != text.size() || std::fflush(out) != 0) fail_output(name);
  }
  return EXIT_GOOD;
}

const char *const LOAD_FOOTER =
    "Numbers and booleans become points; quoted strings are counted and skipped. A malformed line\n"
    "is reported on stderr and skipped as a whole.\n"
    "\n"
    "Forgetting goes by data time, which is the newest timestamp so far: one far ahead of the others\n"
    "makes them all old. With --check, what is retained is compared with what should be.\n"
    "\n"
    "Exit: 0 all was loaded\n"
    "      1 an input cannot be read, the store is full, the check found a difference, or the\n"
    "        arguments are wrong\n"
    "      2 some lines were malformed, and the rest was loaded";

void add_load(CLI::App &app, LoadArguments &arguments) {
  CLI::App *const command = app.add_subcommand("load", "load line protocol and say what came of it");
  command->add_option("FILE", arguments.files, "files of line protocol; - is standard input")
      ->required()
      ->type_name("");
  command->add_option("--precision", arguments.precision, "unit of the timestamps: ns, us, ms or s")
      ->check(CLI::IsMember({"ns", "us", "ms", "s"}).description(""))
      ->capture_default_str()
      ->type_name("UNIT");
  command
      ->add_option("--series", arguments.series_pattern,
                   "show the series whose keys match this pattern, as in 'cpu,*core=0* user'")
      ->type_name("PATTERN");
  command->add_flag("--check", arguments.check, "read the inputs again and compare every point with the arrays");
  command
      ->add_option("--retain", arguments.retain_s,
                   "forget points that are more than this behind the newest of all series")
      ->check(CLI::Range(int64_t{1}, LONGEST_S).description(""))
      ->type_name("SECONDS");
  command
      ->add_option("--idle", arguments.idle_s,
                   "make a series inactive that was not written for so long; it keeps its points")
      ->check(CLI::Range(int64_t{1}, LONGEST_S).description(""))
      ->type_name("SECONDS");
  command
      ->add_option("--reuse-inactive-pct", arguments.reuse_inactive_pct,
                   "once so many percent of the slots are inactive, new series replace those\n"
                   "inactive for longest; needs --idle, and cannot be combined with --check")
      ->check(CLI::Range(1, 100).description(""))
      ->type_name("PERCENT");
  command->footer(LOAD_FOOTER);
}

void add_record(CLI::App &app, RecordArguments &arguments) {
  CLI::App *const command = app.add_subcommand("record", "sample this machine's counters as line protocol");
  command->add_option("--seconds", arguments.seconds, "how long")->required()->check(CLI::Range(1, 10'000'000));
  command->add_option("--interval-ms", arguments.interval_ms, "milliseconds from one sample to the next")
      ->check(CLI::Range(1, 86'400'000))
      ->capture_default_str();
  command->add_option("--out", arguments.out, "file to write instead of standard output")->type_name("FILE");
  command->add_option("--host", arguments.host, "value of the tag host")
      ->check([](const std::string &host) {
        for (const unsigned char byte : host)
          if (byte < ' ' || byte == 0x7f) return "a host has no control characters";
        return host.empty() || host.back() == '\\' ? "a host is not empty and ends with no backslash" : "";
      })
      ->capture_default_str();
  command->footer("Exit: 0 all was recorded; 1 the output cannot be written or the arguments are wrong.");
}

}  // namespace
}  // namespace metricdb

int main(int argc, char **argv) {
  using namespace metricdb;
  CLI::App app("metricdb: a small time-series database in memory, on tslb's arrays", "metricdb");
  app.require_subcommand(1);
  LoadArguments load_arguments;
  RecordArguments record_arguments;
  add_load(app, load_arguments);
  add_record(app, record_arguments);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    return app.exit(error) == 0 ? EXIT_GOOD : EXIT_ERROR;
  }
  try {
    return app.got_subcommand("load") ? load(load_arguments) : record(record_arguments);
  } catch (const std::exception &error) {
    fmt::print(stderr, "metricdb: {}\n", error.what());
    return EXIT_ERROR;
  }
}

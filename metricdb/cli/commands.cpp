#include "cli/commands.h"

#include <fmt/format.h>
#include <tslb/tslb_util.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <thread>

#include "cli/input.h"
#include "cli/output.h"
#include "cli/write_options.h"
#include "extra/check.h"
#include "extra/proc_sampler.h"
#include "query/report.h"
#include "store/database.h"
#include "store/loader.h"
#include "store/log.h"
#include "store/store.h"

namespace metricdb {
namespace {

using Clock = std::chrono::steady_clock;

double seconds_of(Clock::duration time) {
  return std::chrono::duration<double>(time).count();
}

unsigned long long as_llu(uint64_t number) {
  return number;
}

bool matches_inputs(const Store &store, std::vector<Input> &inputs, Precision precision, int64_t now_ns) {
  const int64_t retain_ns = store.config().forgetting.retain_ns;
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
  TSLB_DLOG(LOG_PROGRESS, "check: %llu points match, %llu differences", as_llu(check.n_matching()),
            as_llu(check.n_differences()));
  if (check.n_differences() == 0) {
    print(fmt::format("check: {} points match\n", check.n_matching()));
    return true;
  }
  std::string text;
  for (const std::string &difference : check.first_differences()) text += "check: " + difference + "\n";
  print(text + fmt::format("check: {} differences, {} points match\n", check.n_differences(), check.n_matching()));
  return false;
}

int64_t library_now_ns() {
  return static_cast<int64_t>(tslb_get_time(nullptr)) * NS_PER_S;
}

// Which series were replaced depends on the policy and the times of the sweeps, which the check does not know.
void expect_checkable(const StoreConfig &config, const char *what) {
  if (config.forgetting.reuse_inactive_pct != 0)
    throw std::runtime_error(
        fmt::format("{} does not know which series --reuse-inactive-pct replaces: use one of them", what));
}

// Executes the command `load`.
class Load {
 public:
  explicit Load(const LoadArguments &arguments)
      : arguments_(arguments),
        precision_(precision_of(arguments.precision)),
        now_ns_(library_now_ns()),
        inputs_(arguments.files.begin(), arguments.files.end()) {
    prepare_store();
  }

  int run() {
    load_inputs();
    print_summary();
    if (database_) write();
    if (arguments_.check) {
      // Checks the content of the folder, not of the memory.
      if (database_) database_.emplace(arguments_.db);
      if (!matches_inputs(store(), inputs_, precision_, now_ns_)) return EXIT_ERROR;
    }
    return n_malformed_ == 0 ? EXIT_GOOD : EXIT_SOME_MALFORMED;
  }

 private:
  Store &store() { return database_ ? database_->store() : *store_; }

  void prepare_store() {
    const bool continues = !arguments_.db.empty() && stored_parameters(arguments_.db);
    if (continues && arguments_.check)
      throw DatabaseError(
          fmt::format("{}: holds points of other inputs: use `metricdb check` with all of them", arguments_.db));
    StoreConfig config;
    if (continues) {
      database_.emplace(arguments_.db, OpenOptions(), OpenDatabase::Use::load);
      config = database_->store().config();
    }
    config.forgetting = arguments_.forgetting.applied_to(config.forgetting);
    if (arguments_.check) expect_checkable(config, "--check");
    if (config.forgetting.reuse_inactive_pct != 0 && config.forgetting.idle_ns == 0)
      throw std::runtime_error("--reuse-inactive-pct needs --idle: without it no series is inactive");
    if (continues)
      database_->store().set_forgetting(config.forgetting);
    else if (!arguments_.db.empty())
      database_.emplace(arguments_.db, OpenOptions(), OpenDatabase::Use::load, config);
    else
      store_.emplace(config);
  }

  void load_inputs() {
    Loader loader(store(), Loader::OnFull::stop, [this](uint64_t line, const std::string &reason) {
      const std::string message = fmt::format("{}:{}: {}; line skipped", name_, lines_before_ + line, reason);
      print_error(message);
      TSLB_DLOG(LOG_DETAILS, "%s", message.c_str());
    });
    for (Input &input : inputs_) {
      const std::string_view text = input.text();
      const LoadStats before = loader.stats();
      // Measured from here on, because reading a pipe can wait.
      const Clock::time_point begin = Clock::now();
      name_ = input.name();
      load_text(loader, text);
      const Clock::duration duration = Clock::now() - begin;
      busy_ += duration;
      TSLB_DLOG(LOG_PROGRESS, "%s: %llu lines, %llu points, %llu malformed lines, %.3f s", input.name().c_str(),
                as_llu(loader.stats().lines - before.lines), as_llu(loader.stats().points - before.points),
                as_llu(loader.stats().malformed - before.malformed), seconds_of(duration));
      input.release(arguments_.check);
    }
    const Clock::time_point begin = Clock::now();
    last_sweep_ = store().sweep();
    busy_ += Clock::now() - begin;
    stats_ = loader.stats();
    n_malformed_ = stats_.malformed;
  }

  // Loads pieces of whole lines, to show progress.
  void load_text(Loader &loader, std::string_view text) {
    constexpr size_t PIECE_BYTES = 1 << 20;
    Progress progress(text.size(), "points");
    const LoadStats before = loader.stats();
    for (size_t at = 0; at < text.size();) {
      lines_before_ = loader.stats().lines - before.lines;
      try {
        at += loader.load(text.substr(at), precision_, now_ns_, PIECE_BYTES);
      } catch (const LoadStopped &stopped) {
        throw StoreFull(
            fmt::format("{}:{}: {}; loading stopped", name_, lines_before_ + stopped.line(), stopped.what()));
      }
      progress.update(at, loader.stats().points - before.points);
    }
  }

  void print_summary() {
    print(load_summary(store(), stats_, last_sweep_, seconds_of(busy_)));
    if (!arguments_.series_pattern.empty()) print(series_table(store(), arguments_.series_pattern));
  }

  void write();

  const LoadArguments &arguments_;
  const Precision precision_;
  // read once, because the check must use the same time
  const int64_t now_ns_;
  std::vector<Input> inputs_;
  std::optional<OpenDatabase> database_;
  std::optional<Store> store_;  // without a database
  LoadStats stats_;
  Sweep last_sweep_;
  Clock::duration busy_{};
  uint64_t n_malformed_ = 0;
  std::string name_;           // of the current input
  uint64_t lines_before_ = 0;  // of the current piece in it
};

// Writes a generation, as small as it can be, and prints a line about it.
void write_generation(OpenDatabase &opened) {
  const Clock::time_point begin = Clock::now();
  const std::string db = opened.folder();
  opened.store().pack(0);
  opened.store().compact(true);
  const GenerationInfo stored = opened.write();
  const double seconds = seconds_of(Clock::now() - begin);
  const double megabytes = static_cast<double>(stored.bytes()) / 1e6;
  TSLB_DLOG(LOG_PROGRESS, "%s: generation %llu written, %llu bytes, %.3f s", db.c_str(), as_llu(stored.number),
            as_llu(stored.bytes()), seconds);
  print(fmt::format("kept in          {}: generation {}, {} bytes, {:.3f} s ({:.0f} MB/s)\n", db, stored.number,
                    stored.bytes(), seconds, seconds > 0.0 ? megabytes / seconds : 0.0));
}

void Load::write() {
  write_generation(*database_);
}

int64_t wall_clock_ns() {
  using namespace std::chrono;
  return duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count();
}

}  // namespace

int load(const LoadArguments &arguments) {
  return Load(arguments).run();
}

int check(const CheckArguments &arguments) {
  const OpenDatabase opened(arguments.db);
  expect_checkable(opened.store().config(), "check");
  std::vector<Input> inputs(arguments.files.begin(), arguments.files.end());
  const bool is_same = matches_inputs(opened.store(), inputs, precision_of(arguments.precision), library_now_ns());
  return is_same ? EXIT_GOOD : EXIT_ERROR;
}

int snapshot(const SnapshotArguments &arguments) {
  OpenOptions options;
  options.salvage = arguments.salvage;
  if (arguments.layout) options.layout = static_cast<uint8_t>(*arguments.layout);
  OpenDatabase opened(arguments.db, options, OpenDatabase::Use::load);
  report_warnings(opened.warnings());
  write_generation(opened);
  return EXIT_GOOD;
}

int stat(const VerifyArguments &arguments) {
  const Clock::time_point begin = Clock::now();
  const OpenDatabase opened = open_to_read(arguments.db, arguments.salvage);
  const double seconds = seconds_of(Clock::now() - begin);
  print(database_summary(arguments.db, opened.store(), generation_info(arguments.db, opened.generation()), seconds));
  return EXIT_GOOD;
}

int series(const SeriesArguments &arguments) {
  print(series_table(open_to_read(arguments.db, arguments.salvage).store(), arguments.pattern));
  return EXIT_GOOD;
}

int record(const RecordArguments &arguments) {
  const std::string name = arguments.out.empty() ? "stdout" : arguments.out;
  std::unique_ptr<std::FILE, int (*)(std::FILE *)> file(nullptr, std::fclose);
  if (!arguments.out.empty()) file.reset(std::fopen(arguments.out.c_str(), "w"));
  if (!arguments.out.empty() && !file) fail_output(name);
  std::FILE *const out = file ? file.get() : stdout;

  ProcSampler sampler(arguments.host);
  const int64_t n_samples = std::max<int64_t>(1, int64_t{arguments.seconds} * 1000 / arguments.interval_ms);
  TSLB_DLOG(LOG_PROGRESS, "recording: %lld samples, one each %d ms", static_cast<long long>(n_samples),
            arguments.interval_ms);
  // Relative to a fixed start, so that the duration of the samples does not accumulate.
  auto due = Clock::now();
  for (int64_t i = 0; i < n_samples; ++i) {
    std::this_thread::sleep_until(due);
    due += std::chrono::milliseconds(arguments.interval_ms);
    std::string text;
    sampler.sample(wall_clock_ns(), text);
    // Flushed after each sample, so that readers get complete samples.
    if (std::fwrite(text.data(), 1, text.size(), out) != text.size() || std::fflush(out) != 0) fail_output(name);
  }
  return EXIT_GOOD;
}

}  // namespace metricdb

#include "ratio.h"

#include <benchmark/benchmark.h>
#include <stdio.h>
#include <string.h>
#ifdef TSLB_BENCH_CALLGRIND
#include <callgrind.h>
#endif

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

using bench_clock = std::chrono::steady_clock;

static bool quick = false;
static bool counting = false;
static bool failed = false;
static const char *next_title = "";  // of the cases that are being added
static unsigned cases_added;
static const char *table_title = "";      // of the case that runs
static std::vector<std::string> columns;  // names of the rivals, the library's left out

bool is_quick() {
  return quick;
}

// Seconds from the first thread's start to the last one's end. With one thread nothing but the caller runs.
static double time_of(const rival_t &rival, unsigned threads, uint64_t *checksum) {
  struct part_t {
    bench_clock::time_point start, end;
    uint64_t checksum;
  };
  std::vector<part_t> parts(threads);
  std::atomic<unsigned> missing{threads};
  const auto work = [&](unsigned thread) {
    missing.fetch_sub(1);
    while (missing.load() != 0) {
    }
    part_t part;
    part.start = bench_clock::now();
    part.checksum = rival.run(thread);
    part.end = bench_clock::now();
    parts[thread] = part;
  };
  if (rival.prepare) rival.prepare();
  std::vector<std::thread> others;
  for (unsigned thread = 1; thread < threads; ++thread) others.emplace_back(work, thread);
  work(0);
  for (std::thread &other : others) other.join();
  if (rival.verify) *checksum += rival.verify();

  bench_clock::time_point first = parts[0].start, last = parts[0].end;
  for (const part_t &part : parts) {
    first = std::min(first, part.start);
    last = std::max(last, part.end);
    *checksum += part.checksum;
  }
  return std::chrono::duration<double>(last - first).count();
}

static double quantile(std::vector<double> values, double share) {
  const auto at = values.begin() + static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), at, values.end());
  return *at;
}

#ifdef TSLB_BENCH_CALLGRIND
static void count_run(const rival_t &rival, const std::string &label) {
  if (rival.prepare) rival.prepare();
  CALLGRIND_ZERO_STATS;
  rival.run(0);
  CALLGRIND_DUMP_STATS_AT(label.c_str());
  if (rival.verify) rival.verify();
}
#else
static void count_run(const rival_t &, const std::string &) {
  fprintf(stderr, "built without valgrind's headers: nothing is counted\n");
  failed = true;
}
#endif

// What the first run makes (tables, blocks, the allocator's lists) is not counted. The floor finds the case made anew:
// what the library's arrays left with the allocator would cost it, or spare it, instructions.
static void count_case(const std::string &row, const std::function<std::vector<rival_t>()> &make, uint64_t operations) {
  const auto count = [&](const rival_t &rival) {
    uint64_t ignored = 0;
    time_of(rival, 1, &ignored);
    count_run(rival, row + "|" + rival.name + "|" + std::to_string(operations));
  };
  count(make().front());
  for (const rival_t &rival : make())
    if (strcmp(rival.name, "floor") == 0) count(rival);
}

static void measure(benchmark::State &state, unsigned threads, const std::vector<rival_t> &rivals,
                    uint64_t operations) {
  columns.clear();
  std::vector<double> own_seconds;
  for (size_t i = 1; i < rivals.size(); ++i) columns.push_back(rivals[i].name);
  std::vector<std::vector<double>> ratios(rivals.size());
  std::vector<uint64_t> checksums(rivals.size());
  size_t round = 0;
  // A first run of each fills caches, tables and the allocator's lists; it is not counted.
  for (size_t i = 0; i < rivals.size(); ++i) time_of(rivals[i], threads, &checksums[i]);
  for (auto _ : state) {
    std::vector<double> seconds(rivals.size());
    for (size_t turn = 0; turn < rivals.size(); ++turn) {
      // Every other round backward: what a rival leaves in the caches serves both its neighbours.
      const size_t i = round % 2 == 0 ? turn : rivals.size() - 1 - turn;
      seconds[i] = time_of(rivals[i], threads, &checksums[i]);
    }
    for (size_t i = 1; i < rivals.size(); ++i) ratios[i].push_back(seconds[0] / seconds[i]);
    own_seconds.push_back(seconds[0]);
    state.SetIterationTime(seconds[0]);
    ++round;
  }
  state.counters["ns"] = quantile(own_seconds, 0.5) * 1e9 / static_cast<double>(operations);
  for (size_t i = 1; i < rivals.size(); ++i) {
    if (checksums[i] != checksums[0]) state.SkipWithError("the rivals did not do the same work");
    const std::string name = rivals[i].name;
    state.counters[name] = quantile(ratios[i], 0.5);
    state.counters[name + " spread"] = (quantile(ratios[i], 0.75) - quantile(ratios[i], 0.25)) / 2;
  }
  char text[32];
  snprintf(text, sizeof(text), "%016lx", static_cast<unsigned long>(checksums[0]));
  state.SetLabel(text);
}

void begin_table(const char *title) {
  next_title = title;
}

void add_case(const std::string &name, unsigned threads, std::function<std::vector<rival_t>()> make,
              uint64_t operations) {
  if (counting && threads != 1) return;
  ++cases_added;
  benchmark::RegisterBenchmark(name.c_str(),
                               [title = next_title, name, threads, make, operations](benchmark::State &state) {
                                 table_title = title;
                                 if (!counting) return measure(state, threads, make(), operations);
                                 for (auto _ : state) count_case(std::string(title) + "|" + name, make, operations);
                               })
      ->Iterations(counting ? 1
                   : quick  ? 3
                            : ROUNDS)
      ->UseManualTime();
}

// A row per case, the median with half the distance between the quartiles.
class markdown_t : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context &) override { return true; }

  void ReportRuns(const std::vector<Run> &runs) override {
    for (const Run &run : runs) {
      if (counting) continue;
      if (run.error_occurred) {
        fprintf(stderr, "%s: %s\n", run.run_name.function_name.c_str(), run.error_message.c_str());
        failed = true;
        continue;
      }
      if (printed_title_ != table_title) print_head();
      printf("| %s |", run.run_name.function_name.c_str());
      printf(" %.3g |", run.counters.at("ns").value);
      for (const std::string &column : columns)
        printf(" %.2f ± %.2f |", run.counters.at(column).value, run.counters.at(column + " spread").value);
      printf(" %s |\n", run.report_label.c_str());
      fflush(stdout);
    }
  }

 private:
  void print_head() {
    printf("%s%s |", printed_title_.empty() ? "" : "\n", table_title);
    printf(" tslb, ns each |");
    for (const std::string &column : columns) printf(" %s |", column.c_str());
    printf(" checksum |\n|---|");
    for (size_t i = 0; i < columns.size() + 1; ++i) printf("---:|");
    printf("---|\n");
    printed_title_ = table_title;
  }

  std::string printed_title_;
};

// Removes a flag of our own from the command line and says whether it was there.
static bool take_flag(int *argc, char **argv, const char *flag) {
  char **const end = argv + *argc;
  char **const kept = std::remove_if(argv + 1, end, [flag](const char *arg) { return strcmp(arg, flag) == 0; });
  *argc = static_cast<int>(kept - argv);
  return kept != end;
}

int run_cases(int argc, char **argv, const char *title, void (*add_cases)()) {
  begin_table(title);
  quick = take_flag(&argc, argv, "--quick");
  counting = take_flag(&argc, argv, "--count");
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  add_cases();
  if (cases_added == 0) return 0;
  markdown_t table;
  if (benchmark::RunSpecifiedBenchmarks(&table) == 0) {
    fprintf(stderr, "no case ran\n");
    return 1;
  }
  return failed ? 1 : 0;
}

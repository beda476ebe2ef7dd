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
static const char *next_title = "";  // of the cases added next
static unsigned cases_added;
static const char *table_title = "";      // of the running case
static std::vector<std::string> columns;  // names of the candidates, the library's left out

bool is_quick() {
  return quick;
}

// Returns the seconds from the first thread's start to the last thread's end. With one thread only the caller runs.
static double time_of(const candidate_t &candidate, unsigned threads, uint64_t *checksum) {
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
    part.checksum = candidate.run(thread);
    part.end = bench_clock::now();
    parts[thread] = part;
  };
  if (candidate.prepare) candidate.prepare();
  std::vector<std::thread> others;
  for (unsigned thread = 1; thread < threads; ++thread) others.emplace_back(work, thread);
  work(0);
  for (std::thread &other : others) other.join();
  if (candidate.verify) *checksum += candidate.verify();

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
static void count_run(const candidate_t &candidate, const std::string &label) {
  if (candidate.prepare) candidate.prepare();
  CALLGRIND_ZERO_STATS;
  candidate.run(0);
  CALLGRIND_DUMP_STATS_AT(label.c_str());
  if (candidate.verify) candidate.verify();
}
#else
static void count_run(const candidate_t &, const std::string &) {
  fprintf(stderr, "built without valgrind's headers: nothing is counted\n");
  failed = true;
}
#endif

// Allocations of the first run (tables, blocks, the allocator's lists) are not counted. The floor gets a new case:
// memory that the library's arrays left in the allocator would change its instructions.
static void count_case(const std::string &row, const std::function<std::vector<candidate_t>()> &make,
                       uint64_t operations) {
  const auto count = [&](const candidate_t &candidate) {
    uint64_t ignored = 0;
    time_of(candidate, 1, &ignored);
    count_run(candidate, row + "|" + candidate.name + "|" + std::to_string(operations));
  };
  count(make().front());
  for (const candidate_t &candidate : make())
    if (strcmp(candidate.name, "floor") == 0) count(candidate);
}

static void measure(benchmark::State &state, unsigned threads, const std::vector<candidate_t> &candidates,
                    uint64_t operations) {
  columns.clear();
  std::vector<double> own_seconds;
  for (size_t i = 1; i < candidates.size(); ++i) columns.push_back(candidates[i].name);
  std::vector<std::vector<double>> ratios(candidates.size());
  std::vector<uint64_t> checksums(candidates.size());
  size_t round = 0;
  // The first run of each candidate fills caches, tables and the allocator's lists. It is not counted.
  for (size_t i = 0; i < candidates.size(); ++i) time_of(candidates[i], threads, &checksums[i]);
  for (auto _ : state) {
    std::vector<double> seconds(candidates.size());
    for (size_t turn = 0; turn < candidates.size(); ++turn) {
      // Every other round runs in reverse order, so that the caches a candidate leaves serve both its neighbours.
      const size_t i = round % 2 == 0 ? turn : candidates.size() - 1 - turn;
      seconds[i] = time_of(candidates[i], threads, &checksums[i]);
    }
    for (size_t i = 1; i < candidates.size(); ++i) ratios[i].push_back(seconds[0] / seconds[i]);
    own_seconds.push_back(seconds[0]);
    state.SetIterationTime(seconds[0]);
    ++round;
  }
  state.counters["ns"] = quantile(own_seconds, 0.5) * 1e9 / static_cast<double>(operations);
  for (size_t i = 1; i < candidates.size(); ++i) {
    if (checksums[i] != checksums[0]) state.SkipWithError("the candidates did not do the same work");
    const std::string name = candidates[i].name;
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

void add_case(const std::string &name, unsigned threads, std::function<std::vector<candidate_t>()> make,
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

// Prints one row per case: the median with half the interquartile range.
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

// Removes one of this program's own flags from the command line. Returns whether it was there.
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

// Tests of the explorer itself, with programs of a few operations. A search by partial order reduction must reach the same
// traces as a search of every schedule, and report races, deadlocks and bad accesses.
#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <random>
#include <set>
#include <vector>

#include <tslb/tslb_atomics.h>
#include "access.h"
#include "search.h"

extern "C" void *explored_malloc(size_t bytes);
extern "C" void explored_free(void *block);

namespace {

struct words_t {
  uint64_t word[4];
  uint64_t plain[2];
  void *block;
  uint16_t lock[2];
};
words_t *words;

uint64_t mark_of(int thread) {
  return static_cast<uint64_t>(thread) + 1;
}

// Operations on the word with an index, by a thread.
using code_t = void (*)(int index, int thread);
constexpr code_t LOAD = [](int i, int) { explore_load(&words->word[i], __ATOMIC_RELAXED); };
constexpr code_t LOAD_ACQUIRE = [](int i, int) { explore_load(&words->word[i], __ATOMIC_ACQUIRE); };
constexpr code_t STORE = [](int i, int t) { explore_store(&words->word[i], mark_of(t), __ATOMIC_RELAXED); };
constexpr code_t STORE_RELEASE = [](int i, int t) { explore_store(&words->word[i], mark_of(t), __ATOMIC_RELEASE); };
constexpr code_t SWAP = [](int i, int t) { cas64(&words->word[i], 0, mark_of(t)); };
constexpr code_t ADD = [](int i, int) { get_and_inc64(&words->word[i], 1); };
constexpr code_t LOCK = [](int i, int) { cas16(&words->lock[i], 0, 1); };
constexpr code_t UNLOCK = [](int i, int) { cas16(&words->lock[i], 1, 0); };
constexpr code_t READ = [](int i, int) { note_access(&words->plain[i], 8, false); };
constexpr code_t WRITE = [](int i, int) { note_access(&words->plain[i], 8, true); };
constexpr code_t HOOK = [](int i, int) { reach_hook(&words->word[i], 8, nullptr); };
constexpr code_t WAIT = [](int i, int) {
  while (explore_load(&words->word[i], __ATOMIC_ACQUIRE) == 0) {
  }
};
constexpr code_t TAKE_MEMORY = [](int, int) { words->block = explored_malloc(16); };
constexpr code_t FREE = [](int, int) { explored_free(words->block); };

struct instruction_t {
  code_t code;
  int word;
};
using thread_t = std::vector<instruction_t>;
using program_t = std::vector<thread_t>;
const program_t *program;

void body(int thread) {
  for (const auto &[code, word] : (*program)[static_cast<size_t>(thread)]) code(word, thread);
}

// What distinguishes two traces: for each event the events before it by dependence, and what it read or stored.
std::string trace() {
  const std::vector<event_t> &events = machine.events();
  std::vector<std::set<std::pair<int, int>>> before(events.size());
  std::vector<std::pair<int, int>> names;
  std::vector<std::string> lines;
  int n_of_thread[MAX_THREADS] = {};
  for (size_t i = 0; i < events.size(); ++i) {
    names.push_back({events[i].thread, n_of_thread[events[i].thread]++});
    for (size_t j = 0; j < i; ++j) {
      if (events[j].thread != events[i].thread && !are_dependent(events[j].op, events[i].op)) continue;
      before[i].insert(before[j].begin(), before[j].end());
      before[i].insert(names[j]);
    }
    std::string line = std::to_string(names[i].first) + "." + std::to_string(names[i].second) + "=" +
                       std::to_string(events[i].value) + ":";
    for (const auto &[thread, number] : before[i]) line += std::to_string(thread) + "." + std::to_string(number) + ",";
    lines.push_back(line);
  }
  std::sort(lines.begin(), lines.end());
  std::string all;
  for (const std::string &line : lines) all += line + "\n";
  return all;
}

struct explored_t {
  search_result_t result;
  std::multiset<std::string> traces;
};

explored_t explore(const program_t &of, const search_options_t &options) {
  program = &of;
  machine.arena.reset();
  words = static_cast<words_t *>(machine.arena.allocate(0, sizeof(words_t)));
  machine.arena.keep();
  explored_t explored;
  explored.result = search(
      [&](scheduler_t *scheduler) {
        machine.arena.restore();
        const run_result_t ended = machine.run(static_cast<int>(of.size()), body, scheduler);
        if (ended == RUN_ENDED) explored.traces.insert(trace());
        return ended;
      },
      options);
  return explored;
}
explored_t explore(const program_t &of) {
  return explore(of, {});
}

std::set<std::string> distinct(const std::multiset<std::string> &traces) {
  return {traces.begin(), traces.end()};
}

program_t random_program(std::mt19937 *random) {
  static constexpr code_t CODES[] = {LOAD, STORE, SWAP, ADD, HOOK, UNLOCK};
  const auto below = [&](int n) { return static_cast<int>((*random)() % static_cast<unsigned>(n)); };
  program_t made(static_cast<size_t>(2 + below(2)));
  for (thread_t &thread : made) {
    // Three threads of three operations have 1,680 schedules.
    const int n = 1 + below(made.size() == 2 ? 5 : 3);
    for (int i = 0; i < n; ++i) thread.push_back({CODES[below(6)], below(2)});
    if (below(2) != 0) continue;
    const int lock = below(2);
    thread.insert(thread.begin() + below(static_cast<int>(thread.size())), {LOCK, lock});
    thread.push_back({UNLOCK, lock});
  }
  // A loop in one thread waits for another thread. The other operations do not use word 2.
  if (below(4) == 0) {
    made.front().insert(made.front().begin() + below(static_cast<int>(made.front().size())), {WAIT, 2});
    made.back().insert(made.back().begin() + below(static_cast<int>(made.back().size())), {ADD, 2});
  }
  return made;
}

}  // namespace

TEST(Explorer, ReductionReachesEveryTraceOfRandomPrograms) {
  std::mt19937 random(7);
  uint64_t n_reduced = 0, n_all = 0;
  size_t n_traces = 0, n_compared = 0;
  for (int i = 0; i < 150; ++i) {
    const program_t made = random_program(&random);
    const explored_t all = explore(made, {NO_BOUND, false, 5'000});
    if (!all.result.has_violation && !all.result.is_complete) continue;  // too long
    const explored_t reduced = explore(made);
    ASSERT_EQ(all.result.has_violation, reduced.result.has_violation) << "program " << i;
    // In a few of them each thread waits for the other one.
    if (all.result.has_violation) continue;
    ++n_compared;
    ASSERT_EQ(distinct(reduced.traces), distinct(all.traces)) << "program " << i;
    ASSERT_EQ(reduced.traces.size(), distinct(reduced.traces).size()) << "program " << i << " runs a trace twice";
    n_reduced += reduced.result.n_schedules;
    n_all += all.result.n_schedules;
    n_traces += distinct(all.traces).size();
  }
  EXPECT_EQ(n_reduced, n_traces);
  EXPECT_GT(n_compared, 100u);
  EXPECT_GT(n_all, 10 * n_reduced) << "the programs are too small to show a reduction";
  printf("%lu programs, %lu traces, %lu schedules\n", n_compared, n_traces, n_all);
}

TEST(Explorer, NumberOfTracesIsTheKnownOne) {
  static const struct {
    const char *what;
    program_t program;
    uint64_t n_traces;
  } rows[] = {
      {"independent words", {{{STORE, 0}, {STORE, 0}}, {{STORE, 1}, {STORE, 1}}, {{STORE, 2}}}, 1},
      {"reads only", {{{LOAD, 0}}, {{LOAD, 0}}, {{LOAD, 0}}}, 1},
      {"three writers", {{{STORE, 0}}, {{STORE, 0}}, {{STORE, 0}}}, 6},
      {"a writer and two readers", {{{STORE, 0}}, {{LOAD, 0}}, {{LOAD, 0}}}, 4},
      {"two threads of three writes", {{{ADD, 0}, {ADD, 0}, {ADD, 0}}, {{ADD, 0}, {ADD, 0}, {ADD, 0}}}, 20},
      // Of three swaps one is successful; the others only read, in either order.
      {"three swaps", {{{SWAP, 0}}, {{SWAP, 0}}, {{SWAP, 0}}}, 3},
      {"three owners of a lock", {{{LOCK, 0}, {UNLOCK, 0}}, {{LOCK, 0}, {UNLOCK, 0}}, {{LOCK, 0}, {UNLOCK, 0}}}, 6},
      // The store comes before one of the first five loads, or before the one that waits.
      {"a loop that waits for a word", {{{WAIT, 0}}, {{STORE, 0}}}, 6},
      {"two loops that wait for a word", {{{WAIT, 0}}, {{WAIT, 0}}, {{STORE, 0}}}, 36},
      {"the order of a log", {{{HOOK, 0}}, {{HOOK, 1}}}, 2},
  };
  for (const auto &row : rows) {
    const search_result_t result = explore(row.program).result;
    EXPECT_EQ(result.n_schedules, row.n_traces) << row.what;
    EXPECT_TRUE(result.is_complete) << row.what;
  }
}

TEST(Explorer, AdditionsThatCommuteAreOneTrace) {
  const program_t adders = {{{ADD, 0}, {ADD, 0}}, {{ADD, 0}, {ADD, 0}}};
  explore(adders);  // the words have their addresses now
  mark_words(&words->word[0], 8, ADDITIONS_COMMUTE);
  EXPECT_EQ(explore(adders).result.n_schedules, 1u);
  EXPECT_EQ(explore({{{ADD, 0}}, {{LOAD, 0}}}).result.n_schedules, 2u) << "a load and an addition do not commute";
  unmark_words();
  mark_words(&words->word[0], 8, NO_CHOICE);
  EXPECT_EQ(explore({{{STORE, 0}}, {{LOAD, 0}}}).result.n_schedules, 1u);
  unmark_words();
}

TEST(Explorer, BoundCountsPreemptions) {
  const program_t two = {{{ADD, 0}, {ADD, 0}, {ADD, 0}}, {{ADD, 0}, {ADD, 0}, {ADD, 0}}};
  // Without a preemption either thread is first. One preemption after step 1 or 2 of the first one.
  EXPECT_EQ(explore(two, {0, false, UINT64_MAX}).result.n_schedules, 2u);
  EXPECT_EQ(explore(two, {1, false, UINT64_MAX}).result.n_schedules, 2u + 4u);
  EXPECT_EQ(explore(two, {99, false, UINT64_MAX}).result.n_schedules, 20u);
}

TEST(Explorer, ReportsWhatIsWrong) {
  static const struct {
    const char *what;
    program_t program;
    const char *report;  // null: nothing is wrong
  } rows[] = {
      {"writes without order", {{{WRITE, 0}}, {{WRITE, 0}}}, "data race"},
      {"reads without order", {{{READ, 0}}, {{READ, 0}}}, nullptr},
      {"two bytes apart", {{{WRITE, 0}}, {{WRITE, 1}}}, nullptr},
      {"under a lock", {{{LOCK, 0}, {WRITE, 0}, {UNLOCK, 0}}, {{LOCK, 0}, {WRITE, 0}, {UNLOCK, 0}}}, nullptr},
      {"under two locks", {{{LOCK, 0}, {WRITE, 0}, {UNLOCK, 0}}, {{LOCK, 1}, {WRITE, 0}, {UNLOCK, 1}}}, "data race"},
      {"after the lock", {{{LOCK, 0}, {UNLOCK, 0}, {WRITE, 0}}, {{LOCK, 0}, {READ, 0}, {UNLOCK, 0}}}, "data race"},
      {"read that is not ordered", {{{WRITE, 0}, {STORE_RELEASE, 0}}, {{LOAD_ACQUIRE, 0}, {READ, 0}}}, "data race"},
      {"opposite orders of locks",
       {{{LOCK, 0}, {LOCK, 1}, {UNLOCK, 1}, {UNLOCK, 0}}, {{LOCK, 1}, {LOCK, 0}, {UNLOCK, 0}, {UNLOCK, 1}}},
       "every thread waits"},
      {"block released twice", {{{TAKE_MEMORY, 0}, {FREE, 0}, {FREE, 0}}}, "not allocated"},
  };
  for (const auto &row : rows) {
    const search_result_t result = explore(row.program).result;
    EXPECT_EQ(result.has_violation, row.report != nullptr) << row.what << ": " << result.violation;
    if (row.report != nullptr) {
      EXPECT_NE(result.violation.find(row.report), std::string::npos) << row.what << ": " << result.violation;
    }
  }
}

// A flag that is set after the data. The reader looks at the data only if it saw the flag.
static bool publishes(int store_order, int load_order) {
  static int orders[2];
  orders[0] = store_order;
  orders[1] = load_order;
  machine.arena.reset();
  words = static_cast<words_t *>(machine.arena.allocate(0, sizeof(words_t)));
  machine.arena.keep();
  const auto two_threads = [](int thread) {
    if (thread == 0) {
      note_access(words->plain, 8, true);
      explore_store(words->word, 1, orders[0]);
    } else if (explore_load(words->word, orders[1]) != 0) {
      note_access(words->plain, 8, false);
    }
  };
  const search_result_t result = search(
      [&](scheduler_t *scheduler) {
        machine.arena.restore();
        return machine.run(2, two_threads, scheduler);
      },
      {});
  return !result.has_violation;
}

TEST(Explorer, RaceDependsOnTheOrderOfStoreAndLoad) {
  EXPECT_TRUE(publishes(__ATOMIC_RELEASE, __ATOMIC_ACQUIRE));
  EXPECT_FALSE(publishes(__ATOMIC_RELAXED, __ATOMIC_ACQUIRE));
  EXPECT_FALSE(publishes(__ATOMIC_RELEASE, __ATOMIC_RELAXED));
}

TEST(Explorer, ScheduleIsReplayedAndMinimal) {
  const program_t deadlock = {{{LOAD, 0}, {LOCK, 0}, {LOAD, 0}, {LOCK, 1}, {UNLOCK, 1}, {UNLOCK, 0}},
                              {{STORE, 0}, {LOCK, 1}, {STORE, 0}, {LOCK, 0}, {UNLOCK, 0}, {UNLOCK, 1}}};
  const search_result_t found = explore(deadlock).result;
  ASSERT_TRUE(found.has_violation);
  const run_t run = [&](scheduler_t *scheduler) {
    machine.arena.restore();
    return machine.run(2, body, scheduler);
  };
  const search_result_t fewer = minimal(run, found, 100000);
  EXPECT_EQ(fewer.n_preemptions, 1) << text_of(fewer.schedule);
  schedule_t parsed;
  ASSERT_TRUE(parse_schedule(text_of(fewer.schedule), &parsed));
  EXPECT_EQ(parsed, fewer.schedule);
  EXPECT_EQ(replay(run, parsed).violation, fewer.violation);
  EXPECT_FALSE(replay(run, {}).has_violation);
  for (const char *const wrong : {"a", "3", "z2", "a2b"}) EXPECT_FALSE(parse_schedule(wrong, &parsed)) << wrong;
}

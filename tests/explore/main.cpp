// Explores the scenarios: see scripts/explore.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <chrono>
#include <string>
#include <vector>

#include "report.h"
#include "scenario.h"

namespace {

struct request_t {
  std::vector<std::string> names;
  int bound = -2;  // the scenario's
  std::string replay;
  bool lists = false;
  bool wants_violation = false;  // a fault was planted in this program
};

[[noreturn]] void explain() {
  fputs(
      "usage: explore [NAME ...] [--bound N] [--replay SCHEDULE] [--list] [--planted]\n"
      "  NAME               a scenario; without a name all of them\n"
      "  --bound N          every schedule with at most N preemptions, instead of every trace; -1: every trace\n"
      "  --replay SCHEDULE  one schedule, as a report prints it\n"
      "  --list             names and descriptions\n"
      "  --planted          a violation is expected; its absence is the failure\n",
      stderr);
  exit(2);
}

request_t parse(int argc, char **argv) {
  request_t request;
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    const bool has_value = i + 1 < argc;
    if (argument == "--list")
      request.lists = true;
    else if (argument == "--planted")
      request.wants_violation = true;
    else if (argument == "--bound" && has_value)
      request.bound = atoi(argv[++i]);
    else if (argument == "--replay" && has_value)
      request.replay = argv[++i];
    else if (!argument.starts_with("-"))
      request.names.push_back(argument);
    else
      explain();
  }
  return request;
}

std::vector<const scenario_t *> all_scenarios() {
  std::vector<const scenario_t *> all;
  for (const auto &group : {GROWTH_SCENARIOS, SLOT_SCENARIOS, CHUNK_SCENARIOS, DELETION_SCENARIOS, REDO_SCENARIOS})
    for (const scenario_t &scenario : group) all.push_back(&scenario);
#ifdef EXPLORE_DURABLE
  for (const scenario_t &scenario : DURABLE_SCENARIOS) all.push_back(&scenario);
#endif
  return all;
}

std::vector<const scenario_t *> named(const std::vector<std::string> &names) {
  if (names.empty()) return all_scenarios();
  std::vector<const scenario_t *> found;
  for (const std::string &name : names) {
    const size_t before = found.size();
    for (const scenario_t *scenario : all_scenarios())
      if (name == scenario->name) found.push_back(scenario);
    if (found.size() != before) continue;
    fprintf(stderr, "no scenario %s; --list prints them\n", name.c_str());
    exit(2);
  }
  return found;
}

void print_violation(const scenario_t &scenario, const run_t &run, const search_result_t &found) {
  const search_result_t shown = minimal(run, found, 200'000);
  printf("%s: %s\n", scenario.name, shown.violation.c_str());
  // Runs it again, for its steps.
  if (replay(run, shown.schedule).violation != shown.violation) puts("  (the schedule does not repeat itself)");
  print_steps();
  printf("  again: scripts/explore %s --replay %s\n", scenario.name, text_of(shown.schedule).c_str());
}

// Returns whether a violation was found.
bool explore(const scenario_t &scenario, const request_t &request) {
  const auto start = std::chrono::steady_clock::now();
  prepare(scenario);
  const run_t run = [&](scheduler_t *scheduler) { return run_once(scenario, scheduler); };
  const int bound = request.bound == -2 ? scenario.bound : request.bound;
  schedule_t schedule;
  if (!parse_schedule(request.replay, &schedule)) explain();
  const search_result_t result =
      request.replay.empty() ? search(run, {bound, true, UINT64_MAX}) : replay(run, schedule);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const std::string extent = !request.replay.empty() ? "one schedule"
                             : result.has_violation  ? "violation"
                             : bound == NO_BOUND     ? "complete"
                                                     : "bound " + std::to_string(bound);
  printf("%-34s %d threads %9lu schedules  %-12s %6.2f s\n", scenario.name, scenario.n_threads,
         static_cast<unsigned long>(result.n_schedules), extent.c_str(), seconds);
  if (result.has_violation) print_violation(scenario, run, result);
  fflush(stdout);
  return result.has_violation;
}

}  // namespace

int main(int argc, char **argv) {
  const request_t request = parse(argc, argv);
  const std::vector<const scenario_t *> scenarios = named(request.names);
  int n_violations = 0;
  for (const scenario_t *scenario : scenarios) {
    if (request.lists)
      printf("%-34s %s\n", scenario->name, scenario->what);
    else
      n_violations += explore(*scenario, request) ? 1 : 0;
  }
  if (request.lists) return 0;
  return (n_violations != 0) == request.wants_violation ? 0 : 1;
}

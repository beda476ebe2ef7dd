// Searches the states in which a power cut can leave a durable store. Prints counts for each scenario.
#include <tslb/tslb_util.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <set>

#include "search.h"

using namespace powercut;

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint64_t MAX_STATES = 50'000;  // of one moment
constexpr int SAMPLES = 300;             // of one run of a long scenario

struct Arguments {
  double seconds = 60;
  uint64_t seed = 1;
  std::string replay, only;
  bool expects_failure = false;
};

[[noreturn]] void usage() {
  std::fputs(
      "usage: powercut [--seconds N | --hours N] [--seed S] [--only SCENARIO] [--replay STATE] [--expect-failure] | "
      "--list\n",
      stderr);
  std::exit(2);
}

Arguments arguments_of(int argc, char **argv) {
  Arguments arguments;
  for (int i = 1; i < argc; ++i) {
    const std::string name = argv[i];
    if (name == "--expect-failure") {
      arguments.expects_failure = true;
      continue;
    }
    if (name == "--list") {
      std::set<std::string> families;
      for (const auto *const scenarios : {&short_scenarios(), &long_scenarios()})
        for (const Scenario &scenario : *scenarios)
          if (families.insert(scenario.family).second) std::puts(scenario.family.c_str());
      std::exit(0);
    }
    if (++i == argc) usage();
    if (name == "--seconds" || name == "--hours")
      arguments.seconds = std::strtod(argv[i], nullptr) * (name == "--hours" ? 3600 : 1);
    else if (name == "--seed")
      arguments.seed = std::strtoull(argv[i], nullptr, 10);
    else if (name == "--only")
      arguments.only = argv[i];
    else if (name == "--replay")
      arguments.replay = argv[i];
    else
      usage();
  }
  return arguments;
}

// A new folder in memory, which is removed at the end.
class Scratch {
 public:
  Scratch() {
    std::string pattern = std::string(access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") + "/tslb_powercut_XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error(pattern + " cannot be created");
    path_ = pattern;
  }
  ~Scratch() { fs::remove_all(path_); }
  Scratch(const Scratch &) = delete;
  // An empty folder for the next search.
  std::string next() {
    for (const auto &entry : fs::directory_iterator(path_)) fs::remove_all(entry.path());
    return path_ + "/" + std::to_string(++number_);
  }

 private:
  std::string path_;
  int number_ = 0;
};

class Program {
 public:
  explicit Program(const Arguments &arguments) : arguments_(arguments), start_(Clock::now()) {}

  void run() {
    if (!arguments_.replay.empty()) return replay();
    std::printf("%-24s %8s %10s %10s %10s\n", "scenario", "moments", "states", "recovery", "equal");
    for (const Scenario &scenario : short_scenarios()) {
      if (!is_wanted(scenario)) continue;
      Search search(scenario, 0, scratch_.next(), visited_[scenario.family]);
      search.visit_all(MAX_STATES, [this] { return is_over(); });
      report(scenario.name, search.counts());
    }
    sample();
    std::printf("%-24s %8s %10llu %10llu, in %.0f seconds\n", "all", "", ull(n_states_), ull(n_recovery_), seconds());
    if (n_states_ == 0) throw Failure{"no state was visited"};
    if (n_incomplete_ != 0) std::printf("%d scenarios are not complete\n", n_incomplete_);
  }

 private:
  static unsigned long long ull(uint64_t number) { return number; }
  double seconds() const { return std::chrono::duration<double>(Clock::now() - start_).count(); }
  bool is_over() const { return seconds() > arguments_.seconds; }
  bool is_wanted(const Scenario &scenario) const {
    return arguments_.only.empty() || arguments_.only == scenario.name || arguments_.only == scenario.family;
  }

  void report(const std::string &name, const Counts &counts) {
    n_states_ += counts.n_states;
    n_recovery_ += counts.n_recovery;
    n_incomplete_ += counts.is_complete ? 0 : 1;
    std::printf("%-24s %8llu %10llu %10llu %10llu%s\n", name.c_str(), ull(counts.n_cuts), ull(counts.n_states),
                ull(counts.n_recovery), ull(counts.n_repeated), counts.is_complete ? "" : " not complete");
    std::fflush(stdout);
  }

  // The wanted scenarios have equal parts of the time that is left.
  void sample() {
    std::vector<const Scenario *> wanted;
    for (const Scenario &scenario : long_scenarios())
      if (is_wanted(scenario)) wanted.push_back(&scenario);
    for (; !wanted.empty(); wanted.pop_back()) {
      const Scenario &scenario = *wanted.back();
      Counts sum;
      const double until = seconds() + (arguments_.seconds - seconds()) / static_cast<double>(wanted.size());
      for (uint64_t seed = arguments_.seed; seconds() < until; ++seed) {
        Visited visited;
        Search search(scenario, seed, scratch_.next(), visited);
        std::mt19937_64 random(seed);
        for (int left = SAMPLES; left > 0 && seconds() < until; --left) search.visit_random(random);
        sum.n_cuts += search.counts().n_cuts;
        sum.n_states += search.counts().n_states;
        sum.n_recovery += search.counts().n_recovery;
        sum.n_repeated += search.counts().n_repeated;
      }
      report(scenario.name, sum);
    }
  }

  void replay() {
    const std::string name = arguments_.replay.substr(0, arguments_.replay.find(':'));
    const size_t seed_at = name.size() + 1;
    if (seed_at >= arguments_.replay.size()) usage();
    for (const auto *const scenarios : {&short_scenarios(), &long_scenarios()})
      for (const Scenario &scenario : *scenarios) {
        if (scenario.name != name) continue;
        Visited visited;
        Search search(scenario, std::stoull(arguments_.replay.substr(seed_at)), scratch_.next(), visited);
        search.replay(arguments_.replay);
        std::puts("the state is recovered");
        return;
      }
    usage();
  }

  const Arguments arguments_;
  const Clock::time_point start_;
  Scratch scratch_;
  std::map<std::string, Visited> visited_;  // by family
  uint64_t n_states_ = 0, n_recovery_ = 0;
  int n_incomplete_ = 0;
};

}  // namespace

int main(int argc, char **argv) {
  const Arguments arguments = arguments_of(argc, argv);
  tslb_set_timer_factor(1e18);  // nodes contain the time
  try {
    Program(arguments).run();
  } catch (const Failure &failure) {
    std::printf("%s\n", failure.what.c_str());
    // A run that fails without a cut proves nothing.
    return arguments.expects_failure && failure.what.find("\n  state ") != std::string::npos ? 0 : 1;
  }
  return arguments.expects_failure ? 1 : 0;
}

#include <fmt/format.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "workloads.h"

namespace {

namespace fs = std::filesystem;

constexpr uint32_t BATCH = 1000;

// Runs this program again as the process that is killed. A new process has none of the threads of this one.
void run_child(const options_t &options, const std::string &name, const std::string &folder) {
  std::vector<std::string> words = {"bench_durable",
                                    "--child",
                                    name,
                                    "--folder",
                                    folder,
                                    "--records",
                                    std::to_string(options.records),
                                    "--journal-updates",
                                    std::to_string(options.journal_updates)};
  if (options.is_random) words.push_back("--random");
  std::vector<char *> arguments;
  for (std::string &word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  pid_t child;
  if (const int error = posix_spawn(&child, "/proc/self/exe", nullptr, nullptr, arguments.data(), environ); error != 0)
    throw std::system_error(error, std::generic_category(), "/proc/self/exe");
  int status = 0;
  while (waitpid(child, &status, 0) < 0)
    if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "waitpid");
  if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGKILL)
    throw std::runtime_error(name + ": the process that was to be killed ended by itself");
}

// The contents of a store after store_until_killed().
data_t contents_at_kill(const options_t &options, std::vector<update_t> &updates) {
  data_t data(options.records, options.is_random);
  updates = data.make_updates(options.journal_updates, 0, 1);
  return data;
}

}  // namespace

void store_until_killed(const options_t &options, const std::string &folder) {
  for (const kind_t &kind : all_kinds()) {
    if (kind.name != options.child) continue;
    const std::unique_ptr<contestant_t> contestant = kind.open({folder, options.records});
    load(*contestant, data_t(options.records, options.is_random));
    contestant->flush();
    contestant->settle();
    std::vector<update_t> updates;
    contents_at_kill(options, updates);
    update_all(*contestant, 0, updates, BATCH);
    kill(getpid(), SIGKILL);
  }
  throw std::runtime_error(options.child + ": no such contestant");
}

void measure_open(const options_t &options, const std::string &folder, results_t &results) {
  std::vector<update_t> updates;
  const data_t data = contents_at_kill(options, updates);
  for (const kind_t &kind : options.kinds()) {
    const std::string killed = fmt::format("{}/{}.killed", folder, kind.name);
    fs::create_directory(killed);
    run_child(options, kind.name, killed);
  }
  for (unsigned round = 0; round < options.rounds; ++round) {
    for (const kind_t &kind : options.kinds()) {
      const setup_t setup = {fmt::format("{}/{}.opened", folder, kind.name), options.records};
      fs::copy(fmt::format("{}/{}.killed", folder, kind.name), setup.folder, fs::copy_options::recursive);
      sync();
      const int64_t start = now_ns();
      std::unique_ptr<contestant_t> contestant = kind.open(setup);
      const record_t record = contestant->get(options.records / 2);
      results.add(OPEN, kind.name, seconds_since(start) * 1e3);
      if (record != data.records()[options.records / 2])
        throw std::runtime_error(fmt::format("{}: the first record read is another one", kind.name));
      if (round == 0) verify(kind.name, *contestant, data);
      contestant.reset();
      fs::remove_all(setup.folder);
    }
  }
  for (const kind_t &kind : options.kinds()) fs::remove_all(fmt::format("{}/{}.killed", folder, kind.name));
}

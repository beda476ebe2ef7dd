// Commands of event_store. Exit status: 0; 1: a fault in the store; 2: anything else.
#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <thread>

#include "event_store.h"

namespace {

struct RunOptions {
  std::string folder;
  uint64_t n_events = 10000;
  uint32_t n_writers = 4;
  size_t keep = 1000;
  int layout = 2;
  bool shadow = false;
  bool no_fork = false;
  uint64_t snapshot_bytes = 64 << 20;
  uint32_t snapshot_ms = 0;
  std::string acknowledged;
};

// Prints what the opening found. Returns whether the store is sound.
bool report(const EventStore &store) {
  const tslb_store_info_t info = store.info();
  const char *state = info.was_created ? "created" : info.was_sealed ? "closed before" : "recovered";
  std::printf("%s: generation %lu, %lu batches from %lu bytes of journal, %lu bytes cut, %zu events%s\n", state,
              info.generation, info.n_batches_found, info.journal_bytes, info.cut_bytes, store.size(),
              info.was_upgraded ? ", upgraded" : "");
  if (info.warning[0] != '\0') std::printf("warning: %s\n", info.warning);
  const std::vector<std::string> faults = store.audit();
  for (const std::string &fault : faults) std::printf("fault: %s\n", fault.c_str());
  std::fflush(stdout);
  return faults.empty();
}

// Appends in batches of different sizes until `remaining` events are used up. Writes each acknowledged number to `fd`.
void write_events(EventStore &store, uint32_t source, std::atomic<int64_t> &remaining, int fd) {
  for (uint32_t n = 1 + source; remaining.fetch_sub(n) > 0; n = n % 23 + 1) {
    const std::string line = std::to_string(source) + ' ' + std::to_string(store.append(source, n)) + '\n';
    if (fd != -1 && write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
      throw StoreError("acknowledged numbers cannot be written");
  }
}

int run(const RunOptions &options) {
  tslb_store_options_t store_options{};
  store_options.flags = TSLB_STORE_CREATE;
  if (options.shadow) store_options.flags |= TSLB_STORE_SHADOW;
  if (options.no_fork) store_options.flags |= TSLB_STORE_NO_FORK;
  store_options.snapshot_bytes = options.snapshot_bytes;
  EventStore store(options.folder, options.layout, options.keep, store_options);
  if (!report(store)) return 1;
  int fd = -1;
  if (!options.acknowledged.empty()) {
    fd = open(options.acknowledged.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd == -1) throw StoreError(options.acknowledged + ": " + std::strerror(errno));
  }

  std::atomic<int64_t> remaining = options.n_events == 0 ? INT64_MAX : static_cast<int64_t>(options.n_events);
  std::atomic<uint32_t> n_writing = options.n_writers;
  std::vector<std::exception_ptr> failures(options.n_writers);
  std::vector<std::thread> writers;
  for (uint32_t source = 0; source < options.n_writers; ++source)
    writers.emplace_back([&, source] {
      try {
        write_events(store, source, remaining, fd);
      } catch (...) {
        failures[source] = std::current_exception();
        remaining = 0;
      }
      --n_writing;
    });
  while (options.snapshot_ms != 0 && n_writing > 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(options.snapshot_ms));
    try {
      store.snapshot();
    } catch (const StoreError &error) {
      std::fprintf(stderr, "no snapshot: %s\n", error.what());  // the store goes on with the one before
    }
  }
  for (std::thread &writer : writers) writer.join();
  if (fd != -1) close(fd);
  for (const std::exception_ptr &failure : failures)
    if (failure) std::rethrow_exception(failure);

  const tslb_store_info_t info = store.info();
  if (info.snapshot_failure[0] != '\0') std::fprintf(stderr, "no automatic snapshot: %s\n", info.snapshot_failure);
  std::printf("%zu events kept; %lu batches in %lu groups, %lu generations written, %lu restorations\n", store.size(),
              info.n_batches, info.n_groups, info.n_snapshots, store.restored());
  store.close();
  return 0;
}

// A store of either layout can be read: version 1 is converted in memory.
tslb_store_options_t read_only() {
  tslb_store_options_t options{};
  options.flags = TSLB_STORE_READ_ONLY;
  return options;
}

int check(const std::string &folder) {
  const EventStore store(folder, 2, SIZE_MAX, read_only());
  const bool is_sound = report(store);
  const Counters &counters = store.counters();
  for (uint32_t source = 0; source < N_SOURCES_MAX; ++source)
    if (counters.appended[source] != 0)
      std::printf("source %u: %lu appended, %lu deleted\n", source, counters.appended[source],
                  counters.deleted[source]);
  return is_sound ? 0 : 1;
}

int list(const std::string &folder, size_t n_last) {
  const EventStore store(folder, 2, SIZE_MAX, read_only());
  for (size_t at = store.size() - std::min(n_last, store.size()); at < store.size(); ++at) {
    const Event event = store.event(at);
    std::printf("%lu: time %lu, type %u, severity %u: %s\n", event.order, event.time_ns, event.type, event.severity,
                store.text_of(event).c_str());
  }
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  std::signal(SIGXFSZ, SIG_IGN);  // a limit of file sizes is an error of a write instead
  RunOptions options;
  size_t n_last = 10;
  CLI::App app{"Appends events to a durable store, and checks it"};
  app.require_subcommand(1);
  CLI::App *run_command = app.add_subcommand("run", "Appends events with several threads");
  run_command->add_option("FOLDER", options.folder)->required();
  run_command->add_option("--events", options.n_events, "number of events; 0: until it is killed")
      ->capture_default_str();
  run_command->add_option("--writers", options.n_writers, "threads, each a source")
      ->check(CLI::Range(1u, N_SOURCES_MAX));
  run_command->add_option("--keep", options.keep, "events that stay; older ones are deleted")->capture_default_str();
  run_command->add_option("--layout", options.layout, "version of the records")->check(CLI::Range(1, 2));
  run_command->add_flag("--shadow", options.shadow, "compare the arrays with what the journal has");
  run_command->add_option("--snapshot-bytes", options.snapshot_bytes, "journal bytes per generation; 0: never")
      ->capture_default_str();
  run_command->add_option("--snapshot-ms", options.snapshot_ms, "also write a generation after so much time");
  run_command->add_flag("--no-fork", options.no_fork, "write generations without a child process");
  run_command->add_option("--acknowledged", options.acknowledged, "file for the numbers that are durable, a line each");
  CLI::App *check_command = app.add_subcommand("check", "Checks a store, also beside a writer");
  check_command->add_option("FOLDER", options.folder)->required();
  CLI::App *list_command = app.add_subcommand("list", "Prints the last events");
  list_command->add_option("FOLDER", options.folder)->required();
  list_command->add_option("--last", n_last, "number of events")->capture_default_str();
  CLI11_PARSE(app, argc, argv);
  try {
    if (run_command->parsed()) return run(options);
    if (check_command->parsed()) return check(options.folder);
    return list(options.folder, n_last);
  } catch (const std::exception &error) {
    std::fprintf(stderr, "event_store: %s\n", error.what());
    return 2;
  }
}

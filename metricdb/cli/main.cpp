// metricdb: loads line protocol into tslb's arrays, keeps them in a folder, checks and shows what they hold, and
// records this machine's counters as line protocol. Here: the command line.
#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <string>

#include "cli/commands.h"
#include "cli/output.h"
#include "journal/log.h"
#include "store/series_record.h"

namespace metricdb {
namespace {

constexpr int64_t MAX_SECONDS = INT64_MAX / NS_PER_S;
constexpr size_t LONGEST_LOG_NAME = 1000;  // the log adds process and version, and has room for 1,023 bytes
constexpr int LOG_FILE_MIB = 10;

struct LogArguments {
  std::string base;
  int level = LOG_PROGRESS;
};

const char *const LOAD_FOOTER =
    "Numbers and booleans become points; quoted strings are counted and skipped. A malformed line\n"
    "is reported on stderr and skipped as a whole.\n"
    "\n"
    "Forgetting goes by data time, which is the newest timestamp so far: one far ahead of the others\n"
    "makes them all old. With --check, what is retained is compared with what should be.\n"
    "\n"
    "With --db the load goes on from what DIR holds, and DIR holds the result when all was loaded:\n"
    "until then, and if the load fails, it is as it was. --retain, --idle and --reuse-inactive-pct\n"
    "are kept there; given again, they replace what is kept from then on.\n"
    "  --store snapshot  the arrays live in process memory, and are written when all is loaded.\n"
    "  --store shm       the arrays live in files of DIR, block by block. Needs a new DIR: such arrays\n"
    "                    cannot be attached to again. A later load reads them into process memory,\n"
    "                    goes on from there and writes a snapshot in their place.\n"
    "--check then reads DIR back and compares that. It needs a new DIR; otherwise see `metricdb check`.\n"
    "\n"
    "Exit: 0 all was loaded\n"
    "      1 an input or DIR cannot be read, DIR cannot be written, the store is full, the check found\n"
    "        a difference, or the arguments are wrong\n"
    "      2 some lines were malformed, and the rest was loaded";

void add_precision(CLI::App *command, std::string &precision) {
  command->add_option("--precision", precision, "unit of the timestamps: ns, us, ms or s")
      ->check(CLI::IsMember({"ns", "us", "ms", "s"}).description(""))
      ->capture_default_str()
      ->type_name("UNIT");
}

void add_db(CLI::App *command, std::string &db, const char *what) {
  command->add_option("--db", db, what)->required()->type_name("DIR");
}

void add_forgetting(CLI::App *command, ForgettingChange &change) {
  const auto add_seconds = [command](const char *name, std::optional<int64_t> &ns, const char *what) {
    command
        ->add_option_function<int64_t>(
            name, [&ns](int64_t seconds) { ns = seconds * NS_PER_S; }, what)
        ->check(CLI::Range(int64_t{1}, MAX_SECONDS).description(""))
        ->type_name("SECONDS");
  };
  add_seconds("--retain", change.retain_ns,
              "forget points that are this much older than the newest point of all series");
  add_seconds("--idle", change.idle_ns,
              "make a series inactive if it was not written for this long; it keeps its points");
  const auto set_percent = [&change](int percent) { change.reuse_inactive_pct = static_cast<uint8_t>(percent); };
  command
      ->add_option_function<int>("--reuse-inactive-pct", set_percent,
                                 "when this percentage of the slots is inactive, new series replace the series\n"
                                 "that have been inactive longest; needs --idle")
      ->check(CLI::Range(1, 100).description(""))
      ->type_name("PERCENT");
}

CLI::App *add_load(CLI::App &app, LoadArguments &arguments) {
  CLI::App *const command = app.add_subcommand("load", "load line protocol and say what came of it");
  command->add_option("FILE", arguments.files, "files of line protocol; - is standard input")
      ->required()
      ->type_name("");
  add_precision(command, arguments.precision);
  command->add_option("--db", arguments.db, "keep what was loaded in this folder, beside what it holds")
      ->type_name("DIR");
  command->add_option("--store", arguments.store, "how --db keeps it: snapshot (the default) or shm")
      ->check(CLI::IsMember({"snapshot", "shm"}).description(""))
      ->type_name("KIND");
  command
      ->add_option("--series", arguments.series_pattern,
                   "show the series whose keys match this pattern, as in 'cpu,*core=0* user'")
      ->type_name("PATTERN");
  command->add_flag("--check", arguments.check,
                    "read the inputs again and compare every point with the arrays;\n"
                    "goes with no --reuse-inactive-pct");
  add_forgetting(command, arguments.forgetting);
  command->footer(LOAD_FOOTER);
  return command;
}

CLI::App *add_check(CLI::App &app, CheckArguments &arguments) {
  CLI::App *const command = app.add_subcommand("check", "compare a database with all that was loaded into it");
  add_db(command, arguments.db, "the database's folder");
  command->add_option("FILE", arguments.files, "the files that were loaded, all of them, in their order")
      ->required()
      ->type_name("");
  add_precision(command, arguments.precision);
  command->footer(
      "Points without a timestamp got the time of their load, which is not known here: they differ.\n"
      "\n"
      "Exit: 0 every point is there and no other; 1 there are differences, or something cannot be read.");
  return command;
}

void add_layout(CLI::App *command, std::optional<int> &layout) {
  command
      ->add_option("--layout", layout,
                   "layout of the catalogue, 1 or 0: a database of layout 1 is taken down to 0 for good,\n"
                   "for programs that know no other")
      ->check(CLI::Range(int{OLDEST_LAYOUT}, int{NEWEST_LAYOUT}).description(""))
      ->type_name("N");
}

void add_salvage(CLI::App *command, bool &salvage) {
  command->add_flag("--salvage", salvage, "of a damaged journal take what lies ahead of the damage");
}

CLI::App *add_snapshot(CLI::App &app, SnapshotArguments &arguments) {
  CLI::App *const command = app.add_subcommand("snapshot", "write a database anew, as snapshot streams");
  add_db(command, arguments.db, "the database's folder, of either store");
  add_layout(command, arguments.layout);
  add_salvage(command, arguments.salvage);
  command->footer("Exit: 0 it was written; 1 it could not be, or the database is damaged: DIR is as it was.");
  return command;
}

CLI::App *add_verify(CLI::App &app, VerifyArguments &arguments) {
  CLI::App *const command = app.add_subcommand("verify", "audit a database: lists, pools, keys, chains, journal");
  add_db(command, arguments.db, "the database's folder");
  add_salvage(command, arguments.salvage);
  command->footer("Exit: 0 all is sound; 1 it is damaged, and the message says where, or it cannot be read.");
  return command;
}

const char *const INGEST_FOOTER =
    "Each batch of lines is durable before the next but a few is taken: it is in a journal, which a\n"
    "restart replays. A batch that cannot be written is refused as a whole, and ends the command;\n"
    "what was durable before stays. One process at a time writes to DIR.\n"
    "  --sync always  one sync of the disk for each batch\n"
    "  --sync batch   batches that wait together share one\n"
    "  --sync none    a batch outlives this process, but not a crash of the machine\n"
    "\n"
    "Exit: 0 all is durable\n"
    "      1 an input or DIR cannot be read, a batch was refused, or the arguments are wrong\n"
    "      2 some lines were malformed, and the rest is durable";

// What `ingest` and `serve` have in common.
void add_write(CLI::App *command, WriteArguments &arguments) {
  add_db(command, arguments.db, "the database's folder, made if there is none");
  command->add_option("--sync", arguments.sync, "when the disk is synced: always, batch or none")
      ->check(CLI::IsMember({"always", "batch", "none"}).description(""))
      ->capture_default_str()
      ->type_name("HOW");
  command
      ->add_option("--snapshot-mb", arguments.snapshot_mb,
                   "write a snapshot each time the journal has grown by so much; 0: never")
      ->check(CLI::Range(0, 1 << 20).description(""))
      ->capture_default_str()
      ->type_name("MIB");
  add_forgetting(command, arguments.forgetting);
  add_layout(command, arguments.layout);
  add_salvage(command, arguments.salvage);
}

CLI::App *add_ingest(CLI::App &app, IngestArguments &arguments) {
  CLI::App *const command = app.add_subcommand("ingest", "take line protocol into a database, durable batch by batch");
  command->add_option("FILE", arguments.files, "files or pipes of line protocol; - is standard input")
      ->required()
      ->type_name("");
  add_precision(command, arguments.precision);
  add_write(command, arguments.write);
  command->add_option("--batch-lines", arguments.batch_lines, "lines of a batch, at most")
      ->check(CLI::Range(1, 10'000'000).description(""))
      ->capture_default_str()
      ->type_name("N");
  command->add_flag("--acks", arguments.acks, "print `durable N` whenever N lines are");
  command->footer(INGEST_FOOTER);
  return command;
}

const char *const SERVE_FOOTER =
    "Influx: the HTTP interface of InfluxDB 1.x. POST /write answers 204 when all of the request is\n"
    "durable, 400 with the first reason when some lines were malformed and the rest is, 503 or 507 when\n"
    "nothing of it is; /ping and what agents ask of /query at their start are answered as well.\n"
    "Graphite: the plaintext protocol, `path[;tag=value] value seconds`, which answers nothing.\n"
    "Forgetting goes by data time, which is the newest timestamp so far: one far ahead of the others\n"
    "makes them all old.\n"
    "SIGTERM and SIGINT: what has arrived is taken, made durable and answered, then the command ends.\n"
    "\n"
    "Exit: 0 it was told to end; 1 a port is taken, DIR cannot be used, or the disk failed.";

CLI::App *add_serve(CLI::App &app, ServeArguments &arguments) {
  CLI::App *const command = app.add_subcommand("serve", "take points from agents over TCP");
  add_write(command, arguments.write);
  const auto add_port = [command](const char *name, std::optional<int> &port, const char *what) {
    command->add_option(name, port, what)->check(CLI::Range(0, 65'535).description(""))->type_name("PORT");
  };
  add_port("--influx", arguments.influx_port, "port of the InfluxDB interface; 0: any that is free");
  add_port("--graphite", arguments.graphite_port, "port of Graphite's plaintext protocol; 0: any that is free");
  command->add_option("--address", arguments.address, "address to listen at")->capture_default_str()->type_name("IP");
  command->footer(SERVE_FOOTER);
  return command;
}

CLI::App *add_stat(CLI::App &app, VerifyArguments &arguments) {
  CLI::App *const command = app.add_subcommand("stat", "say what a database holds, array by array");
  add_db(command, arguments.db, "the database's folder");
  add_salvage(command, arguments.salvage);
  command->footer("Exit: 0; 1 the database is damaged or cannot be read.");
  return command;
}

CLI::App *add_query(CLI::App &app, QueryArguments &arguments) {
  CLI::App *const command = app.add_subcommand("query", "show the points of a series, or a figure for each window");
  add_db(command, arguments.db, "the database's folder");
  command->add_option("KEY", arguments.key, "the series, as `series` shows it: 'cpu,core=0,host=a usage'")
      ->required()
      ->type_name("");
  command->add_option("--from", arguments.from, "from this time on; see below")->type_name("TIME");
  command->add_option("--to", arguments.to, "up to this time, which does not count any more")->type_name("TIME");
  command->add_option("--every", arguments.every, "length of the windows, as in 1m; without: the points themselves")
      ->type_name("DURATION");
  command->add_option("--fn", arguments.fn, "of the points in a window: mean, max, min, sum, count or last")
      ->check(CLI::IsMember({"mean", "max", "min", "sum", "count", "last"}).description(""))
      ->capture_default_str()
      ->type_name("FN");
  command->add_option("--format", arguments.format, "table, csv, json or svg")
      ->check(CLI::IsMember({"table", "csv", "json", "svg"}).description(""))
      ->capture_default_str()
      ->type_name("FORMAT");
  add_salvage(command, arguments.salvage);
  command->footer(
      "TIME is 2026-01-02T03:04:05.678Z, 2026-01-02, now, now-15m, or nanoseconds since 1970.\n"
      "DURATION is 250ms, 10s, 1m, 2h, 1d, 1w, or a sum of them as in 1h30m.\n"
      "\n"
      "Exit: 0; 1 there is no such series, the database is damaged or cannot be read, or the\n"
      "arguments are wrong.");
  return command;
}

CLI::App *add_of_series(CLI::App &app, SeriesArguments &arguments, const char *name, const char *what) {
  CLI::App *const command = app.add_subcommand(name, what);
  add_db(command, arguments.db, "the database's folder");
  command->add_option("PATTERN", arguments.pattern, "only series whose keys match, as in 'cpu,*core=0* user'")
      ->type_name("");
  add_salvage(command, arguments.salvage);
  command->footer("Exit: 0; 1 the database is damaged or cannot be read.");
  return command;
}

CLI::App *add_record(CLI::App &app, RecordArguments &arguments) {
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
  return command;
}

void add_log(CLI::App &app, LogArguments &arguments) {
  app.add_option("--log", arguments.base, "write a log; process id and a number are added to the name")
      ->check([](const std::string &base) {
        return base.empty() || base.size() > LONGEST_LOG_NAME ? "the name of a log has 1 to 1,000 bytes" : "";
      })
      ->type_name("FILE");
  app.add_option("--log-level", arguments.level,
                 "what goes into the log: 1 refusals, 2 progress too, 3 sweeps, arrays and malformed lines too")
      ->check(CLI::Range(1, 3).description(""))
      ->capture_default_str()
      ->type_name("N");
}

void start_log(const LogArguments &arguments, const char *command) {
  if (arguments.base.empty()) return;
  TSLB_DLOG_INIT(arguments.base.c_str(), arguments.level, LOG_FILE_MIB);
  TSLB_DLOG_THREAD_NAME("metricdb");
  TSLB_DLOG(LOG_PROGRESS, "start: %s", command);
}

// A file that is opened under the number of a standard stream would get what is printed there.
void hold_standard_streams() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    if (fcntl(fd, F_GETFD) < 0) open("/dev/null", O_RDWR);  // the lowest number that is free
}

}  // namespace
}  // namespace metricdb

int main(int argc, char **argv) {
  using namespace metricdb;
  hold_standard_streams();
  CLI::App app("metricdb: a small time-series database on tslb's arrays", "metricdb");
  app.require_subcommand(1);
  app.fallthrough();
  LogArguments log;
  LoadArguments load_arguments;
  CheckArguments check_arguments;
  SeriesArguments series_arguments, export_arguments;
  RecordArguments record_arguments;
  IngestArguments ingest_arguments;
  ServeArguments serve_arguments;
  SnapshotArguments snapshot_arguments;
  VerifyArguments verify_arguments;
  QueryArguments query_arguments;
  VerifyArguments stat_arguments;
  add_log(app, log);
  const CLI::App *const is_load = add_load(app, load_arguments);
  const CLI::App *const is_check = add_check(app, check_arguments);
  const CLI::App *const is_ingest = add_ingest(app, ingest_arguments);
  const CLI::App *const is_serve = add_serve(app, serve_arguments);
  const CLI::App *const is_snapshot = add_snapshot(app, snapshot_arguments);
  const CLI::App *const is_verify = add_verify(app, verify_arguments);
  const CLI::App *const is_stat = add_stat(app, stat_arguments);
  const CLI::App *const is_series = add_of_series(app, series_arguments, "series", "show the series of a database");
  const CLI::App *const is_query = add_query(app, query_arguments);
  const CLI::App *const is_export =
      add_of_series(app, export_arguments, "export", "write the points of a database as line protocol");
  add_record(app, record_arguments);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    return app.exit(error) == 0 ? EXIT_GOOD : EXIT_ERROR;
  }
  signal(SIGXFSZ, SIG_IGN);  // a limit on file sizes is an error like a full disk
  try {
    start_log(log, app.get_subcommands().front()->get_name().c_str());
    if (*is_load) return load(load_arguments);
    if (*is_check) return check(check_arguments);
    if (*is_ingest) return ingest(ingest_arguments);
    if (*is_serve) return serve(serve_arguments);
    if (*is_snapshot) return snapshot(snapshot_arguments);
    if (*is_verify) return verify(verify_arguments);
    if (*is_stat) return metricdb::stat(stat_arguments);
    if (*is_query) return query(query_arguments);
    if (*is_series) return series(series_arguments);
    if (*is_export) return export_points(export_arguments);
    return record(record_arguments);
  } catch (const std::exception &error) {
    TSLB_DLOG(LOG_REFUSALS, "refused: %s", error.what());
    complain(fmt::format("metricdb: {}", error.what()));
    return EXIT_ERROR;
  }
}

// metricdb: the command line. The program loads line protocol into tslb's arrays, stores them in a folder, checks and
// shows their content, and records counters of this machine.
#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <tslb/tslb_version.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <string>

#include "cli/commands.h"
#include "cli/config_file.h"
#include "cli/log_file.h"
#include "cli/output.h"
#include "cli/replica_options.h"
#include "cli/service_manager.h"
#include "store/log.h"
#include "store/series_record.h"
#include "store/store.h"

namespace metricdb {
namespace {

constexpr int64_t MAX_SECONDS = INT64_MAX / NS_PER_S;
constexpr size_t MAX_LOG_NAME_BYTES = 1000;  // the log adds process and version, and has room for 1,023 bytes

const char *const LOAD_FOOTER =
    "Numbers and booleans become points; quoted strings are counted and skipped. A malformed line\n"
    "is reported on stderr and skipped as a whole.\n"
    "\n"
    "Limits in time refer to data time, which is the newest timestamp so far. A timestamp in the far\n"
    "future makes all other points old. With --check, the retained points are compared with the inputs.\n"
    "\n"
    "With --db the points are added to those in DIR. DIR is changed when everything was loaded; if the\n"
    "load fails, it stays as it was. --retain, --idle and --reuse-inactive-pct are stored in DIR; new\n"
    "values replace the stored ones.\n"
    "--check then reads DIR and compares that. It needs a new DIR; otherwise see `metricdb check`.\n"
    "\n"
    "Exit: 0 everything was loaded\n"
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
  CLI::App *const command = app.add_subcommand("load", "load line protocol and print a summary");
  command->add_option("FILE", arguments.files, "files of line protocol; - is standard input")
      ->required()
      ->type_name("");
  add_precision(command, arguments.precision);
  command->add_option("--db", arguments.db, "add the points to the database in this folder")->type_name("DIR");
  command
      ->add_option("--series", arguments.series_pattern,
                   "print the series whose keys match this pattern, for example 'cpu,*core=0* user'")
      ->type_name("PATTERN");
  command->add_flag("--check", arguments.check,
                    "read the inputs again and compare every point with the arrays;\n"
                    "not possible with --reuse-inactive-pct");
  add_forgetting(command, arguments.forgetting);
  command->footer(LOAD_FOOTER);
  return command;
}

CLI::App *add_check(CLI::App &app, CheckArguments &arguments) {
  CLI::App *const command = app.add_subcommand("check", "compare a database with the inputs of all its loads");
  add_db(command, arguments.db, "the folder of the database");
  command->add_option("FILE", arguments.files, "all loaded files, in the order of the loads")
      ->required()
      ->type_name("");
  add_precision(command, arguments.precision);
  command->footer(
      "Points without a timestamp have the time of their load, which is not known here, so they differ.\n"
      "\n"
      "Exit: 0 there are no differences; 1 there are differences, or a file cannot be read.");
  return command;
}

void add_layout(CLI::App *command, std::optional<int> &layout) {
  command
      ->add_option("--layout", layout,
                   "layout of the catalogue, 1 or 0; 0 converts a database of layout 1 permanently,\n"
                   "for programs that support layout 0 only")
      ->check(CLI::Range(int{OLDEST_LAYOUT}, int{NEWEST_LAYOUT}).description(""))
      ->type_name("N");
}

void add_salvage(CLI::App *command, bool &salvage) {
  command->add_flag("--salvage", salvage, "read a damaged journal up to the damage");
}

CLI::App *add_snapshot(CLI::App &app, SnapshotArguments &arguments) {
  CLI::App *const command = app.add_subcommand("snapshot", "write a new generation of a database");
  add_db(command, arguments.db, "the folder of the database");
  add_layout(command, arguments.layout);
  add_salvage(command, arguments.salvage);
  command->footer("Exit: 0 it was written; 1 it was not written, or the database is damaged; DIR stays as it was.");
  return command;
}

void add_server(CLI::App *command, ServerAccess &server, const char *what) {
  command->add_option("--server", server.addresses, what)->expected(1)->type_name("[https://]ADDRESS:PORT");
  command->add_option("--ca", server.ca_file, "with https: trust these authorities, in PEM, in place of the system's")
      ->type_name("FILE");
  command->add_option("--user", server.user, "user of the server; the password is in METRICDB_PASSWORD")
      ->type_name("NAME");
  command->add_option("--password-file", server.password_file, "read the password from the first line of a file")
      ->type_name("FILE");
}

CLI::App *add_backup(CLI::App &app, BackupArguments &arguments) {
  CLI::App *const command = app.add_subcommand("backup", "copy a database, also while it is served");
  command->add_option("--db", arguments.db, "the folder of a database that no process writes to")->type_name("DIR");
  add_server(command, arguments.server, "a running server with --backup-folder, in place of --db");
  command->add_option("--database", arguments.database, "with --server: the database to copy")->type_name("NAME");
  command->add_option("TO", arguments.to, "the new folder; with --server its name in the server's folder for backups")
      ->required()
      ->type_name("");
  command->footer(
      "The copy is complete, verified and durable when TO has its name; until then it is TO.partial.\n"
      "\n"
      "Exit: 0 it was written; 1 it was not written, and nothing is left of it.");
  return command;
}

CLI::App *add_promote(CLI::App &app, PromoteArguments &arguments) {
  CLI::App *const command = app.add_subcommand("promote", "make a server that follows the leader of its replicas");
  add_server(command, arguments.server, "the server, which runs with --replica");
  command->footer(
      "The server applies the rest of the log, and then takes points. Another leader takes no more.\n"
      "\n"
      "Exit: 0 it leads; 1 it does not, and the message says why.");
  return command;
}

CLI::App *add_restore(CLI::App &app, RestoreArguments &arguments) {
  CLI::App *const command = app.add_subcommand("restore", "verify a backup and make a new database of it");
  command->add_option("FROM", arguments.from, "the folder of the backup, which is not changed")
      ->required()
      ->type_name("");
  add_db(command, arguments.db, "the new folder, which does not exist or is empty");
  command->footer("Exit: 0 it was written and verified; 1 it was not written, and nothing is left of it.");
  return command;
}

CLI::App *add_verify(CLI::App &app, VerifyArguments &arguments) {
  CLI::App *const command = app.add_subcommand("verify", "check a database: lists, pools, keys, chains, journal");
  add_db(command, arguments.db, "the folder of the database");
  add_salvage(command, arguments.salvage);
  command->footer("Exit: 0 no fault was found; 1 it is damaged or cannot be read, and the message names the place.");
  return command;
}

const char *const INGEST_FOOTER =
    "Each batch of lines is written to a journal, which is replayed when DIR is opened. A few batches can\n"
    "be waiting for the disk. A batch that cannot be written is refused as a whole, and the command\n"
    "ends; earlier batches stay durable. One process at a time can write to DIR.\n"
    "  --sync always  one sync of the disk for each batch\n"
    "  --sync batch   one sync for all waiting batches\n"
    "  --sync none    no sync: a crash of the machine can lose batches\n"
    "\n"
    "Exit: 0 all points are durable\n"
    "      1 an input or DIR cannot be read, a batch was refused, or the arguments are wrong\n"
    "      2 some lines were malformed, and the rest is durable";

// The common options of `ingest` and `serve`.
void add_write(CLI::App *command, WriteArguments &arguments) {
  command->add_option("--sync", arguments.sync, "when the disk is synced: always, batch or none")
      ->check(CLI::IsMember({"always", "batch", "none"}).description(""))
      ->capture_default_str()
      ->type_name("HOW");
  command
      ->add_option("--snapshot-mb", arguments.snapshot_mb,
                   "write a snapshot each time the journal has grown by this size; 0: never")
      ->check(CLI::Range(0.0, double{1 << 20}).description(""))
      ->capture_default_str()
      ->type_name("MIB");
  add_forgetting(command, arguments.forgetting);
  add_layout(command, arguments.layout);
  add_salvage(command, arguments.salvage);
}

CLI::App *add_ingest(CLI::App &app, IngestArguments &arguments) {
  CLI::App *const command = app.add_subcommand("ingest", "write line protocol to a database in durable batches");
  command->add_option("FILE", arguments.files, "files or pipes of line protocol; - is standard input")
      ->required()
      ->type_name("");
  add_precision(command, arguments.precision);
  add_db(command, arguments.write.db, "the folder of the database, created if missing");
  add_write(command, arguments.write);
  command->add_option("--batch-lines", arguments.batch_lines, "maximum number of lines in a batch")
      ->check(CLI::Range(1, 10'000'000).description(""))
      ->capture_default_str()
      ->type_name("N");
  command->add_flag("--acks", arguments.acks, "print `durable N` when N lines are durable");
  command->footer(INGEST_FOOTER);
  return command;
}

const char *const SERVE_FOOTER =
    "Influx: the HTTP interface of InfluxDB 1.x. POST /write answers 204 when all points are durable,\n"
    "400 with the first reason when some lines were malformed, too old or too new and the rest is durable,\n"
    "503 when lines have no room at the moment, 507 when no point was stored. /ping and the\n"
    "initial requests of agents to /query are answered too. /health answers 503 while points cannot be\n"
    "made durable, and /metrics has figures for Prometheus.\n"
    "Graphite: the plaintext protocol, `path[;tag=value] value seconds`, which has no answers.\n"
    "NATS: the payload of a message is line protocol with nanoseconds. It is acknowledged when its points are\n"
    "durable; lines that are malformed, too old or too new are skipped. A message that cannot be stored at the\n"
    "moment stays in the stream. A stream that is made here keeps messages until they are acknowledged.\n"
    "A point with the time of a recent point of its series replaces it, so requests can be sent again.\n"
    "--retain counts from the clock of this machine, so that one odd timestamp does not matter; with --data\n"
    "it is for new databases. --idle refers to data time, which is the newest timestamp so far. --max-future\n"
    "limits how far one timestamp can move it.\n"
    "Statements with POST /query delete series and points, change the retention, and with --data create and\n"
    "drop databases: --db takes any name of a database for the only one.\n"
    "Users: the hash is one of crypt(3), for example of `openssl passwd -6`. The rights are rw, r or w; w for\n"
    "/write, r for queries and /metrics. /ping and /health need no user.\n"
    "TLS: for both ports. Without it and users the command serves loopback addresses only; see --insecure.\n"
    "The ports are open before the database is; meanwhile the answer is 503 with the progress.\n"
    "Replicas: a server with --replica follows the leader, answers queries, and refuses points with 503 until\n"
    "POST /promote or `metricdb promote` makes it the leader. A leader ends with 1 when another leads, or when\n"
    "the log does not answer for 10 s.\n"
    "SIGTERM and SIGINT: requests that have arrived are processed and answered, then the command ends.\n"
    "SIGHUP: the log is opened again, for example after it was renamed, and the certificate and the\n"
    "users are read again.\n"
    "\n"
    "Exit: 0 after a signal; 1 a port is in use, DIR cannot be used, the disk failed, or a replica neither leads\n"
    "nor follows any more.";

void add_nats(CLI::App *command, ServeArguments &arguments) {
  const auto add = [command](const char *name, std::string &value, const char *what, const char *type) {
    return command->add_option(name, value, what)->type_name(type);
  };
  NatsOptions &nats = arguments.nats;
  add("--nats", nats.subject, "store messages of NATS JetStream with this subject; see below", "SUBJECT");
  add("--nats-servers", nats.servers, "servers of NATS", "URL[,URL...]")->capture_default_str();
  add("--nats-stream", nats.stream, "the stream; default: the one with the subject, or a new one", "NAME");
  add("--nats-durable", nats.consumer, "the name of the durable consumer; default: made of the subject", "NAME")
      ->check([](const std::string &name) {
        return name.empty() || name.find_first_of(".*>/\\ ") != name.npos ? "a name without . * > / \\ and spaces" : "";
      });
  command
      ->add_option("--nats-ack-wait", arguments.nats_ack_wait_s,
                   "of a new consumer: a message that was not acknowledged for so long comes again")
      ->check(CLI::Range(1, 3600).description(""))
      ->capture_default_str()
      ->type_name("SECONDS");
  add("--nats-user", nats.user, "user of NATS", "NAME");
  add("--nats-password-file", arguments.nats_password_file, "a file whose first line is the password", "FILE");
  add("--nats-creds", nats.credentials_file, "credentials of NATS: a JWT and its key", "FILE");
  add("--nats-ca", nats.ca_file, "speak TLS with servers whose certificates are of these authorities, in PEM", "FILE");
  add("--nats-db", nats.database, "with --data: the database of messages without the header db", "NAME")
      ->capture_default_str();
}

CLI::App *add_serve(CLI::App &app, ServeArguments &arguments) {
  CLI::App *const command = app.add_subcommand("serve", "receive points from agents over TCP");
  add_config_file(command);
  command->add_option("--db", arguments.write.db, "the folder of the only database, created if missing")
      ->type_name("DIR");
  command
      ->add_option("--data", arguments.data, "a folder of databases, which clients create and drop, in place of --db")
      ->type_name("DIR");
  command->add_option("--graphite-db", arguments.graphite_database, "with --data: the database of Graphite lines")
      ->capture_default_str()
      ->type_name("NAME");
  add_write(command, arguments.write);
  const auto add_port = [command](const char *name, std::optional<int> &port, const char *what) {
    command->add_option(name, port, what)->check(CLI::Range(0, 65'535).description(""))->type_name("PORT");
  };
  add_port("--influx", arguments.influx_port, "port of the InfluxDB interface; 0: any free port");
  add_port("--graphite", arguments.graphite_port, "port of Graphite's plaintext protocol; 0: any free port");
  command->add_option("--address", arguments.address, "address to listen on")->capture_default_str()->type_name("IP");
  const auto add_file = [command](const char *name, std::string &file, const char *what) {
    command->add_option(name, file, what)->type_name("FILE");
  };
  add_file("--tls-cert", arguments.tls_certificate_file, "speak TLS with this certificate and its chain, in PEM");
  add_file("--tls-key", arguments.tls_key_file, "the key of the certificate, in PEM");
  add_file("--user-file", arguments.user_file,
           "users of the InfluxDB interface, lines name:hash or name:hash:rights; see below");
  command->add_flag("--insecure", arguments.insecure, "serve other machines without TLS, users or both");
  command
      ->add_option("--max-future", arguments.max_future_s,
                   "refuse lines whose timestamp is this much after the clock of this machine")
      ->check(CLI::Range(int64_t{0}, MAX_SECONDS).description(""))
      ->capture_default_str()
      ->type_name("SECONDS");
  command->add_option("--max-key-bytes", arguments.max_key_bytes, "refuse lines with a longer series key")
      ->check(CLI::Range(size_t{1}, Store::MAX_KEY_BYTES).description(""))
      ->capture_default_str()
      ->type_name("BYTES");
  command
      ->add_option("--max-new-series", arguments.max_new_series,
                   "create at most so many series per request; the answer 503 asks for the rest again")
      ->check(CLI::Range(uint64_t{1}, uint64_t{1} << 32).description(""))
      ->capture_default_str()
      ->type_name("N");
  command
      ->add_option("--backup-folder", arguments.backup_folder,
                   "answer POST /backup?name=NAME by writing a backup to this folder")
      ->type_name("DIR");
  add_nats(command, arguments);
  command->add_flag("--drop-strings", arguments.drop_strings,
                    "store the other fields of a line with strings; without it such lines are refused");
  add_replica(command, arguments.replica);
  command->footer(SERVE_FOOTER);
  return command;
}

CLI::App *add_stat(CLI::App &app, VerifyArguments &arguments) {
  CLI::App *const command = app.add_subcommand("stat", "print the content and sizes of a database");
  add_db(command, arguments.db, "the folder of the database");
  add_salvage(command, arguments.salvage);
  command->footer("Exit: 0; 1 the database is damaged or cannot be read.");
  return command;
}

CLI::App *add_query(CLI::App &app, QueryArguments &arguments) {
  CLI::App *const command =
      app.add_subcommand("query", "print the points of a series, or the answer to a statement of InfluxQL");
  command->add_option("--db", arguments.db, "the folder of the database")->type_name("DIR");
  add_server(command, arguments.server,
             "a running server, with --influxql, in place of --db; several times: the answer of all");
  command->get_option("--server")
      ->expected(1, -1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->allow_extra_args(false);
  command->add_option("--database", arguments.database, "with --server: the database of the statements")
      ->type_name("NAME");
  command->add_option("--influxql", arguments.statement, "statements, separated by semicolons")->type_name("TEXT");
  command->add_option("KEY", arguments.key, "key of the series, as printed by `series`: 'cpu,core=0,host=a usage'")
      ->type_name("");
  command->add_option("--from", arguments.from, "first time; see below")->type_name("TIME");
  command->add_option("--to", arguments.to, "end of the range, exclusive")->type_name("TIME");
  command
      ->add_option("--every", arguments.every,
                   "length of the windows, for example 1m; without it the points are printed")
      ->type_name("DURATION");
  command->add_option("--fn", arguments.fn, "function of the points in a window: mean, max, min, sum, count or last")
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
      "DURATION is 250ms, 10s, 1m, 2h, 1d, 1w, or a sum of them, for example 1h30m.\n"
      "\n"
      "The answer to --influxql is CSV, or JSON with --format json:\n"
      "  metricdb query --db data --influxql \"SELECT mean(user) FROM cpu GROUP BY time(1m), host\"\n"
      "  metricdb query --server 127.0.0.1:8086 --influxql 'SHOW MEASUREMENTS'\n"
      "Several servers, each with a part of the series, answer as one would. If one cannot, there is no answer.\n"
      "\n"
      "Exit: 0; 1 there is no such series, the database is damaged or cannot be read, or the\n"
      "arguments are wrong.");
  return command;
}

CLI::App *add_of_series(CLI::App &app, SeriesArguments &arguments, const char *name, const char *what) {
  CLI::App *const command = app.add_subcommand(name, what);
  add_db(command, arguments.db, "the folder of the database");
  command->add_option("PATTERN", arguments.pattern, "only series whose keys match, for example 'cpu,*core=0* user'")
      ->type_name("");
  add_salvage(command, arguments.salvage);
  command->footer("Exit: 0; 1 the database is damaged or cannot be read.");
  return command;
}

CLI::App *add_record(CLI::App &app, RecordArguments &arguments) {
  CLI::App *const command = app.add_subcommand("record", "sample this machine's counters as line protocol");
  command->add_option("--seconds", arguments.seconds, "duration")->required()->check(CLI::Range(1, 10'000'000));
  command->add_option("--interval-ms", arguments.interval_ms, "milliseconds from one sample to the next")
      ->check(CLI::Range(1, 86'400'000))
      ->capture_default_str();
  command->add_option("--out", arguments.out, "file to write instead of standard output")->type_name("FILE");
  command->add_option("--host", arguments.host, "value of the tag host")
      ->check([](const std::string &host) {
        for (const unsigned char byte : host)
          if (byte < ' ' || byte == 0x7f) return "a host name contains no control characters";
        return host.empty() || host.back() == '\\' ? "a host name is not empty and does not end with a backslash" : "";
      })
      ->capture_default_str();
  command->footer("Exit: 0 all was recorded; 1 the output cannot be written or the arguments are wrong.");
  return command;
}

void add_log(CLI::App &app, LogArguments &arguments) {
  app.add_option("--log", arguments.base, "write a log; its name gets the process id and a number")
      ->check([](const std::string &base) {
        return base.empty() || base.size() > MAX_LOG_NAME_BYTES ? "the name of a log has 1 to 1,000 bytes" : "";
      })
      ->type_name("FILE");
  app.add_option("--log-level", arguments.level,
                 "level of the log: 1 refusals and faults of clients, 2 also progress, 3 also sweeps, arrays and\n"
                 "malformed lines of files")
      ->check(CLI::Range(1, 3).description(""))
      ->capture_default_str()
      ->type_name("N");
}

// Without this, a file could get the number of a closed standard stream, and printed text would be written to it.
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
  app.set_version_flag("--version",
                       fmt::format("metricdb {}, {} systemd, {} replicas", TSLB_VERSION_STRING,
                                   KNOWS_SERVICE_MANAGER ? "with" : "without", KNOWS_REPLICAS ? "with" : "without"),
                       "show the version, and whether services of systemd and replicas are supported");
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
  BackupArguments backup_arguments;
  PromoteArguments promote_arguments;
  RestoreArguments restore_arguments;
  add_log(app, log);
  const CLI::App *const is_load = add_load(app, load_arguments);
  const CLI::App *const is_check = add_check(app, check_arguments);
  const CLI::App *const is_ingest = add_ingest(app, ingest_arguments);
  const CLI::App *const is_serve = add_serve(app, serve_arguments);
  const CLI::App *const is_snapshot = add_snapshot(app, snapshot_arguments);
  const CLI::App *const is_backup = add_backup(app, backup_arguments);
  const CLI::App *const is_promote = add_promote(app, promote_arguments);
  const CLI::App *const is_restore = add_restore(app, restore_arguments);
  const CLI::App *const is_verify = add_verify(app, verify_arguments);
  const CLI::App *const is_stat = add_stat(app, stat_arguments);
  const CLI::App *const is_series = add_of_series(app, series_arguments, "series", "print the series of a database");
  const CLI::App *const is_query = add_query(app, query_arguments);
  const CLI::App *const is_export =
      add_of_series(app, export_arguments, "export", "write the points of a database as line protocol");
  add_record(app, record_arguments);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    return app.exit(error) == 0 ? EXIT_GOOD : EXIT_ERROR;
  }
  signal(SIGXFSZ, SIG_IGN);  // so that exceeding a limit on file sizes is an error, like a full disk
  try {
    start_log(log, app.get_subcommands().front()->get_name().c_str());
    if (*is_load) return load(load_arguments);
    if (*is_check) return check(check_arguments);
    if (*is_ingest) return ingest(ingest_arguments);
    if (*is_serve) return serve(serve_arguments);
    if (*is_snapshot) return snapshot(snapshot_arguments);
    if (*is_backup) return backup(backup_arguments);
    if (*is_promote) return promote(promote_arguments);
    if (*is_restore) return restore(restore_arguments);
    if (*is_verify) return verify(verify_arguments);
    if (*is_stat) return metricdb::stat(stat_arguments);
    if (*is_query) return query(query_arguments);
    if (*is_series) return series(series_arguments);
    if (*is_export) return export_points(export_arguments);
    return record(record_arguments);
  } catch (const std::exception &error) {
    TSLB_DLOG(LOG_REFUSALS, "refused: %s", error.what());
    print_error(fmt::format("metricdb: {}", error.what()));
    return EXIT_ERROR;
  }
}

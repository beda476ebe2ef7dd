// tslb-inspect: shows stored arrays and reports inconsistencies. This file has the command line and writes the output.
// inspect/ analyses and renders.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include <tslb/array_loader.h>
#include <tslb/tslb_version.h>
#include "inspect/analysis.h"
#ifdef TSLB_WITH_DURABLE
#include "inspect/digest.h"
#include "inspect/durable_store.h"
#include "inspect/seal.h"
#endif
#include "inspect/render.h"
#include "refusal.h"

namespace {

constexpr int EXIT_SOUND = 0;
constexpr int EXIT_FAULTS = 1;
constexpr int EXIT_ERROR = 2;
constexpr int EXIT_CONTRADICTED = 3;

struct arguments_t {
  std::vector<std::string> files;
  std::string svg, html, store;
  inspect::options_t options;
  std::optional<inspect::layout_t> layout;
  bool json = false, force = false, digest = false, seal = false;
#ifdef TSLB_WITH_DURABLE
  inspect::seal_options_t seal_options;
#endif
};

// A file that cannot be read matters more than a contradiction to a sidecar, and that more than a fault.
int worse_of(int left, int right) {
  const auto rank = [](int status) { return status == EXIT_ERROR ? 4 : status; };
  return rank(left) > rank(right) ? left : right;
}

int print_error(const std::string &what) {
  fmt::print(stderr, "tslb-inspect: {}\n", what);
  return EXIT_ERROR;
}

// ---- Results -------------------------------------------------------------------------------------------------------

// Refuses an output path that names an inspected file, also through a link.
void check_output(const std::string &path, const inspect::reports_t &reports, bool force) {
  struct stat output, input;
  if (stat(path.c_str(), &output) != 0) return;
  for (const inspect::report_t &report : reports)
    for (const inspect::stored_file_t &file : report.files)
      if (stat(file.name.c_str(), &input) == 0 && input.st_dev == output.st_dev && input.st_ino == output.st_ino)
        throw tool_error_t(path + ": is one of the inspected files");
  if (!S_ISREG(output.st_mode)) throw tool_error_t(path + ": exists and is not a regular file");
  if (!force) throw tool_error_t(path + ": exists; --force replaces it");
}

void write_file(const std::string &path, const std::string &content, bool force) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | (force ? O_TRUNC : O_EXCL), 0666);
  if (fd < 0) throw_with_errno(path, "cannot be written");
  for (size_t at = 0; at < content.size();) {
    const ssize_t wrote = write(fd, content.data() + at, content.size() - at);
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote < 0) {
      const int error = errno;
      close(fd);
      errno = error;
      throw_with_errno(path, "cannot be written");
    }
    at += static_cast<size_t>(wrote);
  }
  if (close(fd) != 0) throw_with_errno(path, "cannot be written");
}

// ---- Inspection ----------------------------------------------------------------------------------------------------

// Returns one file name per array: block files of the same array are merged.
std::vector<std::string> arrays_of(const std::vector<std::string> &files) {
  std::vector<std::string> arrays;
  std::set<std::string> seen;
  for (const std::string &file : files)
    if (seen.insert(inspect::store_key(file)).second) arrays.push_back(file);
  return arrays;
}

void expect_record(const inspect::report_t &report, const arguments_t &arguments) {
  if (!arguments.options.record || report.record) return;
  const uint64_t n_used = report.geometry ? report.geometry->n_used : 0;
  throw inspect::unreadable_t(
      fmt::format("{}: no record {}, n_used is {}", report.name, *arguments.options.record, n_used));
}

void expect_layout_fits(const inspect::report_t &report) {
  if (!report.layout || !report.geometry || report.layout->record_bytes == report.geometry->record_bytes) return;
  throw inspect::unreadable_t(fmt::format("{}: a record has {} bytes, but {} in the layout \"{}\"", report.name,
                                          report.geometry->record_bytes, report.layout->record_bytes,
                                          report.layout->name));
}

void expect_sidecar_was_read(const inspect::report_t &report) {
  if (!report.unread_sidecar.empty()) throw inspect::unreadable_t(report.unread_sidecar);
}

int status_of(const inspect::report_t &report) {
  const int status = report.is_sound() ? EXIT_SOUND : EXIT_FAULTS;
  return report.is_contradicted() ? EXIT_CONTRADICTED : status;
}

inspect::analysis_result_t analyse(inspect::store_t *store, const arguments_t &arguments) {
  inspect::analysis_result_t analysed = inspect::analyse(store, arguments.options);
  analysed.report.layout = arguments.layout;
  expect_layout_fits(analysed.report);
#ifdef TSLB_WITH_DURABLE
  inspect::verify_seal(store, &analysed.report);
#endif
  return analysed;
}

int inspect_all(const arguments_t &arguments) {
  inspect::reports_t reports;
  inspect::json_writer_t json(print);
  int status = EXIT_SOUND;
  for (const std::string &file : arrays_of(arguments.files)) {
    try {
#ifdef TSLB_WITH_DURABLE
      inspect::expect_no_store(file);
#endif
      const auto store = inspect::open_store(file);
      inspect::analysis_result_t analysed = analyse(store.get(), arguments);
      if (arguments.json)
        json.add(analysed.report, analysed.rows.get());
      else
        print((reports.empty() ? "" : "\n") + inspect::text_of(analysed.report));
      reports.push_back(std::move(analysed.report));
      status = worse_of(status, status_of(reports.back()));
      expect_sidecar_was_read(reports.back());
      expect_record(reports.back(), arguments);
    } catch (const inspect::unreadable_t &error) {
      status = print_error(inspect::printable(error.what()));
    }
  }
  if (arguments.json) json.end();
  for (const std::string &path : {arguments.svg, arguments.html})
    if (!path.empty()) check_output(path, reports, arguments.force);
  if (!arguments.svg.empty()) write_file(arguments.svg, inspect::svg_of(reports), arguments.force);
  if (!arguments.html.empty()) write_file(arguments.html, inspect::html_of(reports), arguments.force);
  return status;
}

#ifdef TSLB_WITH_DURABLE
// Prints a line for each sidecar that was written.
int seal_all(const arguments_t &arguments) {
  int status = EXIT_SOUND;
  for (const std::string &file : arrays_of(arguments.files)) {
    try {
      inspect::expect_no_store(file);
      const auto store = inspect::open_store(file);
      const inspect::report_t report = inspect::analyse(store.get(), arguments.options).report;
      const std::string path = inspect::seal(store.get(), report, arguments.seal_options);
      print(fmt::format("sealed {}\n", inspect::printable(path)));
    } catch (const inspect::refused_t &error) {
      print_error(inspect::printable(error.what()));
      status = worse_of(status, EXIT_FAULTS);
    } catch (const inspect::unreadable_t &error) {
      status = print_error(inspect::printable(error.what()));
    }
  }
  return status;
}

int inspect_durable(const arguments_t &arguments) {
  const inspect::store_inspection_t inspection = inspect::inspect_store(arguments.store, arguments.json);
  print(inspection.output);
  return inspection.is_sound ? EXIT_SOUND : EXIT_FAULTS;
}

int print_digests(const arguments_t &arguments) {
  if (!arguments.store.empty()) print(inspect::digests_of_store(arguments.store));
  int status = EXIT_SOUND;
  for (const std::string &file : arrays_of(arguments.files)) {
    try {
      inspect::expect_no_store(file);
      print(inspect::digest_of_file(file, arguments.options.kind));
    } catch (const inspect::unreadable_t &error) {
      status = print_error(inspect::printable(error.what()));
    }
  }
  return status;
}

void add_store_option(CLI::App *app, arguments_t *arguments) {
  CLI::Option *const store =
      app->add_option("--store", arguments->store, "load and verify a durable store, and show it");
  store->type_name("FOLDER");
  for (const char *other : {"FILE", "--kind", "--layout", "--record", "--svg", "--html"}) store->excludes(other);
  CLI::Option *const digest = app->add_flag("--digest", arguments->digest,
                                            "print a line for each array: CRC-32C, bytes and name. Copies with the\n"
                                            "same content have the same line");
  for (const char *other : {"--json", "--layout", "--record", "--svg", "--html"}) digest->excludes(other);
}

void add_seal_options(CLI::App *app, arguments_t *arguments) {
  inspect::seal_options_t *const options = &arguments->seal_options;
  CLI::Option *const seal = app->add_flag("--seal", arguments->seal,
                                          "write a sidecar FILE.tslb: versions, geometry and checksums of a sound\n"
                                          "array, and its layout. Later inspections compare the files with it");
  for (const char *other : {"--json", "--record", "--svg", "--html", "--store", "--digest"}) seal->excludes(other);
  app->add_option("--table", options->table, "with --seal: table id of a stream")->type_name("ID")->needs(seal);
  app->add_option("--context", options->context, "with --seal: context of a stream")->type_name("NAME")->needs(seal);
  app->add_flag("--wide-addresses", options->is_wide, "with --seal: the chunks of a pool have 64-bit addresses")
      ->needs(seal);
  app->add_option_function<std::tuple<double, int64_t, int64_t>>(
         "--clock",
         [options](const std::tuple<double, int64_t, int64_t> &clock) {
           options->clock = {std::get<0>(clock), std::get<1>(clock), std::get<2>(clock)};
           if (!std::isfinite(options->clock->factor) || options->clock->factor <= 0)
             throw CLI::ValidationError("--clock", "the factor is not above 0");
         },
         "with --seal: settings of the writer's clock; else 1 0 0")
      ->type_name("FACTOR ORIGIN OFFSET")
      ->needs(seal);
}
#endif

// ---- Command line --------------------------------------------------------------------------------------------------

const char *const FOOTER =
    "FILE is a snapshot stream or a block file. A name such as 12.0.darr means all block files of the\n"
    "table; any of them that is in the same folder as file 0 can be given. Files are only read.\n"
    "\n"
    "The output shows headers, geometry, lists, and the chunk bytes in each slot of a pool. A fault is\n"
    "reported with its file and byte, and the inspection continues. A remark is not a fault. If there is a\n"
    "sidecar FILE.tslb, the files are compared with it.\n"
    "\n"
    "Examples:\n"
    "  tslb-inspect snapshot.stream\n"
    "  tslb-inspect --json data/metrics/12.0.darr\n"
    "  tslb-inspect --record 17 --html report.html data/metrics/12.*.darr\n"
    "  tslb-inspect --seal --layout g_mt_t_v1 snapshot.stream\n"
    "\n"
    "Exit: 0 all arrays are sound\n"
    "      1 faults were found\n"
    "      2 wrong usage, or a file that cannot be read or written; see stderr\n"
    "      3 the files are not those that were sealed, or the sidecar is damaged";

void add_options(CLI::App *app, arguments_t *arguments) {
  static const std::map<std::string, uint8_t> kinds = {
      {"auto", ARRAY_LOAD_POOL_BY_SIZE}, {"pool", ARRAY_LOAD_POOL}, {"array", ARRAY_LOAD_ANY}};
  arguments->options.kind = ARRAY_LOAD_POOL_BY_SIZE;
  app->add_option("FILE", arguments->files, "stream or block file to inspect")->type_name("");
  app->add_option_function<std::string>(
         "--kind", [arguments](const std::string &kind) { arguments->options.kind = kinds.at(kind); },
         "auto, pool or array: type of the user header; auto: a pool's if it has 56 bytes")
      ->type_name("KIND")
      ->check(CLI::IsMember({"auto", "pool", "array"}).description(""));
  app->add_option("--record", arguments->options.record, "also show the bytes of record N")->type_name("N");
  app->add_option_function<std::string>(
         "--layout", [arguments](const std::string &name) { arguments->layout = inspect::load_layout(name); },
         "fields of the records: the name of an installed description, or a file\n"
         "NAME.layout; else those of the sidecar")
      ->type_name("NAME");
  app->add_flag("--json", arguments->json, "JSON instead of text");
  app->add_option("--svg", arguments->svg, "write an SVG picture of the slots")->type_name("OUT");
  app->add_option("--html", arguments->html, "write an HTML page with a map of the slots and all tables")
      ->type_name("OUT");
  app->add_flag("--force", arguments->force, "replace an existing file OUT");
#ifdef TSLB_WITH_DURABLE
  add_store_option(app, arguments);
  add_seal_options(app, arguments);
#endif
  app->footer(FOOTER);
}

}  // namespace

int main(int argc, char **argv) {
  CLI::App app("tslb-inspect: shows stored arrays and reports inconsistencies", "tslb-inspect");
  app.set_version_flag("--version", "tslb-inspect " TSLB_VERSION_STRING, "show the version");
  arguments_t arguments;
  add_options(&app, &arguments);
  try {
    app.parse(argc, argv);
    arguments.options.for_page = !arguments.html.empty();
#ifdef TSLB_WITH_DURABLE
    if (!arguments.store.empty() && !arguments.digest) return inspect_durable(arguments);
#endif
    if (arguments.files.empty() && arguments.store.empty()) throw CLI::RequiredError("FILE");
#ifdef TSLB_WITH_DURABLE
    if (arguments.digest) return print_digests(arguments);
    if (arguments.seal) {
      arguments.seal_options.layout = arguments.layout;
      arguments.seal_options.replaces = arguments.force;
      return seal_all(arguments);
    }
#endif
    return inspect_all(arguments);
  } catch (const CLI::Success &help) {
    return app.exit(help);
  } catch (const std::exception &error) {
    return print_error(error.what());
  }
}

// tslb-convert: converts the records of an array's snapshot stream to another version, from file to file. This file has
// the command line and an atomic output. recovery/recovery_driver.h converts the catalogue's records,
// recovery/array_convert.h those of a host.
#include <fcntl.h>
#include <fmt/format.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include <tslb/recovery_driver.h>
#include <tslb/tsdb_recovery_version_compatibility.h>
#include <tslb/tslb_dynarr.h>
#include <tslb/tslb_version.h>
#include "convert/host_converters.h"
#include "refusal.h"

namespace {

constexpr int EXIT_DONE = 0;
constexpr int EXIT_REFUSED = 1;
constexpr int EXIT_USAGE = 2;

constexpr uint8_t TARGETS = 4;  // target versions in a row of a map

struct usage_t : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// ---- Record types --------------------------------------------------------------------------------------------------

struct record_type_t {
  uint16_t row;
  uint8_t is_lib;

  const TSDBVerMap_t &in_map() const { return (is_lib != 0 ? g_old_lib_vermap : g_old_vermap)[row]; }
  std::string name() const { return recovery_type_name(row, is_lib); }
};

bool find_by_name(std::string_view name, uint8_t is_lib, record_type_t *found) {
  for (uint16_t row = 0; recovery_type_name(row, is_lib) != nullptr; ++row) {
    if (name != recovery_type_name(row, is_lib)) continue;
    *found = {row, is_lib};
    return true;
  }
  return false;
}

// A name identifies the map, because the maps have no name in common. A number is a row of the map that --lib selects.
record_type_t record_type_of(const std::string &text, bool lib) {
  record_type_t found;
  if (find_by_name(text, 1, &found) || (!lib && find_by_name(text, 0, &found))) return found;
  uint16_t row;
  const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), row);
  if (fault == std::errc() && end == text.data() + text.size() && recovery_type_name(row, lib) != nullptr)
    return {row, lib};
  throw usage_t(fmt::format("--rec-type {}: no such record type of the {}; --list shows them", text,
                            lib ? "library" : "catalogue or the library"));
}

// ---- List ----------------------------------------------------------------------------------------------------------

std::string flags_text(record_type_t type) {
  const uint8_t daflag = type.in_map().daflag;
  // The type lib converts headers only, so it accepts arrays with any flags.
  if (type.is_lib && type.row == RECTYPE_LIB) return "any";
  if (daflag == 0) return "plain";
  if (daflag == TSLB_DA_DAFLAG_LL) return "LL";
  return daflag == TSLB_DA_DAFLAG_INLL ? "INLL" : fmt::format("0x{:02x}", daflag);
}

// Appends to a list, which is "-" while it is empty.
void add_item(std::string *items, const std::string &item) {
  *items = *items == "-" ? item : *items + " " + item;
}

std::string list_row(record_type_t type) {
  std::string targets = "-", sizes = "-";
  for (uint8_t version = 0; version < TARGETS; ++version) {
    if (tsdb_recovery_version_get_downgrade_fn_ptr(type.row, version, type.is_lib) != nullptr)
      add_item(&targets, fmt::format("{}", version));
    const uint32_t bytes = recovery_record_bytes(type.row, type.is_lib, version);
    if (bytes != 0) add_item(&sizes, fmt::format("{}:{}", version, bytes));
  }
  return fmt::format("{:>3}  {:<18}  {:>7}  {:<5}  {:<3}  {}\n", type.row, type.name(), type.in_map().version,
                     flags_text(type), targets, sizes);
}

std::string list_map(const char *title, uint8_t is_lib) {
  std::string text = fmt::format("{}\n{:>3}  {:<18}  {:>7}  {:<5}  {:<3}  {}\n", title, "row", "name", "version",
                                 "flags", "to", "record bytes by version");
  for (uint16_t row = 0; recovery_type_name(row, is_lib) != nullptr; ++row) text += list_row({row, is_lib});
  return text;
}

// ---- Files ---------------------------------------------------------------------------------------------------------

class descriptor_t {
 public:
  explicit descriptor_t(int fd = -1) : fd_(fd) {}
  descriptor_t(descriptor_t &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  descriptor_t &operator=(descriptor_t &&other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~descriptor_t() {
    if (fd_ >= 0) close(fd_);
  }
  int get() const { return fd_; }

 private:
  int fd_;
};

struct input_t {
  descriptor_t file;
  struct stat about;
};

input_t open_input(const std::string &path) {
  // O_NONBLOCK: if the path is a FIFO, open would wait for a writer.
  input_t input = {descriptor_t(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)), {}};
  if (input.file.get() < 0 || fstat(input.file.get(), &input.about) != 0) throw_with_errno(path, "cannot be read");
  if (!S_ISREG(input.about.st_mode)) throw tool_error_t(path + ": not a regular file");
  return input;
}

// Called before the conversion, so that a refusal comes at once.
void check_output(const std::string &path, const struct stat &input, bool force) {
  struct stat about;
  if (stat(path.c_str(), &about) == 0 && about.st_dev == input.st_dev && about.st_ino == input.st_ino)
    throw tool_error_t(path + ": is the input file");
  if (lstat(path.c_str(), &about) != 0) return;
  if (!force) throw tool_error_t(path + ": exists; --force replaces it");
  // rename would replace a device or a link by a regular file.
  if (!S_ISREG(about.st_mode))
    throw tool_error_t(path + ": exists and is not a regular file; --force does not replace it");
}

std::string directory_of(const std::string &path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

// Renames a file, as rename(2). An existing file is replaced only if `replaces`.
int rename_file(const char *from, const char *to, bool replaces) {
  if (replaces) return rename(from, to);
  if (renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) return 0;
  // Some file systems refuse the flag. The new name is complete even if the old one stays.
  if (errno != EINVAL || link(from, to) != 0) return -1;
  unlink(from);
  return 0;
}

// The output under a temporary name. The destructor removes it unless keep has renamed it.
class output_t {
 public:
  output_t(std::string path, mode_t mode) : path_(std::move(path)), temporary_(path_ + ".XXXXXX") {
    file_ = descriptor_t(mkostemp(temporary_.data(), O_CLOEXEC));
    if (file_.get() < 0) throw_with_errno(path_, "no temporary file can be created in its folder");
    if (fchmod(file_.get(), mode) == 0) return;
    const int error = errno;
    unlink(temporary_.c_str());
    errno = error;
    throw_with_errno(path_, "the file's mode cannot be set");
  }
  output_t(const output_t &) = delete;
  ~output_t() {
    if (!temporary_.empty()) unlink(temporary_.c_str());
  }

  int fd() const { return file_.get(); }

  // Syncs the bytes before the rename and the folder after it, so that a crash leaves the whole file or none.
  void keep(bool force) {
    if (fsync(file_.get()) != 0) throw_with_errno(path_, "cannot be written");
    if (rename_file(temporary_.c_str(), path_.c_str(), force) != 0)
      throw_with_errno(path_, "the temporary file cannot be renamed");
    temporary_.clear();
    const std::string directory = directory_of(path_);
    const descriptor_t opened(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (opened.get() < 0 || fsync(opened.get()) != 0)
      throw_with_errno(path_, "is complete, but a crash may lose its name");
  }

 private:
  std::string path_, temporary_;
  descriptor_t file_;
};

// ---- Conversion ----------------------------------------------------------------------------------------------------

struct arguments_t {
  std::string rec_type, converters, in, out;
  int to = 0;
  bool lib = false, list = false, dry_run = false, force = false;
};

// Converts the open input. fd_out is not used in a dry run. Returns the report.
using conversion_t = std::function<std::string(const input_t &input, int fd_out)>;

std::string head_of_report(const char *name, uint8_t version, const arguments_t &arguments) {
  return fmt::format("{}: version {} to {}{}\n", name, version, arguments.to,
                     arguments.dry_run ? ", dry run: nothing is written" : "");
}

std::string report_of_counts(const recovery_counts_t &counts, bool becomes_active, off_t bytes_before) {
  std::string text = fmt::format("  records       {}: {} active, {} free, {} inactive, {} other\n", counts.n_records,
                                 counts.n_active, counts.n_free, counts.n_inactive, counts.n_other);
  if (becomes_active && counts.n_active != counts.n_records)
    text += fmt::format("                {} of them become active\n", counts.n_records - counts.n_active);
  text += fmt::format("  record bytes  {} before, {} after\n", counts.record_bytes_before, counts.record_bytes_after);
  text += fmt::format("  file bytes    {} before, {} after\n", bytes_before, counts.stream_bytes_after);
  return text;
}

void check_result(recovery_result_t result, const char *line, const arguments_t &arguments) {
  if (result == RECOVERY_DONE) return;
  throw tool_error_t(fmt::format("{}: {}", result == RECOVERY_NOT_WRITTEN ? arguments.out : arguments.in, line));
}

std::string convert_type(record_type_t type, const arguments_t &arguments, const input_t &input, int fd_out) {
  const recovery_conversion_t wanted = {type.row, type.is_lib, static_cast<uint8_t>(arguments.to), arguments.dry_run};
  recovery_counts_t counts;
  char line[512];
  check_result(recovery_convert_stream(input.file.get(), fd_out, &wanted, &counts, line, sizeof(line)), line,
               arguments);
  std::string text = head_of_report(type.name().c_str(), type.in_map().version, arguments);
  if (counts.version_is_asserted != 0)
    text += fmt::format("  version {} of the input is assumed: a stream does not store it\n", type.in_map().version);
  return text + report_of_counts(counts, type.is_lib == 0, input.about.st_size);
}

std::string convert_host_records(const host_converters_t &converters, const arguments_t &arguments,
                                 const input_t &input, int fd_out) {
  const array_conversion_t &conversion =
      converters.find(arguments.rec_type, static_cast<uint8_t>(arguments.to), input.file.get(), arguments.in);
  recovery_counts_t counts;
  char line[512];
  check_result(
      array_convert_stream(input.file.get(), fd_out, &conversion, arguments.dry_run, &counts, line, sizeof(line)), line,
      arguments);
  return head_of_report(conversion.name, conversion.from_version, arguments) +
         report_of_counts(counts, false, input.about.st_size);
}

conversion_t conversion_of(const arguments_t &arguments) {
  if (arguments.converters.empty())
    return [&arguments, type = record_type_of(arguments.rec_type, arguments.lib)](const input_t &input, int fd_out) {
      return convert_type(type, arguments, input, fd_out);
    };
  return [&arguments, converters = host_converters_t(arguments.converters)](const input_t &input, int fd_out) {
    return convert_host_records(converters, arguments, input, fd_out);
  };
}

void convert(const arguments_t &arguments) {
  const conversion_t conversion = conversion_of(arguments);
  const input_t input = open_input(arguments.in);
  if (!arguments.out.empty()) check_output(arguments.out, input.about, arguments.force);
  if (arguments.dry_run) {
    print(conversion(input, -1));
    return;
  }
  output_t output(arguments.out, input.about.st_mode & 0777);
  print(conversion(input, output.fd()));
  output.keep(arguments.force);
}

void list(const arguments_t &arguments) {
  if (arguments.converters.empty())
    print(list_map("Catalogue", 0) + list_map("\nLibrary: by name, or by number with --lib", 1));
  else
    print(host_converters_t(arguments.converters).list());
}

// ---- Command line --------------------------------------------------------------------------------------------------

const char *const FOOTER =
    "IN is a snapshot stream and is never changed. OUT is written as OUT.XXXXXX, synced and renamed,\n"
    "so OUT is never incomplete. It gets the mode of IN. A run that is killed can leave the temporary\n"
    "file.\n"
    "\n"
    "With --converters TYPE is a name of the shared object, which defines tslb_converters\n"
    "(<tslb/array_convert.h>). Slots, lists and reuse policy are kept. Load only objects that you trust:\n"
    "their code runs.\n"
    "\n"
    "For catalogue types, free and inactive records become active, and lists and the reuse policy are\n"
    "not copied. The version of lib_bb and lib_bv is not stored: the conversion assumes that IN has the\n"
    "version that --list shows, and accepts OUT as IN again.\n"
    "\n"
    "Exit: 0 done\n"
    "      1 refused or failed; the last line on stderr gives the reason. OUT is unchanged unless that\n"
    "        line reports that it is complete\n"
    "      2 wrong usage";

void add_options(CLI::App *app, arguments_t *arguments) {
  app->add_option("IN", arguments->in, "stream to convert")->type_name("");
  app->add_option("OUT", arguments->out, "stream to write; not needed for a dry run")->type_name("");
  app->add_option("--rec-type", arguments->rec_type, "record type: a name or a row number of --list")
      ->type_name("TYPE");
  app->add_option("--to", arguments->to, "version to convert to")
      ->type_name("VERSION")
      ->check(CLI::Range(0, 255).description(""));
  app->add_option("--converters", arguments->converters, "shared object with a host's conversions")->type_name("FILE");
  app->add_flag("--lib", arguments->lib, "TYPE is a row number of the library's map");
  app->add_flag("--list", arguments->list, "show the version maps and exit");
  app->add_flag("--dry-run", arguments->dry_run, "convert in memory, show the counts, write nothing");
  app->add_flag("--force", arguments->force, "replace an existing file OUT");
  app->footer(FOOTER);
}

void check_usage(const CLI::App &app, const arguments_t &arguments) {
  if (arguments.list) {
    if (app.parse_order().size() != 1 + app.count("--converters"))
      throw usage_t("--list takes no other arguments than --converters");
    return;
  }
  if (arguments.lib && !arguments.converters.empty()) throw usage_t("--lib and --converters exclude each other");
  if (arguments.rec_type.empty()) throw usage_t("--rec-type is missing");
  if (app.count("--to") == 0) throw usage_t("--to is missing");
  if (arguments.in.empty()) throw usage_t("IN is missing");
  if (arguments.out.empty() && !arguments.dry_run) throw usage_t("OUT is missing");
}

int print_error(const char *what, int status) {
  fmt::print(stderr, "tslb-convert: {}\n", what);
  return status;
}

}  // namespace

int main(int argc, char **argv) {
  CLI::App app("tslb-convert: converts the records of an array's snapshot stream to another version", "tslb-convert");
  app.set_version_flag("--version", "tslb-convert " TSLB_VERSION_STRING, "show the version");
  arguments_t arguments;
  add_options(&app, &arguments);
  try {
    app.parse(argc, argv);
    check_usage(app, arguments);
    if (arguments.list)
      list(arguments);
    else
      convert(arguments);
    return EXIT_DONE;
  } catch (const CLI::Success &help) {
    return app.exit(help);
  } catch (const CLI::ParseError &error) {
    return print_error(error.what(), EXIT_USAGE);
  } catch (const usage_t &error) {
    return print_error(error.what(), EXIT_USAGE);
  } catch (const std::exception &error) {
    return print_error(error.what(), EXIT_REFUSED);
  }
}

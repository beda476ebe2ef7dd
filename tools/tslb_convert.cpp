// tslb-convert: takes a stored array to an older layout, from file to file. What converts is recovery/recovery_driver.h;
// here are the names on the command line, and an output that is there whole or not at all.
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
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include <tslb/recovery_driver.h>
#include <tslb/tsdb_recovery_version_compatibility.h>
#include <tslb/tslb_dynarr.h>
#include <tslb/tslb_version.h>
#include "refusal.h"

namespace {

constexpr int EXIT_DONE = 0;
constexpr int EXIT_REFUSED = 1;
constexpr int EXIT_USAGE = 2;

constexpr uint8_t TARGETS = 4;  // of a map's row

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

// A name says which map it is of, as the maps share none; a number is a row of the one that --lib chooses.
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
  // The library's own headers are converted, whatever stands behind them.
  if (type.is_lib && type.row == RECTYPE_LIB) return "any";
  if (daflag == 0) return "plain";
  if (daflag == TSLB_DA_DAFLAG_LL) return "LL";
  return daflag == TSLB_DA_DAFLAG_INLL ? "INLL" : fmt::format("0x{:02x}", daflag);
}

// "-" where nothing was said.
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
  // Without waiting: a pipe in the file's place would hold us until somebody writes it.
  input_t input = {descriptor_t(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)), {}};
  if (input.file.get() < 0 || fstat(input.file.get(), &input.about) != 0) refuse_with_errno(path, "cannot be read");
  if (!S_ISREG(input.about.st_mode)) throw refused_t(path + ": not a regular file");
  return input;
}

// Ahead of the work, so that nobody waits for a refusal.
void check_output(const std::string &path, const struct stat &input, bool force) {
  struct stat about;
  if (stat(path.c_str(), &about) == 0 && about.st_dev == input.st_dev && about.st_ino == input.st_ino)
    throw refused_t(path + ": is the input file");
  if (lstat(path.c_str(), &about) != 0) return;
  if (!force) throw refused_t(path + ": exists; --force replaces it");
  // The name alone would be replaced: of a device, of a link, of a whole directory.
  if (!S_ISREG(about.st_mode)) throw refused_t(path + ": exists and is not a regular file, which --force leaves alone");
}

std::string directory_of(const std::string &path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

// The output under its temporary name, which goes away again unless the whole file gets its own.
class output_t {
 public:
  output_t(std::string path, mode_t mode) : path_(std::move(path)), temporary_(path_ + ".XXXXXX") {
    file_ = descriptor_t(mkostemp(temporary_.data(), O_CLOEXEC));
    if (file_.get() < 0) refuse_with_errno(path_, "no file can be made beside it");
    if (fchmod(file_.get(), mode) == 0) return;
    const int error = errno;
    unlink(temporary_.c_str());
    errno = error;
    refuse_with_errno(path_, "the file's mode cannot be set");
  }
  output_t(const output_t &) = delete;
  ~output_t() {
    if (!temporary_.empty()) unlink(temporary_.c_str());
  }

  int fd() const { return file_.get(); }

  // From the disk's point of view too: first the bytes, then the name.
  void keep(bool force) {
    if (fsync(file_.get()) != 0) refuse_with_errno(path_, "cannot be written");
    const unsigned flags = force ? 0 : RENAME_NOREPLACE;
    if (renameat2(AT_FDCWD, temporary_.c_str(), AT_FDCWD, path_.c_str(), flags) != 0)
      refuse_with_errno(path_, "cannot be given its name");
    temporary_.clear();
    const std::string directory = directory_of(path_);
    const descriptor_t opened(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (opened.get() < 0 || fsync(opened.get()) != 0)
      refuse_with_errno(path_, "is complete, but its name may not outlast a crash");
  }

 private:
  std::string path_, temporary_;
  descriptor_t file_;
};

// ---- Conversion ----------------------------------------------------------------------------------------------------

struct arguments_t {
  std::string rec_type, in, out;
  int to = 0;
  bool lib = false, list = false, dry_run = false, force = false;
};

std::string report(record_type_t type, const arguments_t &arguments, const recovery_counts_t &counts,
                   off_t bytes_before) {
  std::string text = fmt::format("{}: version {} to {}{}\n", type.name(), type.in_map().version, arguments.to,
                                 arguments.dry_run ? ", dry run: nothing is written" : "");
  if (counts.version_is_asserted != 0)
    text += fmt::format("  that it is in version {} is your word: a stream does not tell it\n", type.in_map().version);
  text += fmt::format("  records       {}: {} active, {} free, {} inactive, {} other\n", counts.n_records,
                      counts.n_active, counts.n_free, counts.n_inactive, counts.n_other);
  if (type.is_lib == 0 && counts.n_active != counts.n_records)
    text += fmt::format("                {} of them become active\n", counts.n_records - counts.n_active);
  text += fmt::format("  record bytes  {} before, {} after\n", counts.record_bytes_before, counts.record_bytes_after);
  text += fmt::format("  file bytes    {} before, {} after\n", bytes_before, counts.stream_bytes_after);
  return text;
}

recovery_counts_t convert_stream(record_type_t type, const arguments_t &arguments, int fd_in, int fd_out) {
  const recovery_conversion_t wanted = {type.row, type.is_lib, static_cast<uint8_t>(arguments.to), arguments.dry_run};
  recovery_counts_t counts;
  char line[512];
  const recovery_result_t result = recovery_convert_stream(fd_in, fd_out, &wanted, &counts, line, sizeof(line));
  if (result == RECOVERY_DONE) return counts;
  throw refused_t(fmt::format("{}: {}", result == RECOVERY_NOT_WRITTEN ? arguments.out : arguments.in, line));
}

void convert(const arguments_t &arguments) {
  const record_type_t type = record_type_of(arguments.rec_type, arguments.lib);
  const input_t input = open_input(arguments.in);
  if (!arguments.out.empty()) check_output(arguments.out, input.about, arguments.force);
  if (arguments.dry_run) {
    print(report(type, arguments, convert_stream(type, arguments, input.file.get(), -1), input.about.st_size));
    return;
  }
  output_t output(arguments.out, input.about.st_mode & 0777);
  const recovery_counts_t counts = convert_stream(type, arguments, input.file.get(), output.fd());
  print(report(type, arguments, counts, input.about.st_size));
  output.keep(arguments.force);
}

// ---- Command line --------------------------------------------------------------------------------------------------

const char *const FOOTER =
    "IN is a snapshot stream and is never changed. OUT is written under a temporary name beside it,\n"
    "OUT.XXXXXX, synced and renamed: it is there whole or not at all. It gets IN's mode. A run that\n"
    "is killed can leave the temporary file.\n"
    "\n"
    "Of catalogue types, records that are free or inactive become active, and lists and the reuse\n"
    "policy are not carried. The version of lib_bb and lib_bv is stored nowhere: that IN has the one\n"
    "of the list is your word, and OUT passes as IN again.\n"
    "\n"
    "Exit: 0 done\n"
    "      1 refused or failed: the last line on stderr says why, and OUT is as it was unless that\n"
    "        line says that it is complete\n"
    "      2 usage";

void add_options(CLI::App *app, arguments_t *arguments) {
  app->add_option("IN", arguments->in, "stream to convert")->type_name("");
  app->add_option("OUT", arguments->out, "stream to write; a dry run does without")->type_name("");
  app->add_option("--rec-type", arguments->rec_type, "record type: a name or a row's number, as --list shows them")
      ->type_name("TYPE");
  app->add_option("--to", arguments->to, "version to convert to")
      ->type_name("VERSION")
      ->check(CLI::Range(0, 255).description(""));
  app->add_flag("--lib", arguments->lib, "TYPE is one of the library's: needed with a number");
  app->add_flag("--list", arguments->list, "show the version maps, and nothing else");
  app->add_flag("--dry-run", arguments->dry_run, "convert in memory, show the counts, write nothing");
  app->add_flag("--force", arguments->force, "replace OUT if it is a file already");
  app->footer(FOOTER);
}

void check_usage(const CLI::App &app, const arguments_t &arguments) {
  if (arguments.list) {
    if (app.parse_order().size() != 1) throw usage_t("--list goes alone");
    return;
  }
  if (arguments.rec_type.empty()) throw usage_t("--rec-type is missing");
  if (app.count("--to") == 0) throw usage_t("--to is missing");
  if (arguments.in.empty()) throw usage_t("IN is missing");
  if (arguments.out.empty() && !arguments.dry_run) throw usage_t("OUT is missing");
}

int complain(const char *what, int status) {
  fmt::print(stderr, "tslb-convert: {}\n", what);
  return status;
}

}  // namespace

int main(int argc, char **argv) {
  CLI::App app("tslb-convert: takes the stored array of a file to an older layout", "tslb-convert");
  app.set_version_flag("--version", "tslb-convert " TSLB_VERSION_STRING, "show the version");
  arguments_t arguments;
  add_options(&app, &arguments);
  try {
    app.parse(argc, argv);
    check_usage(app, arguments);
    if (arguments.list)
      print(list_map("Catalogue", 0) + list_map("\nLibrary: by name, or by number with --lib", 1));
    else
      convert(arguments);
    return EXIT_DONE;
  } catch (const CLI::Success &help) {
    return app.exit(help);
  } catch (const CLI::ParseError &error) {
    return complain(error.what(), EXIT_USAGE);
  } catch (const usage_t &error) {
    return complain(error.what(), EXIT_USAGE);
  } catch (const std::exception &error) {
    return complain(error.what(), EXIT_REFUSED);
  }
}

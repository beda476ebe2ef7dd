#include "seal.h"

#include <fmt/format.h>
#include <openssl/evp.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <memory>
#include <vector>

#include <tslb/array_loader.h>
#include <tslb/tslb_dynarr.h>
#include <tslb/tslb_dynmem.h>
#include <tslb/tslb_version.h>
#include "checksum.h"
#include "files.h"

namespace inspect {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view SIDECAR_SUFFIX = ".tslb";
constexpr size_t SUM_BYTES = 1 << 20;
constexpr size_t MAX_FAULTS = 20;

// ---- Sums of files -------------------------------------------------------------------------------------------------

class sha256_t {
 public:
  sha256_t() : context_(EVP_MD_CTX_new(), EVP_MD_CTX_free) {
    expect(context_ != nullptr && EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1);
  }

  void add(const void *bytes, size_t count) { expect(EVP_DigestUpdate(context_.get(), bytes, count) == 1); }

  std::string digits() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    expect(EVP_DigestFinal_ex(context_.get(), digest, &length) == 1);
    std::string text;
    for (unsigned i = 0; i < length; ++i) text += fmt::format("{:02x}", digest[i]);
    return text;
  }

 private:
  static void expect(bool is_done) {
    if (!is_done) throw std::runtime_error("libcrypto computes no SHA-256");
  }

  std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX *)> context_;
};

sealed_file_t sums_of(store_t *store, const stored_file_t &file) {
  static const auto buffer = std::make_unique<char[]>(SUM_BYTES);
  sealed_file_t sealed = {file.block_num, 0, 0, ""};
  sha256_t sha256;
  for (size_t got = SUM_BYTES; got == SUM_BYTES;) {
    got = store->read(file, sealed.bytes, buffer.get(), SUM_BYTES);
    sealed.bytes += got;
    sealed.crc32c = tslb_durable::crc32c(buffer.get(), got, sealed.crc32c);
    sha256.add(buffer.get(), got);
  }
  sealed.sha256 = sha256.digits();
  return sealed;
}

// ---- What an array says of itself ----------------------------------------------------------------------------------

form_t form_of(const report_t &report) {
  if (!report.is_stream) return form_t::BLOCKS;
  return report.is_cut ? form_t::CUT_STREAM : form_t::STREAM;
}

uint32_t start_field(const report_t &report, const std::string &name) {
  for (const field_t &field : report.headers.front().fields)
    if (field.name == name) return static_cast<uint32_t>(field.value);
  return 0;
}

sealed_headers_t headers_of(const report_t &report) {
  const geometry_t &g = *report.geometry;
  return {start_field(report, "lib_version"),
          start_field(report, "rec_version"),
          g.daflag,
          g.header_bytes,
          g.record_bytes,
          g.slot_bytes,
          g.n_direct,
          g.n_used};
}

// A pool's flag distinguishes the 32-bit forms. Addresses of 64 bits leave no trace in it.
address_t address_of(const report_t &report, bool is_wide) {
  if (!report.pool) return address_t::NONE;
  if (is_wide) return address_t::WIDE;
  return report.pool->kind == "bit-vector" ? address_t::BIT_VECTOR : address_t::BIG_BUFFER;
}

// Files after the last slot in use are not a part of the array.
bool is_part(const report_t &report, const stored_file_t &file) {
  return report.is_stream || file.block_num <= report.geometry->data_blocks;
}

fs::path folder_of(const store_t &store) {
  return fs::absolute(store.name()).lexically_normal().parent_path();
}

std::string time_text() {
  const time_t now = std::time(nullptr);
  struct tm utc;
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", gmtime_r(&now, &utc));
  return text;
}

// ---- Existing sidecars ---------------------------------------------------------------------------------------------

// Returns no value if there is no sidecar.
std::optional<sidecar_t> read_sidecar(const std::string &path) {
  std::error_code ignored;
  if (!fs::exists(fs::symlink_status(path, ignored))) return std::nullopt;
  const tslb_durable::File file = tslb_durable::File::open(path);
  return parse_sidecar(tslb_durable::text_of(file, MAX_SIDECAR_BYTES), path);
}

class comparison_t {
 public:
  comparison_t(store_t *store, const report_t &report, seal_t *seal) : store_(store), report_(report), seal_(seal) {}

  void compare(const sidecar_t &sidecar) {
    const form_t form = form_of(report_);
    if ((sidecar.form == form_t::BLOCKS) != (form == form_t::BLOCKS))
      return add("{}: seals the form {}, but this is {}", seal_->path, form_text(sidecar.form), form_text(form));
    if (report_.geometry && sidecar.headers != headers_of(report_))
      add("{}: the geometry or the versions are not those of the headers", report_.name);
    // Otherwise it is not known whether this is a pool, with addresses and a cursor.
    const bool has_kind = report_.kind != ARRAY_LOAD_ANY;
    if (report_.geometry && has_kind && sidecar.address != address_of(report_, sidecar.address == address_t::WIDE))
      add("{}: the kind of addresses is not that of the array", seal_->path);
    for (const sealed_file_t &sealed : sidecar.files) compare_file(sealed);
    for (const stored_file_t &file : report_.files)
      if (report_.geometry && is_part(report_, file) && file.block_num >= sidecar.files.size())
        add("{}: is not sealed", file.name);
    // A stream that was cut later has another length, which says more.
    if (seal_->faults.empty() && has_kind && sidecar.form != form)
      add("{}: seals the form {}, but this is {}", seal_->path, form_text(sidecar.form), form_text(form));
    if (n_faults_ > MAX_FAULTS) seal_->faults.push_back(fmt::format("and {} more", n_faults_ - MAX_FAULTS));
  }

 private:
  template <class... Values>
  void add(fmt::format_string<Values...> format, Values &&...values) {
    if (++n_faults_ <= MAX_FAULTS) seal_->faults.push_back(fmt::format(format, std::forward<Values>(values)...));
  }

  // Other lengths are found without reading.
  void compare_file(const sealed_file_t &sealed) {
    const stored_file_t *const file = store_->file_of(sealed.block_num);
    if (file == nullptr) return add("{}: is missing", store_->file_name(sealed.block_num));
    if (file->bytes != sealed.bytes)
      return add("{}: has {} bytes, but {} were sealed", file->name, file->bytes, sealed.bytes);
    const sealed_file_t found = sums_of(store_, *file);
    if (found.crc32c != sealed.crc32c)
      add("{}: has the CRC-32C {:08x}, but {:08x} was sealed", file->name, found.crc32c, sealed.crc32c);
    else if (found.sha256 != sealed.sha256)
      add("{}: has another SHA-256 than was sealed, and the same CRC-32C", file->name);
  }

  store_t *const store_;
  const report_t &report_;
  seal_t *const seal_;
  size_t n_faults_ = 0;
};

// Whether the sidecar can be replaced: it seals these files. Throws refused_t if it does not.
bool seals_files(const std::optional<sidecar_t> &old, const std::vector<sealed_file_t> &files,
                 const std::string &path) {
  if (!old) return false;
  if (old->files == files) return true;
  throw refused_t(path + ": seals other contents; --force replaces it");
}

std::optional<sidecar_t> replaceable(const std::string &path, const std::vector<sealed_file_t> &files, bool replaces) {
  try {
    std::optional<sidecar_t> old = read_sidecar(path);
    return seals_files(old, files, path) ? std::move(old) : std::nullopt;
  } catch (const tslb_durable::StoreError &error) {
    if (!replaces) throw refused_t(fmt::format("{}; --force replaces it", error.what()));
  } catch (const refused_t &) {
    if (!replaces) throw;
  }
  return std::nullopt;
}

void expect_sealable(const report_t &report, const seal_options_t &options) {
  if (!report.is_sound())
    throw refused_t(fmt::format("{}: is not sealed, since it has faults; the first: {}: byte {}: {}", report.name,
                                report.findings.front().file, report.findings.front().offset,
                                report.findings.front().text));
  if (report.pool && options.layout) throw refused_t(report.name + ": is a pool, whose records have no fields");
  if (!report.pool && options.is_wide) throw refused_t(report.name + ": is no pool, so it has no addresses of chunks");
  if (options.layout && options.layout->record_bytes != report.geometry->record_bytes)
    throw refused_t(fmt::format("{}: a record has {} bytes, but {} in the layout \"{}\"", report.name,
                                report.geometry->record_bytes, options.layout->record_bytes, options.layout->name));
  if (!report.is_stream && (options.table || options.context))
    throw refused_t(report.name + ": the names of block files say table and context");
}

void set_names(const store_t &store, const seal_options_t &options, sidecar_t *sidecar) {
  if (options.table) sidecar->table = options.table;
  if (options.context) sidecar->context = options.context;
  if (!store.is_stream()) {
    sidecar->table = std::stoi(fs::path(store.name()).filename());
    sidecar->context = folder_of(store).filename();
  }
  if (sidecar->context && sidecar->context->find('\n') != std::string::npos)
    throw refused_t(store.name() + ": the name of the context has a line end");
}

}  // namespace

std::string sidecar_path(const store_t &store) {
  if (store.is_stream()) return store.name() + std::string(SIDECAR_SUFFIX);
  const std::string block_0 = ".0" TSLB_BLOCK_FILE_SUFFIX;
  return store.name().substr(0, store.name().size() - block_0.size()) + TSLB_BLOCK_FILE_SUFFIX +
         std::string(SIDECAR_SUFFIX);
}

void verify_seal(store_t *store, report_t *report) {
  seal_t seal = {seal_state_t::ABSENT, sidecar_path(*store), "", "", {}};
  try {
    const std::optional<sidecar_t> sidecar = read_sidecar(seal.path);
    if (sidecar) {
      seal.writer = sidecar->writer;
      seal.time = sidecar->time;
      comparison_t(store, *report, &seal).compare(*sidecar);
      seal.state = seal.faults.empty() ? seal_state_t::VERIFIED : seal_state_t::CONTRADICTED;
      const bool fits = report->geometry && report->geometry->record_bytes == sidecar->headers.record_bytes;
      if (!report->layout && fits) report->layout = sidecar->layout;
    }
  } catch (const tslb_durable::StoreError &error) {
    if (error.code() != TSLB_DURABLE_DAMAGED) {
      report->unread_sidecar = error.what();
      return;
    }
    seal.state = seal_state_t::CONTRADICTED;
    seal.faults.push_back(error.what());
  }
  report->seal = std::move(seal);
}

std::string seal(store_t *store, const report_t &report, const seal_options_t &options) {
  expect_sealable(report, options);
  std::vector<sealed_file_t> files;
  for (const stored_file_t &file : report.files) {
    if (!is_part(report, file)) continue;
    files.push_back(sums_of(store, file));
    if (files.back().bytes != file.bytes) throw refused_t(file.name + ": was changed meanwhile");
  }
  const std::string path = sidecar_path(*store);
  const std::optional<sidecar_t> old = replaceable(path, files, options.replaces);
  sidecar_t sidecar = old.value_or(sidecar_t{});
  sidecar.form = form_of(report);
  sidecar.headers = headers_of(report);
  sidecar.address = address_of(report, options.is_wide || sidecar.address == address_t::WIDE);
  if (options.clock) sidecar.clock = *options.clock;
  if (options.layout) sidecar.layout = options.layout;
  set_names(*store, options, &sidecar);
  sidecar.files = std::move(files);
  sidecar.writer = "tslb-inspect " TSLB_VERSION_STRING;
  sidecar.time = time_text();
  try {
    tslb_durable::replace_file(path, sidecar_text(sidecar));
  } catch (const tslb_durable::StoreError &error) {
    throw unreadable_t(error.what());
  }
  return path;
}

}  // namespace inspect

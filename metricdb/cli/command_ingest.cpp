// `metricdb ingest`: reads lines from files and pipes into a database, batch by batch.
#include <fmt/format.h>
#include <signal.h>

#include <algorithm>
#include <deque>

#include "cli/commands.h"
#include "cli/line_source.h"
#include "cli/output.h"
#include "cli/write_options.h"
#include "store/database_writer.h"
#include "store/log.h"

namespace metricdb {
namespace {

constexpr size_t MAX_UNSETTLED_BATCHES = 8;

// Passes lines to a writer, and waits for its tickets.
class Ingestion {
 public:
  Ingestion(DatabaseWriter &writer, const IngestArguments &arguments)
      : writer_(writer), arguments_(arguments), precision_(precision_of(arguments.precision)) {}

  void ingest_all(const std::string &path) {
    LineSource source(path);
    n_too_long_ = 0;
    Progress progress(source.total_bytes(), "points");
    for (std::string_view text; !(text = source.next(arguments_.batch_lines)).empty();) {
      take(source, text);
      progress.update(source.bytes_read(), n_points_);
      while (!unsettled_.empty() &&
             (unsettled_.size() >= MAX_UNSETTLED_BATCHES || writer_.settled() >= unsettled_.front().ticket))
        acknowledge_oldest();
    }
    count_long_lines(source);
  }

  void finish() {
    while (!unsettled_.empty()) acknowledge_oldest();
  }

  uint64_t n_lines() const { return n_lines_; }
  uint64_t n_points() const { return n_points_; }
  uint64_t n_malformed() const { return n_malformed_; }

 private:
  struct Batch {
    uint64_t ticket;
    uint64_t n_lines;  // of all batches up to this one
  };

  void take(const LineSource &source, std::string_view text) {
    count_long_lines(source);
    const uint64_t first_line = n_lines_ + 1;
    IngestResult result;
    try {
      result = writer_.take(text, precision_);
    } catch (const IngestRefused &refused) {
      finish();
      throw refused_after(refused.what());
    }
    const uint64_t ticket = writer_.commit();
    n_lines_ += static_cast<uint64_t>(std::count(text.begin(), text.end(), '\n')) + (text.ends_with('\n') ? 0 : 1);
    n_points_ += result.points;
    n_malformed_ += result.n_skipped() - result.late;
    unsettled_.push_back({ticket, n_lines_});
    if (result.n_skipped() == 0) return;
    const std::string message = fmt::format("{}: {} lines of the batch from line {} on were skipped; the first: {}",
                                            source.name(), result.n_skipped(), first_line, result.first_reason);
    print_error(message);
    TSLB_DLOG(LOG_DETAILS, "%s", message.c_str());
  }

  // Counts the lines that the source has skipped since the last call.
  void count_long_lines(const LineSource &source) {
    const uint64_t n_new = source.n_too_long() - n_too_long_;
    n_too_long_ = source.n_too_long();
    if (n_new == 0) return;
    n_malformed_ += n_new;
    n_lines_ += n_new;
    print_error(fmt::format("{}: {} lines longer than {} bytes near line {} were skipped", source.name(), n_new,
                            LineSource::MAX_LINE_BYTES, n_lines_));
  }

  IngestRefused refused_after(const std::string &why) const {
    return IngestRefused(
        fmt::format("{} lines are durable, the following ones were refused: {}", n_durable_lines_, why));
  }

  void acknowledge_oldest() {
    const Batch batch = unsettled_.front();
    unsettled_.pop_front();
    if (const std::string why = writer_.wait(batch.ticket); !why.empty()) throw refused_after(why);
    n_durable_lines_ = batch.n_lines;
    if (arguments_.acks) print(fmt::format("durable {}\n", n_durable_lines_));
  }

  DatabaseWriter &writer_;
  const IngestArguments &arguments_;
  const Precision precision_;
  std::deque<Batch> unsettled_;
  uint64_t n_lines_ = 0;
  uint64_t n_durable_lines_ = 0;
  uint64_t n_points_ = 0;
  uint64_t n_malformed_ = 0;
  uint64_t n_too_long_ = 0;  // of the current source
};

}  // namespace

int ingest(const IngestArguments &arguments) {
  DatabaseWriter writer(arguments.write.db, writer_options_of(arguments.write));
  report_warnings(writer.warnings());
  Ingestion ingestion(writer, arguments);
  const auto begin = std::chrono::steady_clock::now();
  for (const std::string &path : arguments.files) ingestion.ingest_all(path);
  ingestion.finish();
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  writer.close();
  print(fmt::format("kept in          {}: {} lines, {} points, {} malformed lines, {:.3f} s ({:.0f} points/s)\n",
                    arguments.write.db, ingestion.n_lines(), ingestion.n_points(), ingestion.n_malformed(), seconds,
                    static_cast<double>(ingestion.n_points()) / std::max(seconds, 1e-9)));
  return ingestion.n_malformed() == 0 ? EXIT_GOOD : EXIT_SOME_MALFORMED;
}

}  // namespace metricdb

// Where lines go that come from outside, and how one learns that they are kept.
//
// Lines are taken batch by batch: `take` as often as there is something, then `commit`, which ends the batch and
// returns its ticket at once. The batch is kept, whatever happens to process and machine, when `settled` has reached
// its ticket. A batch that could not be written is refused as a whole and nothing of it stays.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "codec/line_protocol.h"

namespace metricdb {

// Nothing of the text was taken: there is no room for it now, or not in the time to come. Says why in one line.
class IngestRefused : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Taken {
  uint64_t points = 0;
  uint64_t malformed = 0;    // lines, of which no point was taken; those that there was no room for too
  std::string first_reason;  // of the first malformed one, as in "line 3: no fields"
};

class Ingest {
 public:
  virtual ~Ingest() = default;

  // Takes whole lines of line protocol; the last needs no line feed. Throws IngestRefused.
  virtual Taken take(std::string_view text, Precision precision) = 0;

  // Ends the batch, and returns its ticket: 1, 2 and so on. With nothing taken since the last batch, that one's ticket.
  virtual uint64_t commit() = 0;

  // All batches up to this ticket are settled: durable, unless `failure` says otherwise.
  virtual uint64_t settled() = 0;

  // Of a settled batch: empty if it is durable, or why it was refused.
  virtual std::string failure(uint64_t ticket) = 0;

  // Readable when `settled` may have moved. Reset by `settled`.
  virtual int settled_fd() const = 0;
};

}  // namespace metricdb

#include "journal/journal_reader.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "journal/files.h"

namespace metricdb {
namespace {

constexpr uint64_t READ_BYTES = 1 << 20;

// A stretch of the file in memory: from what is still needed on, and longer as more is asked for.
class Window {
 public:
  Window(const File &file, uint64_t end) : file_(file), end_(end) {}

  uint64_t end() const { return end_; }

  // `count` bytes from `at` on, fewer where the file ends. Good until the next call.
  std::string_view view(uint64_t at, uint64_t count) {
    const uint64_t until = std::min(end_, at + count);
    if (until > base_ + bytes_.size()) read_on(until);
    if (at >= base_ + bytes_.size()) return {};
    return std::string_view(bytes_).substr(at - base_, until - at);
  }

  // Nothing ahead of `at` is asked for any more.
  void forget_ahead_of(uint64_t at) { needed_ = at; }

 private:
  void read_on(uint64_t until) {
    bytes_.erase(0, std::min<uint64_t>(needed_ - base_, bytes_.size()));
    base_ = needed_;
    const size_t had = bytes_.size();
    const uint64_t missing = std::max(until - base_ - had, std::min(READ_BYTES, end_ - base_ - had));
    bytes_.resize(had + missing);
    const size_t got = file_.read_at(base_ + had, bytes_.data() + had, missing);
    bytes_.resize(had + got);
    if (got < missing) end_ = base_ + bytes_.size();  // cut meanwhile
  }

  const File &file_;
  uint64_t end_;
  uint64_t base_ = 0;    // of the bytes in memory
  uint64_t needed_ = 0;  // from here on
  std::string bytes_;
};

template <class Head>
Head head_in(std::string_view entry) {
  Head head;
  std::memcpy(&head, entry.data(), sizeof head);
  return head;
}

bool is_mark(EntryKind kind) {
  return kind == EntryKind::commit || kind == EntryKind::opened || kind == EntryKind::closed;
}

// The lengths that a head tells agree, and what has no meaning is 0.
bool is_sound(std::string_view entry) {
  const EntryHead head = head_in<EntryHead>(entry);
  if (is_mark(head.kind))
    return head.rec_type == 0 && head.has_data == 0 && head.name_bytes == 0 && head.tbl_id == 0 &&
           entry.size() >= sizeof(MarkHead) && entry.size() <= sizeof(MarkHead) + MOST_PAYLOAD_BYTES;
  if (head.kind != EntryKind::redo || head.has_data > 1 || entry.size() < sizeof(RedoHead)) return false;
  const RedoHead redo = head_in<RedoHead>(entry);
  return entry.size() == sizeof redo + head.name_bytes + (head.has_data != 0 ? uint64_t{redo.data_sz} : 0);
}

RedoRecord record_in(std::string_view entry) {
  const RedoHead head = head_in<RedoHead>(entry);
  const std::string_view rest = entry.substr(sizeof head);
  const void *const data = head.entry.has_data != 0 ? rest.data() + head.entry.name_bytes : nullptr;
  return {head.txn_id,
          head.entry.rec_type,
          rest.substr(0, head.entry.name_bytes),
          head.entry.tbl_id,
          head.data_off,
          head.aux_idx,
          data,
          head.data_sz};
}

class Scan {
 public:
  Scan(const File &file, const JournalVisitor &visitor) : file_(file), visitor_(visitor), window_(file, file.bytes()) {}

  ScanResult run(bool salvage) {
    try {
      expect_head();
    } catch (const JournalDamaged &damage) {
      if (!salvage) throw;
      result_.end = JournalEnd::damaged;
      result_.bytes_cut = window_.end();
      result_.what = fmt::format("{}; {} bytes from byte 0 on are lost", damage.what(), window_.end());
      return std::move(result_);
    }
    at_ = batch_at_ = result_.place.position;
    while (at_ < window_.end() && fault_.empty()) take_entry();
    result_.bytes_cut = window_.end() - result_.place.position;
    if (result_.bytes_cut != 0) judge_tail(salvage);
    return std::move(result_);
  }

 private:
  void expect_head();
  void take_entry();
  std::string_view whole_entry();
  void take_mark(std::string_view entry, EntryKind kind);
  void give_batch(uint64_t mark_at);
  void judge_tail(bool salvage);
  uint64_t marks_that_contradict();
  bool is_later_mark(uint64_t at, std::string_view bytes, MarkHead &mark);

  const File &file_;
  const JournalVisitor &visitor_;
  Window window_;
  ScanResult result_;
  uint64_t at_ = 0;         // of the next entry
  uint64_t batch_at_ = 0;   // of the first record without a mark yet
  uint64_t n_records_ = 0;  // since there
  std::string fault_;       // what is wrong with the entry at at_
};

void Scan::expect_head() {
  const std::string_view bytes = window_.view(0, sizeof(JournalHead));
  const auto refuse = [this](const std::string &what) {
    throw JournalDamaged(fmt::format("{}: byte 0: {}", file_.path(), what));
  };
  if (bytes.size() < sizeof(JournalHead)) refuse("ends ahead of the head of a journal");
  const JournalHead head = head_in<JournalHead>(bytes);
  if (std::string_view(head.magic, sizeof head.magic) != JOURNAL_MAGIC) refuse("is no journal");
  const JournalHead made = make_head(head.generation);
  const uint32_t version = head.version;
  if (version != JOURNAL_VERSION) refuse(fmt::format("format version {}, and {} is known", version, JOURNAL_VERSION));
  if (std::memcmp(&made, &head, sizeof head) != 0) refuse("the head's checksum is wrong");
  result_.place = behind_head(head.generation);
}

// The entry at at_; empty, with the fault told, if it is not whole.
std::string_view Scan::whole_entry() {
  const uint64_t left = window_.end() - at_;
  const std::string_view start = window_.view(at_, sizeof(EntryHead));
  if (start.size() < sizeof(EntryHead)) {
    fault_ = "ends within the head of an entry";
    return {};
  }
  const EntryHead head = head_in<EntryHead>(start);
  const uint32_t length = head.length;
  const uint64_t sequence = head.sequence, expected = result_.place.next_sequence + n_records_;
  if (length < sizeof(EntryHead) || length > left) {
    fault_ = fmt::format("an entry of {} bytes where {} are left", length, left);
    return {};
  }
  const std::string_view entry = window_.view(at_, length);
  if (entry.size() < length || sum_of_entry(result_.place.generation, at_, entry) != head.crc32c)
    fault_ = "the checksum of an entry is wrong";
  else if (sequence != expected)
    fault_ = fmt::format("sequence {} in place of {}", sequence, expected);
  else if (!is_sound(entry))
    fault_ = "an entry contradicts itself";
  return fault_.empty() ? entry : std::string_view();
}

void Scan::take_entry() {
  const std::string_view entry = whole_entry();
  if (entry.empty()) return;
  const EntryKind kind = head_in<EntryHead>(entry).kind;
  if (kind == EntryKind::redo) {
    ++n_records_;
    at_ += entry.size();
  } else if (kind != EntryKind::commit && n_records_ != 0) {
    fault_ = "a mark within a batch";
  } else {
    take_mark(entry, kind);
  }
}

void Scan::take_mark(std::string_view entry, EntryKind kind) {
  const uint64_t behind = at_ + entry.size();
  if (kind == EntryKind::commit) {
    if (visitor_.record) give_batch(at_);
    if (visitor_.commit) visitor_.commit(window_.view(at_, entry.size()).substr(sizeof(MarkHead)), behind);
    ++result_.n_batches;
    result_.n_records += n_records_;
  }
  result_.place.position = behind;
  result_.place.next_sequence += n_records_ + 1;
  result_.closed = kind == EntryKind::closed;
  at_ = batch_at_ = behind;
  n_records_ = 0;
  window_.forget_ahead_of(behind);
}

void Scan::give_batch(uint64_t mark_at) {
  for (std::string_view rest = window_.view(batch_at_, mark_at - batch_at_); !rest.empty();) {
    const uint32_t length = head_in<EntryHead>(rest).length;
    visitor_.record(record_in(rest.substr(0, length)));
    rest.remove_prefix(length);
  }
}

void Scan::judge_tail(bool salvage) {
  const bool is_unfinished = fault_.empty();
  if (is_unfinished) fault_ = "the last batch has no commit mark";
  const uint64_t fault_at = is_unfinished ? batch_at_ : at_;
  const uint64_t n_marks = is_unfinished ? 0 : marks_that_contradict();
  result_.end = n_marks != 0 ? JournalEnd::damaged : JournalEnd::torn;
  result_.closed = false;
  result_.what = fmt::format("{}: byte {}: {}", file_.path(), fault_at, fault_);
  if (n_marks != 0) {
    result_.what +=
        fmt::format(", and {} {} behind it that the disk had this", n_marks, n_marks == 1 ? "mark says" : "marks say");
    if (!salvage) throw JournalDamaged(result_.what);
  }
  result_.what += fmt::format("; {} bytes from byte {} on are {}", result_.bytes_cut, result_.place.position,
                              n_marks != 0 ? "lost" : "cut");
}

// A mark behind the fault, and what bytes it has. Most places are passed over by their first bytes.
bool Scan::is_later_mark(uint64_t at, std::string_view bytes, MarkHead &mark) {
  mark = head_in<MarkHead>(bytes);
  const uint32_t length = mark.entry.length;
  if (length < sizeof mark || length > sizeof mark + MOST_PAYLOAD_BYTES || !is_mark(mark.entry.kind)) return false;
  if (mark.entry.sequence < result_.place.next_sequence + n_records_ || mark.durable > at) return false;
  const std::string_view entry = window_.view(at, length);
  return entry.size() == length && is_sound(entry) &&
         sum_of_entry(result_.place.generation, at, entry) == mark.entry.crc32c;
}

// After a crash what was never synced can be there or not, in any order, so whole entries behind a fault say nothing by
// themselves. But a mark says up to where the disk had the file when it was written.
uint64_t Scan::marks_that_contradict() {
  uint64_t n_marks = 0;
  for (uint64_t at = at_ + 1; at + sizeof(MarkHead) <= window_.end(); ++at) {
    window_.forget_ahead_of(at);
    const std::string_view bytes = window_.view(at, sizeof(MarkHead));
    MarkHead mark;
    if (bytes.size() < sizeof mark || !is_later_mark(at, bytes, mark) || mark.durable <= at_) continue;
    ++n_marks;
    at += mark.entry.length - 1;
  }
  return n_marks;
}

}  // namespace

ScanResult scan_journal(const std::string &path, const JournalVisitor &visitor, bool salvage) {
  const File file = File::open(path);
  return Scan(file, visitor).run(salvage);
}

}  // namespace metricdb

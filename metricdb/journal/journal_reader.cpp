#include "journal/journal_reader.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "journal/files.h"

namespace metricdb {
namespace {

constexpr uint64_t JOURNAL_READ_BYTES = 1 << 20;

// A part of the file in memory, from the first byte that is still needed on. It grows on demand.
class Window {
 public:
  Window(const File &file, uint64_t end) : file_(file), end_(end) {}

  uint64_t end() const { return end_; }

  // Returns `count` bytes from `at` on, fewer at the end of the file. Valid until the next call.
  std::string_view view(uint64_t at, uint64_t count) {
    const uint64_t until = std::min(end_, at + count);
    if (until > base_ + bytes_.size()) read_on(until);
    if (at >= base_ + bytes_.size()) return {};
    return std::string_view(bytes_).substr(at - base_, until - at);
  }

  // Bytes before `at` are not needed any more.
  void discard_before(uint64_t at) { needed_ = at; }

 private:
  void read_on(uint64_t until) {
    bytes_.erase(0, std::min<uint64_t>(needed_ - base_, bytes_.size()));
    base_ = needed_;
    const size_t had = bytes_.size();
    const uint64_t missing = std::max(until - base_ - had, std::min(JOURNAL_READ_BYTES, end_ - base_ - had));
    bytes_.resize(had + missing);
    const size_t got = file_.read_at(base_ + had, bytes_.data() + had, missing);
    bytes_.resize(had + got);
    if (got < missing) end_ = base_ + bytes_.size();  // another process truncated the file
  }

  const File &file_;
  uint64_t end_;
  uint64_t base_ = 0;    // position of the first byte in memory
  uint64_t needed_ = 0;  // position of the first byte that is needed
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

// Returns whether the lengths in the head agree and the unused fields are 0.
bool is_sound(std::string_view entry) {
  const EntryHead head = head_in<EntryHead>(entry);
  if (is_mark(head.kind))
    return head.rec_type == 0 && head.has_data == 0 && head.name_bytes == 0 && head.tbl_id == 0 &&
           entry.size() >= sizeof(MarkHead) && entry.size() <= sizeof(MarkHead) + MAX_PAYLOAD_BYTES;
  if (head.kind != EntryKind::redo || head.has_data > 1 || entry.size() < sizeof(RedoHead)) return false;
  const RedoHead redo = head_in<RedoHead>(entry);
  return entry.size() == sizeof redo + head.name_bytes + (head.has_data != 0 ? uint64_t{redo.data_sz} : 0);
}

redo_args_t record_in(std::string_view entry) {
  const RedoHead head = head_in<RedoHead>(entry);
  const std::string_view rest = entry.substr(sizeof head);
  const void *const data = head.entry.has_data != 0 ? rest.data() + head.entry.name_bytes : nullptr;
  return {head.txn_id,   head.entry.rec_type, rest.data(), head.entry.name_bytes, head.entry.tbl_id,
          head.data_off, head.aux_idx,        data,        head.data_sz};
}

class Scan {
 public:
  Scan(const File &file, const JournalVisitor &visitor) : file_(file), visitor_(visitor), window_(file, file.bytes()) {}

  ScanResult run() {
    fault_ = read_head();
    if (!fault_.empty()) {
      result_.end = JournalEnd::damaged;
      result_.fault = fmt::format("{}: byte 0: {}", file_.path(), fault_);
    }
    at_ = batch_at_ = result_.place.position;
    while (at_ < window_.end() && fault_.empty()) read_entry();
    result_.bytes_cut = window_.end() - result_.place.position;
    if (result_.bytes_cut != 0 && result_.end == JournalEnd::clean) classify_tail();
    return std::move(result_);
  }

 private:
  std::string read_head();
  void read_entry();
  std::string_view whole_entry();
  void read_mark(std::string_view entry, EntryKind kind);
  void visit_batch(uint64_t mark_at);
  void classify_tail();
  uint64_t count_later_marks();
  bool is_later_mark(uint64_t at, std::string_view bytes, MarkHead &mark);

  const File &file_;
  const JournalVisitor &visitor_;
  Window window_;
  ScanResult result_;
  uint64_t at_ = 0;         // of the next entry
  uint64_t batch_at_ = 0;   // of the first record after the last mark
  uint64_t n_records_ = 0;  // since there
  std::string fault_;       // of the entry at at_
};

// Sets the place. Returns the fault of the head, or nothing.
std::string Scan::read_head() {
  const std::string_view bytes = window_.view(0, sizeof(JournalHead));
  if (bytes.size() < sizeof(JournalHead)) return "shorter than the head of a journal";
  const JournalHead head = head_in<JournalHead>(bytes);
  if (std::string_view(head.magic, sizeof head.magic) != JOURNAL_MAGIC) return "not a journal";
  const JournalHead expected = make_head(head.generation);
  const uint32_t version = head.version;
  if (version != JOURNAL_VERSION)
    return fmt::format("unknown format version {}, expected {}", version, JOURNAL_VERSION);
  if (std::memcmp(&expected, &head, sizeof head) != 0) return "the checksum of the head is wrong";
  result_.place = place_after_head(head.generation);
  return {};
}

// Returns the entry at at_. Returns nothing and sets the fault if it is not valid.
std::string_view Scan::whole_entry() {
  const uint64_t left = window_.end() - at_;
  const std::string_view start = window_.view(at_, sizeof(EntryHead));
  if (start.size() < sizeof(EntryHead)) {
    fault_ = "the file ends within the head of an entry";
    return {};
  }
  const EntryHead head = head_in<EntryHead>(start);
  const uint32_t length = head.length;
  const uint64_t sequence = head.sequence, expected = result_.place.next_sequence + n_records_;
  if (length < sizeof(EntryHead) || length > left) {
    fault_ = fmt::format("an entry of {} bytes, but only {} are left", length, left);
    return {};
  }
  const std::string_view entry = window_.view(at_, length);
  if (entry.size() < length || sum_of_entry(result_.place.generation, at_, entry) != head.crc32c)
    fault_ = "the checksum of an entry is wrong";
  else if (sequence != expected)
    fault_ = fmt::format("sequence {}, expected {}", sequence, expected);
  else if (!is_sound(entry))
    fault_ = "an entry contradicts itself";
  return fault_.empty() ? entry : std::string_view();
}

void Scan::read_entry() {
  const std::string_view entry = whole_entry();
  if (entry.empty()) return;
  const EntryKind kind = head_in<EntryHead>(entry).kind;
  if (kind == EntryKind::redo) {
    ++n_records_;
    at_ += entry.size();
  } else if (kind != EntryKind::commit && n_records_ != 0) {
    fault_ = "a mark within a batch";
  } else {
    read_mark(entry, kind);
  }
}

void Scan::read_mark(std::string_view entry, EntryKind kind) {
  const uint64_t after = at_ + entry.size();
  if (kind == EntryKind::commit) {
    if (visitor_.record) visit_batch(at_);
    if (visitor_.commit) visitor_.commit(window_.view(at_, entry.size()).substr(sizeof(MarkHead)), after);
    ++result_.n_batches;
    result_.n_records += n_records_;
  }
  result_.place.position = after;
  result_.place.next_sequence += n_records_ + 1;
  result_.is_closed = kind == EntryKind::closed;
  at_ = batch_at_ = after;
  n_records_ = 0;
  window_.discard_before(after);
}

void Scan::visit_batch(uint64_t mark_at) {
  for (std::string_view rest = window_.view(batch_at_, mark_at - batch_at_); !rest.empty();) {
    const uint32_t length = head_in<EntryHead>(rest).length;
    visitor_.record(record_in(rest.substr(0, length)));
    rest.remove_prefix(length);
  }
}

void Scan::classify_tail() {
  const bool is_unfinished = fault_.empty();
  if (is_unfinished) fault_ = "the last batch has no commit mark";
  const uint64_t fault_at = is_unfinished ? batch_at_ : at_;
  const uint64_t n_marks = is_unfinished ? 0 : count_later_marks();
  result_.end = n_marks != 0 ? JournalEnd::damaged : JournalEnd::torn;
  result_.is_closed = false;
  result_.fault = fmt::format("{}: byte {}: {}", file_.path(), fault_at, fault_);
  if (n_marks != 0)
    result_.fault +=
        fmt::format(", but {} later {} that this was on the disk", n_marks, n_marks == 1 ? "mark says" : "marks say");
}

// Returns whether a valid mark begins at `at`. The first bytes exclude most positions.
bool Scan::is_later_mark(uint64_t at, std::string_view bytes, MarkHead &mark) {
  mark = head_in<MarkHead>(bytes);
  const uint32_t length = mark.entry.length;
  if (length < sizeof mark || length > sizeof mark + MAX_PAYLOAD_BYTES || !is_mark(mark.entry.kind)) return false;
  if (mark.entry.sequence < result_.place.next_sequence + n_records_ || mark.durable > at) return false;
  const std::string_view entry = window_.view(at, length);
  return entry.size() == length && is_sound(entry) &&
         sum_of_entry(result_.place.generation, at, entry) == mark.entry.crc32c;
}

// Counts the marks after the fault that prove that the faulty bytes were on the disk. After a crash any part of the
// bytes that were not synced can be missing, so complete entries after a fault prove nothing by themselves. But a mark
// says up to which position the file was on the disk.
uint64_t Scan::count_later_marks() {
  uint64_t n_marks = 0;
  for (uint64_t at = at_ + 1; at + sizeof(MarkHead) <= window_.end(); ++at) {
    window_.discard_before(at);
    const std::string_view bytes = window_.view(at, sizeof(MarkHead));
    MarkHead mark;
    if (bytes.size() < sizeof mark || !is_later_mark(at, bytes, mark) || mark.durable <= at_) continue;
    ++n_marks;
    at += mark.entry.length - 1;
  }
  return n_marks;
}

}  // namespace

std::string ScanResult::warning() const {
  if (end == JournalEnd::clean) return {};
  return fmt::format("{}; {} bytes from byte {} on are {}", fault, bytes_cut, place.position,
                     end == JournalEnd::damaged ? "lost" : "cut");
}

ScanResult scan_journal(const std::string &path, const JournalVisitor &visitor) {
  const File file = File::open(path);
  return Scan(file, visitor).run();
}

}  // namespace metricdb

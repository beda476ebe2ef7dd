#include "journal_reader.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <mutex>
#include <thread>

#include "checksum.h"

namespace tslb_durable {
namespace {

constexpr uint64_t JOURNAL_READ_BYTES = 1 << 20;
// A thread reads the frames of a longer journal while their groups are visited.
constexpr uint64_t MIN_LONG_JOURNAL_BYTES = 1 << 18;
constexpr uint64_t MAX_WAITING_BYTES = 8 << 20;  // of groups that are read and not visited

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

  // Only bytes from `at` on are needed, which can have been discarded.
  void restart_at(uint64_t at) {
    bytes_.clear();
    base_ = needed_ = at;
  }

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

// Returns how many bytes at the start are zero.
size_t n_zeros(std::string_view bytes) {
  size_t count = 0;
  for (uint64_t word = 0; bytes.size() - count >= sizeof word; count += sizeof word) {
    std::memcpy(&word, bytes.data() + count, sizeof word);
    if (word != 0) break;
  }
  while (count < bytes.size() && bytes[count] == '\0') ++count;
  return count;
}

FrameHead head_in(std::string_view frame) {
  FrameHead head;
  std::memcpy(&head, frame.data(), sizeof head);
  return head;
}

// Returns whether the fields of a head agree.
bool is_sound(const FrameHead &head) {
  if (head.zero != 0 || head.zero2 != 0 || head.length < sizeof head) return false;
  if (head.kind == FrameKind::group)
    return head.raw_bytes != 0 && head.raw_bytes <= MAX_BODY_BYTES && head.length <= sizeof head + MAX_BODY_BYTES;
  return (head.kind == FrameKind::opened || head.kind == FrameKind::sealed) && head.length == sizeof head &&
         head.raw_bytes == 0 && head.n_batches == 0 && head.compression == Compression::none;
}

// What follows a place of the file: a frame, a fault, or nothing but zeros.
struct Found {
  JournalPlace after;  // the frame
  FrameKind kind = FrameKind::group;
  uint32_t n_batches = 0;
  std::string body;  // of a group
  std::string fault;
  bool is_certain_damage = false;  // the fault is in a frame whose checksum is right
  bool is_end = false;
  std::exception_ptr failure;  // of the file
  bool is_last() const { return is_end || !fault.empty() || failure != nullptr; }
};

// Frames between the thread that reads them and the one that visits them. A reader that had to wait goes on when half of
// the frames are visited. Otherwise the threads would switch at each frame.
class FrameQueue {
 public:
  // Returns where the next frame is put; null: no frame is taken any more.
  Found *begin_put() {
    std::unique_lock lock(mutex_);
    if (n_waiting() == frames_.size() || n_bytes_ > MAX_WAITING_BYTES)
      is_drained_.wait(lock, [this] { return is_half_empty() || is_stopped_; });
    return is_stopped_ ? nullptr : &frames_[n_put_ % frames_.size()];
  }
  void end_put() {
    {
      const std::lock_guard lock(mutex_);
      n_bytes_ += frames_[n_put_ % frames_.size()].body.size();
      ++n_put_;
    }
    is_filled_.notify_one();
  }
  const Found &begin_take() {
    std::unique_lock lock(mutex_);
    is_filled_.wait(lock, [this] { return n_waiting() != 0; });
    return frames_[n_taken_ % frames_.size()];
  }
  void end_take() {
    bool is_ready;
    {
      const std::lock_guard lock(mutex_);
      n_bytes_ -= frames_[n_taken_ % frames_.size()].body.size();
      ++n_taken_;
      is_ready = is_half_empty();
    }
    if (is_ready) is_drained_.notify_one();
  }
  void stop() {
    {
      const std::lock_guard lock(mutex_);
      is_stopped_ = true;
    }
    is_drained_.notify_one();
  }

 private:
  size_t n_waiting() const { return n_put_ - n_taken_; }
  bool is_half_empty() const { return n_waiting() <= frames_.size() / 2 && n_bytes_ <= MAX_WAITING_BYTES / 2; }

  std::mutex mutex_;
  std::condition_variable is_filled_, is_drained_;
  std::array<Found, 4> frames_;  // their memory is used again
  size_t n_put_ = 0, n_taken_ = 0;
  uint64_t n_bytes_ = 0;  // of the bodies that wait
  bool is_stopped_ = false;
};

class Scan {
 public:
  Scan(const File &file, const JournalName &name, const GroupVisitor &visit)
      : file_(file), name_(name), visit_(visit), window_(file, file.bytes()) {}

  ScanResult run() {
    result_.bytes = window_.end();
    read_head();
    read_frames();
    if (!fault_.empty()) classify_tail();
    return result_;
  }

 private:
  void read_head();
  bool is_zero_to_end(uint64_t from);
  std::string_view whole_frame(const JournalPlace &place, std::string &fault);
  void find(const JournalPlace &place, Found &found);
  void find_all(JournalPlace place, FrameQueue &queue);
  void read_frames();
  bool take(const Found &found);
  void visit_frame(const Found &found);
  void classify_tail();
  bool proves_that_fault_was_synced(uint64_t at);
  uint64_t count_later_frames();

  const File &file_;
  const JournalName &name_;
  const GroupVisitor &visit_;
  Window window_;  // of the thread that reads the next frame
  ScanResult result_;
  std::string fault_;
  bool is_certain_damage_ = false;
};

void Scan::read_head() {
  const std::string_view bytes = window_.view(0, sizeof(JournalHead));
  if (bytes.size() < sizeof(JournalHead)) throw damaged_at(file_.path(), 0, "shorter than the head of a journal");
  JournalHead head;
  std::memcpy(&head, bytes.data(), sizeof head);
  if (std::string_view(head.magic, sizeof head.magic) != JOURNAL_MAGIC)
    throw damaged_at(file_.path(), 0, "not a journal");
  const uint32_t version = head.version;
  if (version != JOURNAL_VERSION)
    throw damaged_at(file_.path(), offsetof(JournalHead, version),
                     fmt::format("unknown format version {}, expected {}", version, JOURNAL_VERSION));
  JournalName found = {{}, head.generation};
  std::memcpy(found.identity.data(), head.identity, sizeof head.identity);
  const JournalHead expected = make_head(found);
  if (std::memcmp(&expected, &head, sizeof head) != 0)
    throw damaged_at(file_.path(), 0, "the checksum of the head is wrong");
  if (found.identity != name_.identity)
    throw damaged_at(file_.path(), offsetof(JournalHead, identity), "the journal of another store");
  if (found.generation != name_.generation)
    throw damaged_at(file_.path(), offsetof(JournalHead, generation),
                     fmt::format("is of generation {}, not {}", found.generation, name_.generation));
  result_.place = {sizeof head, 1, crc32c(bytes.data(), bytes.size()), sizeof head};
}

// Reserved space is zero. A frame is not: its length is never 0.
bool Scan::is_zero_to_end(uint64_t from) {
  const std::string_view start = window_.view(from, sizeof(uint32_t));
  if (n_zeros(start) != start.size()) return false;
  for (uint64_t at = from; at < window_.end();) {
    const std::string_view bytes = window_.view(at, std::min(JOURNAL_READ_BYTES, window_.end() - at));
    if (bytes.empty()) break;
    if (n_zeros(bytes) != bytes.size()) return false;
    at += bytes.size();
  }
  return true;
}

// Returns the frame at the place. Returns nothing and sets the fault if it is not valid.
std::string_view Scan::whole_frame(const JournalPlace &place, std::string &fault) {
  const uint64_t at = place.position;
  const uint64_t left = window_.end() - at;
  const std::string_view start = window_.view(at, sizeof(FrameHead));
  if (start.size() < sizeof(FrameHead)) {
    fault = "the file ends within the head of a frame";
    return {};
  }
  const FrameHead head = head_in(start);
  const uint32_t length = head.length;
  if (length < sizeof head || length > left) {
    fault = fmt::format("a frame of {} bytes, but only {} are left", length, left);
    return {};
  }
  const std::string_view frame = window_.view(at, length);
  const uint64_t sequence = head.sequence;
  if (frame.size() < length || sum_of_frame(name_, at, frame) != head.crc32c)
    fault = "the checksum of a frame is wrong";
  else if (sequence != place.next_sequence)
    fault = fmt::format("sequence {}, expected {}", sequence, place.next_sequence);
  else if (!is_sound(head))
    fault = "a frame contradicts itself";
  return fault.empty() ? frame : std::string_view();
}

// Sets what follows the place. Uses the window, and not the result.
void Scan::find(const JournalPlace &place, Found &found) {
  found.fault.clear();
  found.is_certain_damage = false;
  found.body.clear();  // frames without one
  window_.discard_before(place.position);
  found.is_end = place.position >= window_.end() || is_zero_to_end(place.position);
  if (found.is_end) return;
  const std::string_view frame = whole_frame(place, found.fault);
  if (frame.empty()) return;
  const FrameHead head = head_in(frame);
  found.kind = head.kind;
  found.n_batches = head.n_batches;
  if (head.kind == FrameKind::group) {
    bool ok = false;
    const std::string_view body = decompress(head, frame.substr(sizeof head), found.body, ok);
    if (!ok) {
      found.fault = "the body of a group cannot be decompressed";
      found.is_certain_damage = true;
      return;
    }
    if (body.data() != found.body.data()) found.body = body;  // the window moves on before the body is visited
  }
  found.after = {place.position + frame.size(), place.next_sequence + 1,
                 crc32c(frame.data(), frame.size(), place.crc32c), head.durable};
}

// Ends after a frame that is the last one, or when the queue is stopped.
void Scan::find_all(JournalPlace place, FrameQueue &queue) {
  while (Found *const found = queue.begin_put()) {
    try {
      find(place, *found);
    } catch (...) {
      found->failure = std::current_exception();
    }
    const bool is_last = found->is_last();
    place = found->after;
    queue.end_put();
    if (is_last) return;
  }
}

// What the other thread finds counts only if the visits before it find no fault.
void Scan::read_frames() {
  struct Reader {
    ~Reader() {
      queue.stop();
      if (thread.joinable()) thread.join();
    }
    FrameQueue queue;
    std::thread thread;
  } reader;
  try {
    if (result_.bytes >= MIN_LONG_JOURNAL_BYTES)
      reader.thread = std::thread([this, &reader, from = result_.place] { find_all(from, reader.queue); });
  } catch (const std::exception &) {
    // This thread reads the frames.
  }
  if (!reader.thread.joinable()) {
    Found found;
    do find(result_.place, found);
    while (take(found));
    return;
  }
  while (take(reader.queue.begin_take())) reader.queue.end_take();
}

// Returns whether the next frame is to be taken.
bool Scan::take(const Found &found) {
  if (found.failure) std::rethrow_exception(found.failure);
  if (found.is_end) return false;
  fault_ = found.fault;
  is_certain_damage_ = found.is_certain_damage;
  if (fault_.empty()) visit_frame(found);
  return fault_.empty();
}

void Scan::visit_frame(const Found &found) {
  if (found.kind == FrameKind::group) {
    fault_ = visit_(found.body, result_.place.position);
    is_certain_damage_ = !fault_.empty();
    if (is_certain_damage_) return;
    ++result_.n_groups;
    result_.n_batches += found.n_batches;
  }
  result_.is_sealed = found.kind == FrameKind::sealed;
  result_.place = found.after;
}

void Scan::classify_tail() {
  const uint64_t at = result_.place.position;
  window_.restart_at(at);
  const uint64_t n_later = count_later_frames();
  result_.end = n_later != 0 || is_certain_damage_ ? JournalEnd::damaged : JournalEnd::torn;
  result_.is_sealed = false;
  result_.fault_at = at;
  result_.bytes_cut = window_.end() - at;
  result_.fault = fmt::format("{}: byte {}: {}", file_.path(), at, fault_);
  if (n_later != 0)
    result_.fault +=
        fmt::format(", but {} later {} that this was on the disk", n_later, n_later == 1 ? "frame says" : "frames say");
}

// Returns whether a valid frame at `at` says that the faulty bytes were on the disk. Its fields exclude most positions
// before its checksum is computed.
bool Scan::proves_that_fault_was_synced(uint64_t at) {
  const std::string_view start = window_.view(at, sizeof(FrameHead));
  if (start.size() < sizeof(FrameHead)) return false;
  const FrameHead head = head_in(start);
  if (!is_sound(head) || head.sequence <= result_.place.next_sequence || head.durable > at ||
      head.durable <= result_.place.position || head.length > window_.end() - at)
    return false;
  const uint32_t length = head.length;
  const std::string_view frame = window_.view(at, length);
  return frame.size() == length && sum_of_frame(name_, at, frame) == head.crc32c;
}

// After a crash any part of the bytes that were not synced can be missing, so complete frames after a fault prove
// nothing by themselves. But a frame says up to which position the file was on the disk.
uint64_t Scan::count_later_frames() {
  uint64_t n_frames = 0;
  for (uint64_t at = result_.place.position + 1; at + sizeof(FrameHead) <= window_.end(); ++at) {
    window_.discard_before(at);
    const size_t zeros = n_zeros(window_.view(at, JOURNAL_READ_BYTES));
    // A frame begins with its length, which is not zero.
    if (zeros >= sizeof(FrameHead::length)) {
      at += zeros - sizeof(FrameHead::length);
      continue;
    }
    if (!proves_that_fault_was_synced(at)) continue;
    ++n_frames;
    at += head_in(window_.view(at, sizeof(FrameHead))).length - 1;
  }
  return n_frames;
}

}  // namespace

ScanResult scan_journal(const File &file, const JournalName &name, const GroupVisitor &visit) {
  return Scan(file, name, visit).run();
}

}  // namespace tslb_durable

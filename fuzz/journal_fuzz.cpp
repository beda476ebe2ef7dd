// Scans any bytes as a journal. The input is a file, or a list of entries that get valid checksums here and are then
// changed by the input, because random inputs have no valid checksums.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "journal/files.h"
#include "journal/journal_reader.h"

using namespace metricdb;

static volatile uint8_t seen;  // so that no read is dropped

static void need(bool holds, const char *what) {
  if (holds) return;
  fprintf(stderr, "does not hold: %s\n", what);
  abort();
}

// Reads the input from its front; 0 at the end.
struct input_t {
  const uint8_t *data;
  size_t size;

  uint8_t byte() { return size != 0 ? (--size, *data++) : 0; }
  uint16_t word() { return static_cast<uint16_t>(byte() | byte() << 8); }
  std::string_view text(size_t max_bytes) {
    const size_t count = std::min(size, max_bytes);
    data += count;
    size -= count;
    return {reinterpret_cast<const char *>(data - count), count};
  }
};

static void add_entry(std::string &file, JournalPlace &place, input_t &input) {
  const uint8_t choice = input.byte();
  if ((choice & 0x80) != 0) place.next_sequence += choice & 0x7F;  // a gap
  if (choice % 8 < 5) {
    const std::string_view name = input.text(input.byte() % 8), bytes = input.text(input.byte() % 64);
    const bool has_data = (choice & 0x40) == 0;
    const uint16_t off = input.word();
    add_redo(file, place,
             {choice, static_cast<char>(choice), name.data(), name.size(), choice, off, ~0u,
              has_data ? bytes.data() : nullptr, static_cast<uint32_t>(bytes.size())});
  } else {
    const EntryKind kinds[] = {EntryKind::commit, EntryKind::opened, EntryKind::closed};
    const uint16_t durable = input.word();
    add_mark(file, place, kinds[choice % 8 - 5], durable, input.text(input.byte() % 32));
  }
}

static std::string make_file(input_t input) {
  const JournalHead head = make_head(7);
  std::string file(reinterpret_cast<const char *>(&head), sizeof head);
  JournalPlace place = place_after_head(7);
  for (uint8_t left = input.byte() % 32; left != 0; --left) add_entry(file, place, input);
  while (input.size > 2) {
    const size_t at = input.word();
    const char changed = static_cast<char>(input.byte());
    if (at < file.size()) file[at] = static_cast<char>(file[at] ^ changed);
  }
  return file;
}

static void read_record(const redo_args_t &record) {
  for (const char byte : std::string_view(record.ctx_name, record.ctx_name_len)) seen = static_cast<uint8_t>(byte);
  const char *const bytes = static_cast<const char *>(record.data_ptr);
  for (uint32_t i = 0; bytes != nullptr && i < record.data_sz; ++i) seen = static_cast<uint8_t>(bytes[i]);
}

static ScanResult read_whole(const std::string &path) {
  uint64_t n_records = 0, n_batches = 0, end = 0;
  const JournalVisitor visitor = {[&n_records](const redo_args_t &record) { read_record(record), ++n_records; },
                                  [&n_batches, &end](std::string_view payload, uint64_t position) {
                                    for (const char byte : payload) seen = static_cast<uint8_t>(byte);
                                    need(position > end, "batches are in order");
                                    end = position;
                                    ++n_batches;
                                  }};
  const ScanResult result = scan_journal(path, visitor);
  need(result.n_records == n_records && result.n_batches == n_batches, "the counts are those of the callbacks");
  if (result.place.position == 0)
    need(result.end == JournalEnd::damaged && n_records + n_batches == 0, "a file without a head has no batches");
  else
    need(result.place.position >= end && result.place.next_sequence > n_records + n_batches,
         "the place is after the last batch");
  need((result.end == JournalEnd::clean) == result.warning().empty(), "a warning unless the end is clean");
  need(result.end != JournalEnd::clean || result.bytes_cut == 0, "a clean end is the end");
  return result;
}

// Cuts the file after its last valid mark. It must have the same content and be clean.
static void expect_clean_when_cut(int fd, const std::string &path, const ScanResult &before) {
  need(ftruncate(fd, static_cast<off_t>(before.place.position)) == 0, "a file can be cut");
  const ScanResult after = read_whole(path);
  need(after.end == JournalEnd::clean && after.n_batches == before.n_batches &&
           after.place.next_sequence == before.place.next_sequence,
       "a journal that is cut at its place is clean");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  const input_t input = {data, size};
  const std::string file =
      data[0] == static_cast<uint8_t>(JOURNAL_MAGIC[0]) ? std::string(input.data, input.data + size) : make_file(input);
  const int fd = memfd_create("journal", MFD_CLOEXEC);
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  if (fd < 0 || write(fd, file.data(), file.size()) != static_cast<ssize_t>(file.size())) return -1;
  const ScanResult result = read_whole(path);
  if (result.place.position != 0) expect_clean_when_cut(fd, path, result);
  close(fd);
  return 0;
}

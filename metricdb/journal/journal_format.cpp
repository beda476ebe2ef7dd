#include "journal/journal_format.h"

#include <cstring>

#include "journal/checksum.h"

namespace metricdb {
namespace {

template <class Head>
std::string_view bytes_of(const Head &head) {
  return {reinterpret_cast<const char *>(&head), sizeof head};
}

// Completes the entry that begins at `at`: sets its checksum and moves the place to the next entry.
void finish_entry(std::string &text, size_t at, JournalPlace &place) {
  const std::string_view entry = std::string_view(text).substr(at);
  const uint32_t sum = sum_of_entry(place.generation, place.position, entry);
  std::memcpy(text.data() + at + offsetof(EntryHead, crc32c), &sum, sizeof sum);
  place.position += entry.size();
  ++place.next_sequence;
}

}  // namespace

JournalHead make_head(uint64_t generation) {
  JournalHead head = {};
  std::memcpy(head.magic, JOURNAL_MAGIC.data(), sizeof head.magic);
  head.version = JOURNAL_VERSION;
  head.generation = generation;
  const std::string_view bytes = bytes_of(head);
  const uint32_t first_part = crc32c(bytes.data(), offsetof(JournalHead, crc32c));
  head.crc32c = crc32c(bytes.data() + offsetof(JournalHead, generation), sizeof generation, first_part);
  return head;
}

void add_redo(std::string &to, JournalPlace &place, const redo_args_t &record) {
  const size_t at = to.size();
  const uint32_t n_bytes = record.data_ptr != nullptr ? record.data_sz : 0;
  RedoHead head = {};
  head.entry.length = static_cast<uint32_t>(sizeof head + record.ctx_name_len + n_bytes);
  head.entry.sequence = place.next_sequence;
  head.entry.kind = EntryKind::redo;
  head.entry.rec_type = record.rec_type;
  head.entry.has_data = record.data_ptr != nullptr ? 1 : 0;
  head.entry.name_bytes = static_cast<uint8_t>(record.ctx_name_len);
  head.entry.tbl_id = record.tbl_id;
  head.txn_id = record.txn_id;
  head.data_off = record.data_off;
  head.aux_idx = record.aux_idx;
  head.data_sz = record.data_sz;
  to.append(bytes_of(head)).append(record.ctx_name, record.ctx_name_len);
  if (n_bytes != 0) to.append(static_cast<const char *>(record.data_ptr), n_bytes);
  finish_entry(to, at, place);
}

void add_mark(std::string &to, JournalPlace &place, EntryKind kind, uint64_t durable, std::string_view payload) {
  const size_t at = to.size();
  MarkHead head = {};
  head.entry.length = static_cast<uint32_t>(sizeof head + payload.size());
  head.entry.sequence = place.next_sequence;
  head.entry.kind = kind;
  head.durable = durable;
  to.append(bytes_of(head)).append(payload);
  finish_entry(to, at, place);
}

uint32_t sum_of_entry(uint64_t generation, uint64_t position, std::string_view entry) {
  constexpr size_t SUMMED_FROM = offsetof(EntryHead, sequence);
  char before[20];
  std::memcpy(before, &generation, 8);
  std::memcpy(before + 8, &position, 8);
  std::memcpy(before + 16, entry.data(), 4);
  return crc32c(entry.data() + SUMMED_FROM, entry.size() - SUMMED_FROM, crc32c(before, sizeof before));
}

}  // namespace metricdb

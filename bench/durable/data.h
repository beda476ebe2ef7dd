// The records of a run and their updates. Two objects with the same arguments and the same calls have the same contents,
// so a process can check what another one stored.
#ifndef TSLB_BENCH_DURABLE_DATA_H
#define TSLB_BENCH_DURABLE_DATA_H

#include "contestant.h"

// splitmix64.
class random_t {
 public:
  explicit random_t(uint64_t seed) : state_(seed) {}
  uint64_t next() {
    uint64_t bits = state_ += 0x9E3779B97F4A7C15u;
    bits = (bits ^ (bits >> 30)) * 0xBF58476D1CE4E5B9u;
    bits = (bits ^ (bits >> 27)) * 0x94D049BB133111EBu;
    return bits ^ (bits >> 31);
  }
  // Less than `limit`.
  uint32_t below(uint32_t limit) { return static_cast<uint32_t>((next() >> 32) * limit >> 32); }

 private:
  uint64_t state_;
};

class data_t {
 public:
  // With `is_random` records are random bytes. Otherwise they have fields of which half can be compressed: id, time,
  // value, count, name and 16 random bytes.
  data_t(uint32_t n_records, bool is_random);

  // The contents that a store has when all updates were made.
  const std::vector<record_t> &records() const { return records_; }
  // Makes updates of random records. Writer `writer` of `n_writers` has its own records, so that the order between
  // writers is of no consequence.
  std::vector<update_t> make_updates(size_t count, unsigned writer, unsigned n_writers);
  std::vector<uint32_t> random_ids(size_t count);

 private:
  record_t make_record(uint32_t id);

  const bool is_random_;
  random_t random_{1};
  uint64_t n_made_ = 0;
  std::vector<record_t> records_;
};

// A checksum of records in their order.
class record_hash_t {
 public:
  void add(const record_t &record) {
    for (const uint64_t word : record.words) hash_ = (hash_ ^ word) * 0x100000001B3u;
    hash_ ^= hash_ >> 32;
  }
  uint64_t value() const { return hash_; }

 private:
  uint64_t hash_ = 0xCBF29CE484222325u;
};

#endif

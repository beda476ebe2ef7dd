// The interface of all contestants, and the records that they store.
#ifndef TSLB_BENCH_DURABLE_CONTESTANT_H
#define TSLB_BENCH_DURABLE_CONTESTANT_H

#include <stdint.h>

#include <memory>
#include <span>
#include <string>
#include <vector>

struct record_t {
  uint64_t words[8];

  bool operator==(const record_t &) const = default;
};

struct update_t {
  uint32_t id;
  record_t record;
};

constexpr unsigned WRITERS_MAX = 2;
// Reads that see one state: those of one read transaction, where a contestant has transactions.
constexpr size_t READS_OF_TRANSACTION = 1000;

// Adds all words of a record, so that a read of a record reads all of it.
inline uint64_t sum_of(const record_t &record) {
  uint64_t sum = 0;
  for (const uint64_t word : record.words) sum += word;
  return sum;
}

// An open store of records with the ids 0, 1, 2 and so on. Functions throw std::runtime_error. The destructor closes
// the store in order.
class contestant_t {
 public:
  virtual ~contestant_t() = default;

  // Appends records, whose first id is the number of records so far. Durable at the return.
  virtual void append(uint32_t first_id, std::span<const record_t> records) = 0;
  // Replaces records, all of them or none. Durable at the return. Each writer has a thread of its own.
  virtual void update(unsigned writer, std::span<const update_t> batch) = 0;
  // Returns the sum of sum_of() over the records with these ids. They exist.
  virtual uint64_t read(std::span<const uint32_t> ids) = 0;
  // Returns a record. It exists.
  virtual record_t get(uint32_t id) = 0;
  // Moves everything from the journal to its place, so that an opening after this has nothing to repeat.
  virtual void flush() = 0;
  // Waits for work in other threads and processes to end.
  virtual void settle() {}
};

struct setup_t {
  std::string folder;  // exists
  uint32_t n_records;  // maximum
};

struct kind_t {
  const char *name;
  std::unique_ptr<contestant_t> (*open)(const setup_t &setup);  // also creates the store in an empty folder
};

// tslb is the first.
std::span<const kind_t> all_kinds();

std::unique_ptr<contestant_t> open_tslb(const setup_t &setup);
std::unique_ptr<contestant_t> open_lmdb(const setup_t &setup);
std::unique_ptr<contestant_t> open_rocksdb(const setup_t &setup);
std::unique_ptr<contestant_t> open_sqlite(const setup_t &setup);

#endif

#include <rocksdb/cache.h>
#include <rocksdb/db.h>
#include <rocksdb/filter_policy.h>
#include <rocksdb/table.h>
#include <rocksdb/write_batch.h>

#include <bit>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "contestant.h"

namespace {

// The whole store fits, so no read decompresses a block.
constexpr size_t CACHE_BYTES = size_t{1} << 30;
constexpr double BITS_OF_FILTER_KEY = 10;

void check(const rocksdb::Status &status) {
  if (!status.ok()) throw std::runtime_error("rocksdb: " + status.ToString());
}

// Keys are in the order of the ids: the first byte is the most significant.
class key_t {
 public:
  explicit key_t(uint32_t id) : bytes_(std::endian::native == std::endian::little ? __builtin_bswap32(id) : id) {}
  rocksdb::Slice slice() const { return {reinterpret_cast<const char *>(&bytes_), sizeof bytes_}; }

 private:
  uint32_t bytes_;
};

rocksdb::Slice slice_of(const record_t &record) {
  return {reinterpret_cast<const char *>(&record), sizeof record};
}

class rocksdb_contestant_t : public contestant_t {
 public:
  explicit rocksdb_contestant_t(const setup_t &setup) {
    rocksdb::BlockBasedTableOptions table;
    table.block_cache = rocksdb::NewLRUCache(CACHE_BYTES);
    table.filter_policy.reset(rocksdb::NewBloomFilterPolicy(BITS_OF_FILTER_KEY));
    rocksdb::Options options;
    options.create_if_missing = true;
    options.table_factory.reset(rocksdb::NewBlockBasedTableFactory(table));
    rocksdb::DB *db = nullptr;
    check(rocksdb::DB::Open(options, setup.folder, &db));
    db_.reset(db);
    durable_.sync = true;
  }
  ~rocksdb_contestant_t() override { db_->Close(); }

  void append(uint32_t first_id, std::span<const record_t> records) override {
    rocksdb::WriteBatch batch;
    for (const record_t &record : records) check(batch.Put(key_t(first_id++).slice(), slice_of(record)));
    check(db_->Write(durable_, &batch));
  }

  void update(unsigned writer, std::span<const update_t> updates) override {
    rocksdb::WriteBatch &batch = batches_[writer];
    batch.Clear();
    for (const update_t &update : updates) check(batch.Put(key_t(update.id).slice(), slice_of(update.record)));
    check(db_->Write(durable_, &batch));
  }

  uint64_t read(std::span<const uint32_t> ids) override {
    uint64_t sum = 0;
    rocksdb::PinnableSlice value;
    for (const uint32_t id : ids) sum += sum_of(find(id, value));
    return sum;
  }

  record_t get(uint32_t id) override {
    rocksdb::PinnableSlice value;
    return find(id, value);
  }

  void flush() override { check(db_->Flush(rocksdb::FlushOptions())); }

  void settle() override {
    while (number_of(rocksdb::DB::Properties::kNumRunningFlushes) != 0 ||
           number_of(rocksdb::DB::Properties::kMemTableFlushPending) != 0 ||
           number_of(rocksdb::DB::Properties::kNumRunningCompactions) != 0 ||
           number_of(rocksdb::DB::Properties::kCompactionPending) != 0)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }

 private:
  record_t find(uint32_t id, rocksdb::PinnableSlice &value) {
    value.Reset();
    check(db_->Get(rocksdb::ReadOptions(), db_->DefaultColumnFamily(), key_t(id).slice(), &value));
    record_t record;
    if (value.size() != sizeof record) throw std::runtime_error("rocksdb: a record of another size");
    std::memcpy(&record, value.data(), sizeof record);
    return record;
  }

  uint64_t number_of(const std::string &property) {
    uint64_t number = 0;
    if (!db_->GetIntProperty(property, &number)) throw std::runtime_error("rocksdb: no property " + property);
    return number;
  }

  std::unique_ptr<rocksdb::DB> db_;
  rocksdb::WriteOptions durable_;
  rocksdb::WriteBatch batches_[WRITERS_MAX];
};

}  // namespace

std::unique_ptr<contestant_t> open_rocksdb(const setup_t &setup) {
  return std::make_unique<rocksdb_contestant_t>(setup);
}

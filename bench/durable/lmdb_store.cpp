#include <lmdb.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "contestant.h"

namespace {

constexpr size_t MAP_BYTES_OF_RECORD = 512;
constexpr size_t MIN_MAP_BYTES = size_t{256} << 20;

void check(int rc) {
  if (rc != MDB_SUCCESS) throw std::runtime_error(std::string("lmdb: ") + mdb_strerror(rc));
}

class transaction_t {
 public:
  transaction_t(MDB_env *env, unsigned flags) { check(mdb_txn_begin(env, nullptr, flags, &txn_)); }
  ~transaction_t() {
    if (txn_ != nullptr) mdb_txn_abort(txn_);
  }
  transaction_t(const transaction_t &) = delete;
  transaction_t &operator=(const transaction_t &) = delete;

  MDB_txn *get() { return txn_; }
  void commit() { check(mdb_txn_commit(std::exchange(txn_, nullptr))); }

 private:
  MDB_txn *txn_ = nullptr;
};

class lmdb_contestant_t : public contestant_t {
 public:
  explicit lmdb_contestant_t(const setup_t &setup) {
    check(mdb_env_create(&env_));
    check(mdb_env_set_mapsize(env_, std::max(MIN_MAP_BYTES, MAP_BYTES_OF_RECORD * setup.n_records)));
    check(mdb_env_open(env_, setup.folder.c_str(), ENVIRONMENT_FLAGS, 0600));
    transaction_t txn(env_, 0);
    check(mdb_dbi_open(txn.get(), nullptr, MDB_INTEGERKEY, &dbi_));
    txn.commit();
  }
  ~lmdb_contestant_t() override { mdb_env_close(env_); }
  lmdb_contestant_t(const lmdb_contestant_t &) = delete;
  lmdb_contestant_t &operator=(const lmdb_contestant_t &) = delete;

  void append(uint32_t first_id, std::span<const record_t> records) override {
    transaction_t txn(env_, 0);
    for (const record_t &record : records) put(txn, first_id++, record, MDB_APPEND);
    txn.commit();
  }

  void update(unsigned, std::span<const update_t> batch) override {
    transaction_t txn(env_, 0);
    for (const update_t &update : batch) put(txn, update.id, update.record, 0);
    txn.commit();
  }

  uint64_t read(std::span<const uint32_t> ids) override {
    transaction_t txn(env_, MDB_RDONLY);
    uint64_t sum = 0;
    for (size_t i = 0; i < ids.size(); ++i) {
      if (i != 0 && i % READS_OF_TRANSACTION == 0) {
        mdb_txn_reset(txn.get());
        check(mdb_txn_renew(txn.get()));
      }
      sum += sum_of(find(txn, ids[i]));
    }
    return sum;
  }

  record_t get(uint32_t id) override {
    transaction_t txn(env_, MDB_RDONLY);
    return find(txn, id);
  }

  void flush() override {}  // LMDB has no journal

 private:
  static constexpr unsigned ENVIRONMENT_FLAGS = 0;

  void put(transaction_t &txn, uint32_t id, const record_t &record, unsigned flags) {
    MDB_val key = {sizeof id, &id}, value = {sizeof record, const_cast<record_t *>(&record)};
    check(mdb_put(txn.get(), dbi_, &key, &value, flags));
  }

  record_t find(transaction_t &txn, uint32_t id) {
    MDB_val key = {sizeof id, &id}, value;
    check(mdb_get(txn.get(), dbi_, &key, &value));
    record_t record;
    if (value.mv_size != sizeof record) throw std::runtime_error("lmdb: a record of another size");
    std::memcpy(&record, value.mv_data, sizeof record);
    return record;
  }

  MDB_env *env_ = nullptr;
  MDB_dbi dbi_ = 0;
};

}  // namespace

std::unique_ptr<contestant_t> open_lmdb(const setup_t &setup) {
  return std::make_unique<lmdb_contestant_t>(setup);
}

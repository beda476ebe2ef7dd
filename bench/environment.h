// An LMDB environment in one file on a tmpfs. Any error ends the program.
#ifndef TSLB_BENCH_ENVIRONMENT_H
#define TSLB_BENCH_ENVIRONMENT_H

#include <lmdb.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>

inline void lmdb_check(int rc) {
  if (rc == MDB_SUCCESS) return;
  fprintf(stderr, "LMDB: %s\n", mdb_strerror(rc));
  abort();
}

// Records with the keys 0, 1, 2, ... in the environment's only database.
class environment_t {
 public:
  // No sync, since the library does not sync either before its host requests it. No lock: the benchmarks use one
  // thread.
  environment_t(const std::string &path, size_t map_bytes) {
    lmdb_check(mdb_env_create(&env_));
    lmdb_check(mdb_env_set_mapsize(env_, map_bytes));
    lmdb_check(mdb_env_open(env_, path.c_str(), MDB_NOSUBDIR | MDB_NOSYNC | MDB_WRITEMAP | MDB_NOLOCK, 0600));
    MDB_txn *const txn = begin(0);
    lmdb_check(mdb_dbi_open(txn, nullptr, MDB_INTEGERKEY, &dbi_));
    lmdb_check(mdb_txn_commit(txn));
  }
  ~environment_t() { mdb_env_close(env_); }
  environment_t(const environment_t &) = delete;
  environment_t &operator=(const environment_t &) = delete;

  MDB_env *get() { return env_; }
  // `flags` 0 for writing, MDB_RDONLY for reading.
  MDB_txn *begin(unsigned flags) {
    MDB_txn *txn = nullptr;
    lmdb_check(mdb_txn_begin(env_, nullptr, flags, &txn));
    return txn;
  }
  // Appends after the existing records.
  void append(MDB_txn *txn, uint32_t id, const void *record, size_t bytes) {
    MDB_val key = {sizeof(id), &id}, value = {bytes, const_cast<void *>(record)};
    lmdb_check(mdb_put(txn, dbi_, &key, &value, MDB_APPEND));
  }
  // The same without writing the record's bytes.
  void reserve(MDB_txn *txn, uint32_t id, size_t bytes) {
    MDB_val key = {sizeof(id), &id}, value = {bytes, nullptr};
    lmdb_check(mdb_put(txn, dbi_, &key, &value, MDB_APPEND | MDB_RESERVE));
  }
  void clear() {
    MDB_txn *const txn = begin(0);
    lmdb_check(mdb_drop(txn, dbi_, 0));
    lmdb_check(mdb_txn_commit(txn));
  }
  uint64_t count() {
    MDB_txn *const txn = begin(MDB_RDONLY);
    MDB_stat stat;
    lmdb_check(mdb_stat(txn, dbi_, &stat));
    mdb_txn_abort(txn);
    return stat.ms_entries;
  }
  // Returns the record's bytes, at any address. They belong to the environment and are valid until the transaction
  // ends.
  const void *find(MDB_txn *txn, uint32_t id) {
    MDB_val key = {sizeof(id), &id}, value;
    lmdb_check(mdb_get(txn, dbi_, &key, &value));
    return value.mv_data;
  }

 private:
  MDB_env *env_ = nullptr;
  MDB_dbi dbi_ = 0;
};

#endif

// A durable store with one array of records.
#ifndef TSLB_BENCH_DURABLE_TSLB_STORE_H
#define TSLB_BENCH_DURABLE_TSLB_STORE_H

#include <tslb/durable.h>

#include <string>

#include "contestant.h"

class tslb_contestant_t : public contestant_t {
 public:
  // `snapshot_bytes` as in tslb_store_options_t.
  tslb_contestant_t(const std::string &folder, uint64_t snapshot_bytes);
  ~tslb_contestant_t() override;
  tslb_contestant_t(const tslb_contestant_t &) = delete;
  tslb_contestant_t &operator=(const tslb_contestant_t &) = delete;

  void append(uint32_t first_id, std::span<const record_t> records) override;
  void update(unsigned writer, std::span<const update_t> batch) override;
  uint64_t read(std::span<const uint32_t> ids) override;
  record_t get(uint32_t id) override;
  void flush() override;
  void settle() override;

  tslb_store_info_t info();

 private:
  tslb_store_t *store_;
  DynamicArray_t array_;
  const uint64_t snapshot_bytes_;
};

#endif

// Tests of redo records that are applied to a replica step by step, of refused records, and of the check of a whole
// array in memory.
#include <tslb/redo_applier.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <functional>
#include <random>

#include <tslb/array_check.h>
#include "loader_support.h"
#include "redo_recorder.h"

constexpr uint32_t kMaxSlots = 4000;
constexpr const char *kName = "metrics";

// An array that is logged, and a replica to which its records are applied.
class pair_t {
 public:
  pair_t(uint8_t kind, const std::function<DynArrHandle_t *()> &create)
      : kind_(kind), replica_(create()), log_(), source_(create()) {
    follow();
  }

  DynArrHandle_t *source() const { return source_.get(); }
  DynArrHandle_t *replica() const { return replica_.get(); }

  void follow() {
    const uint64_t counted = g_mem_st.total_mused;
    for (const redo_record_t &record : log_.take()) {
      const void *const bytes = record.data_ptr != nullptr ? record.bytes.data() : nullptr;
      const redo_args_t args = {record.txn_id,
                                static_cast<char>(record.rec_type),
                                record.ctx_name.data(),
                                record.ctx_name.size(),
                                record.tbl_id,
                                record.data_off,
                                record.aux_idx,
                                bytes,
                                static_cast<uint32_t>(record.bytes.size())};
      char error[256];
      ASSERT_EQ(redo_apply(replica(), &args, kind_, kMaxSlots, error, sizeof(error)), 0) << error;
      ASSERT_STREQ(error, "");
    }
    ASSERT_EQ(g_mem_st.total_mused, counted) << "applying changed the totals";
  }

  // Replaces the replica by a snapshot.
  void reload() {
    const array_load_options_t options = {kName,
                                          static_cast<int32_t>(source()->tbl_id),
                                          MPOOL_TYPE_DRAM,
                                          kind_,
                                          0,
                                          ARRAY_LOAD_ANY_VERSION,
                                          ARRAY_LOAD_ANY_SIZE};
    replica_ = load(stream_of(source()), options).array;
    ASSERT_NE(replica_, nullptr);
  }

  // Compares both images. `mask` clears the bytes that no record contains.
  void compare(const std::function<void(DynArrHandle_t *, std::string &)> &mask) {
    char error[256];
    ASSERT_EQ(array_check(replica(), kind_, error, sizeof(error)), 0) << error;
    std::string images[2] = {stream_of(source()), stream_of(replica())};
    ASSERT_EQ(images[0].size(), images[1].size());
    for (std::string &image : images) {
      // n_alloc can differ.
      write_at<uint32_t>(image.data(), static_cast<size_t>(tslb_dynmem_get_hdrsz(source())) - 16, 0);
      mask(source(), image);
    }
    const auto [at, ignored] = std::mismatch(images[0].begin(), images[0].end(), images[1].begin());
    ASSERT_EQ(at, images[0].end()) << "byte " << at - images[0].begin();
  }

 private:
  const uint8_t kind_;
  array_t replica_;  // created before the log: records of its creation are not applied to it
  redo_recorder_t log_;
  array_t source_;
};

static size_t payload_at(DynArrHandle_t *array, uint32_t idx) {
  int shift = 0;
  const size_t slot_bytes = tslb_da_get_slotsz(array, &shift);
  return static_cast<size_t>(tslb_dynmem_get_hdrsz(array)) + idx * slot_bytes + static_cast<size_t>(shift);
}

// ---- Slot arrays ---------------------------------------------------------------------------------------------------

// Clears a free slot's gatekeeper word and the back link that it had on the inactive list. Nothing reads them before
// the slot is taken again.
static void mask_free_slots(DynArrHandle_t *array, std::string &image) {
  for (uint32_t idx = 0; idx < tslb_da_get_size(array); ++idx) {
    if (forward_node(tslb_da_get_ptr(array, idx)).status != TSLB_DA_SLOT_FREE) continue;
    const size_t at = payload_at(array, idx);
    write_at<uint32_t>(image.data(), at, 0);
    if ((array->daflag & TSLB_DA_DAFLAG_INLL) != 0)
      write_at<uint32_t>(image.data(), at + tslb_da_get_record_size(array), 0);
  }
}

// Runs one operation on the source, and logs what the library leaves to the host.
static void change_slots(DynArrHandle_t *array, std::mt19937 &random) {
  const uint32_t n_used = tslb_da_get_size(array);
  const uint32_t any = n_used != 0 ? static_cast<uint32_t>(random()) % n_used : 0;
  const uint32_t operation = n_used != 0 ? static_cast<uint32_t>(random()) % 10 : 0;
  if (operation <= 3) {
    uint32_t idx, last_ts;
    uint8_t last_status;
    const bool by_inll = operation == 3;
    void *const slot =
        by_inll ? tslb_da_get_newptr_inll(array, &idx, &last_ts, &last_status) : tslb_da_get_newptr(array, &idx);
    memset(slot, static_cast<int>(random()), tslb_da_get_record_size(array));
    if (by_inll) tslb_redo_log_da_hdr(array, idx, 7, 5);
    tslb_redo_log_da(array, idx, 7, 0);
  } else if (operation <= 5) {
    tslb_da_free_idx(array, any);
  } else if (operation <= 7) {
    if (tslb_da_inactivate_idx(array, any, 1000 + static_cast<time_t>(operation)) == 0)
      tslb_redo_log_da_hdr(array, any, 7, 5);
  } else if (operation == 8) {
    if (tslb_da_activate_idx(array, any) == 0) tslb_redo_log_da_hdr(array, any, 7, 5);
  } else if (forward_node(tslb_da_get_ptr(array, any)).status == TSLB_DA_SLOT_ACTIVE) {
    write_at<uint16_t>(tslb_da_get_ptr(array, any), 5, static_cast<uint16_t>(random()));
    tslb_redo_log_da_field(array, any, 7, 9, 5, 2);
  }
}

TEST(RedoApplier, SlotArraysInLockStep) {
  static const struct {
    const char *fault;
    uint8_t daflag;
    int record_size, n_direct;
    bool reuses;
    uint32_t min_slots;  // reaches level 2 if slots are not reused
  } rows[] = {
      {"slots without a back node", TSLB_DA_DAFLAG_LL, 20, 3, false, 290},
      {"slots at odd addresses, none of them direct", TSLB_DA_DAFLAG_INLL, 13, 0, false, 290},
      {"inactive slots that are taken again", TSLB_DA_DAFLAG_INLL, 32, 40, true, 60},
  };
  lib_config.tslb_mvt_reuse_enabled = 1;
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    pair_t pair(ARRAY_LOAD_ANY, [&row] {
      return tslb_da_init_ll(row.record_size, row.n_direct, MPOOL_TYPE_DRAM, kName, -9, row.daflag);
    });
    tsdb_mem_pressure_config_t policy = {1, {}, {20, 0, 0, 0, 0}, {20, 0, 0, 0, 0}};
    if (row.reuses) tslb_da_register_reuse_policy(pair.source(), &policy);
    std::mt19937 random(20);
    const auto play = [&] {
      for (int step = 0; step < 3000 && !testing::Test::HasFatalFailure(); ++step) {
        change_slots(pair.source(), random);
        pair.follow();
        if (step == 1500) pair.reload();
        if (step % 10 == 0) pair.compare(mask_free_slots);
      }
    };
    stdout_of([&] { stderr_of(play); });  // refusals
    pair.compare(mask_free_slots);
    EXPECT_GT(tslb_da_get_size(pair.source()), row.min_slots);
  }
  lib_config.tslb_mvt_reuse_enabled = 0;
}

// Records of the first bytes of slots that are shorter than a node.
TEST(RedoApplier, ShortSlotsOfAPlainArray) {
  pair_t pair(ARRAY_LOAD_ANY, [] { return tslb_da_init_v5(4, 3, MPOOL_TYPE_DRAM, kName, 3); });
  for (uint32_t i = 0; i < 19; ++i) {
    write_at<uint32_t>(tslb_da_get_ptr(pair.source(), tslb_da_get_newidx(pair.source())), 0, 100 + i);
    tslb_redo_log_da_ex(pair.source(), i, 7, 5, 1);
    pair.follow();
  }
  pair.compare([](DynArrHandle_t *, std::string &) {});
}

// ---- Pools ---------------------------------------------------------------------------------------------------------

// A memory slot that is taken again is cleared without a redo record. The bytes after its chunks are therefore unknown,
// and so are all bytes of a free slot.
static void mask_after_chunks(DynArrHandle_t *pool, std::string &image) {
  const uint32_t mslot_sz = static_cast<DynMemHdr_t *>(tslb_da_get_usrhdr(pool))->mslot_sz;
  for (uint32_t idx = 0; idx < tslb_da_get_size(pool); ++idx) {
    const size_t at = payload_at(pool, idx);
    const uint32_t used = read_at<uint32_t>(image.data(), at);
    const uint32_t kept = used <= mslot_sz ? used : 0;  // the gatekeeper word of a free slot is larger
    memset(image.data() + at + 8 + kept, 0, mslot_sz - kept);
  }
}

// A pool whose host logs its changes: the changed bytes of a chunk, its slot's counters, and the pool's header.
class logged_pool_t {
 public:
  explicit logged_pool_t(dynmem_t *pool)
      : pool_(pool),
        hdr_(static_cast<DynMemHdr_t *>(tslb_da_get_usrhdr(pool))),
        overhead_((hdr_->flag & MPOOL_FLAG_COMPAT) != 0 ? 16 : 0) {}

  void allocate(std::mt19937 &random) {
    const int len = static_cast<int>(random() % 25) * 8 + 8;
    chunk_t chunk;
    chunk.at = static_cast<char *>(tslb_dynmem_get_mchunk(pool_, &chunk.address, len, srcaddr_t{1, 2, 3, {0, 0}}));
    ASSERT_NE(chunk.at, nullptr);
    memset(chunk.at + overhead_, static_cast<int>(random()), static_cast<size_t>(len));
    chunk.slot_idx = static_cast<uint32_t>(hdr_->cur_slot_addr);
    log(chunk, overhead_ + len);
    chunks_.push_back(chunk);
  }

  void remove(std::mt19937 &random) {
    std::swap(chunks_[random() % chunks_.size()], chunks_.back());
    tslb_dynmem_del_mchunk(pool_, chunks_.back().address);
    log(chunks_.back(), 16);
    chunks_.pop_back();
  }

  bool has_compat() const { return overhead_ != 0; }
  size_t n_chunks() const { return chunks_.size(); }

 private:
  struct chunk_t {
    maddr_t address;
    char *at;
    uint32_t slot_idx;
  };

  void log(const chunk_t &chunk, int bytes) {
    const char *const slot = static_cast<const char *>(tslb_da_get_ptr(pool_, chunk.slot_idx));
    tslb_redo_log_da_field(pool_, chunk.slot_idx, 7, 5, static_cast<int>(chunk.at - slot), bytes);
    tslb_redo_log_da_field(pool_, chunk.slot_idx, 7, 5, 0, 8);
    tslb_redo_log_da_hdr(pool_, chunk.slot_idx, 7, 5);
  }

  dynmem_t *const pool_;
  const DynMemHdr_t *const hdr_;
  const int overhead_;
  std::vector<chunk_t> chunks_;
};

TEST(RedoApplier, PoolsInLockStep) {
  static const struct {
    const char *fault;
    char slot_type, compat;
    uint8_t daflag;
    int tbl_id;
  } rows[] = {
      {"big buffers, deleted", 0, MPOOL_FLAG_COMPAT, TSLB_DA_DAFLAG_LL, BBP_TBLID},
      {"bit vectors, deleted", MPOOL_FLAG_BV, MPOOL_FLAG_COMPAT, TSLB_DA_DAFLAG_LL, BVP_TBLID},
      {"bit vectors in slots with both nodes", MPOOL_FLAG_BV, MPOOL_FLAG_COMPAT, TSLB_DA_DAFLAG_INLL, 3},
      {"a pool without nodes", 0, 0, 0, 3},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    pair_t pair(ARRAY_LOAD_POOL, [&row] {
      return tslb_init_dynmem(1000, 2, row.compat, MPOOL_TYPE_DRAM, row.slot_type, kName, row.tbl_id, row.daflag);
    });
    std::mt19937 random(21);
    logged_pool_t pool(pair.source());
    const size_t most_chunks = pool.has_compat() ? 300 : 1500;
    for (int step = 0; step < 2500 && !testing::Test::HasFatalFailure(); ++step) {
      if (pool.n_chunks() < most_chunks && (!pool.has_compat() || pool.n_chunks() < 20 || random() % 5 < 3))
        pool.allocate(random);
      else if (pool.has_compat())
        pool.remove(random);
      pair.follow();
      if (step == 1200) pair.reload();
      if (step % 50 == 0) pair.compare(mask_after_chunks);
    }
    pair.compare(mask_after_chunks);
    EXPECT_GT(tslb_da_get_size(pair.source()), 20u);
  }
}

// In a pool without nodes only the growth record shows that slots exist.
TEST(RedoApplier, GrowthCreatesSlots) {
  pair_t pair(ARRAY_LOAD_POOL, [] { return tslb_init_dynmem(1000, 1, 0, MPOOL_TYPE_DRAM, 0, kName, 3, 0); });
  maddr_t address;
  for (int i = 0; i < 20; ++i) tslb_dynmem_get_mchunk(pair.source(), &address, 1000, srcaddr_t{});
  pair.follow();
  EXPECT_EQ(tslb_da_get_size(pair.replica()), 20u);
  EXPECT_EQ(tslb_da_get_total_size(pair.replica()), tslb_da_get_total_size(pair.source()));
  const DynMemHdr_t *const hdr = static_cast<const DynMemHdr_t *>(tslb_da_get_usrhdr(pair.replica()));
  EXPECT_EQ(hdr->total_msz, 80u + 20 * 1008);
  // The record of a slower thread contains a smaller size.
  const redo_args_t late = {1, TSLB_REDO_GROWTH, kName, strlen(kName), 3, 80 + 19 * 1008, 0xFFFFFFFFu, nullptr, 0};
  char error[256];
  EXPECT_EQ(redo_apply(pair.replica(), &late, ARRAY_LOAD_POOL, 100, error, sizeof(error)), 0) << error;
  EXPECT_EQ(hdr->total_msz, 80u + 20 * 1008) << "the pool was made smaller";
}

// ---- Refusals ------------------------------------------------------------------------------------------------------

struct bad_record_t {
  const char *fault;
  const char *error;
  std::function<void(redo_args_t &, std::string &headers)> spoil;  // of a record of all headers
};

static void expect_refused(DynArrHandle_t *array, uint8_t kind, const std::vector<bad_record_t> &rows) {
  const std::string before = stream_of(array);
  const size_t header_bytes = static_cast<size_t>(tslb_dynmem_get_hdrsz(array));
  for (const bad_record_t &row : rows) {
    SCOPED_TRACE(row.fault);
    std::string headers(before.data(), header_bytes);
    headers.resize(500);  // for rows with longer records
    redo_args_t record = {
        1, 5, kName, strlen(kName), array->tbl_id, 0, 0xFFFFFFFFu, headers.data(), static_cast<uint32_t>(header_bytes)};
    row.spoil(record, headers);
    char error[256];
    EXPECT_EQ(redo_apply(array, &record, kind, 100, error, sizeof(error)), -1);
    EXPECT_THAT(error, testing::HasSubstr(row.error));
    EXPECT_EQ(stream_of(array), before) << "changed by a refused record";
  }
}

static std::function<void(redo_args_t &, std::string &)> word(size_t offset, uint32_t value) {
  return [offset, value](redo_args_t &, std::string &headers) { write_at(headers.data(), offset, value); };
}

TEST(RedoApplier, RefusesRecordsThatDoNotFitTheArray) {
  const array_t array(tslb_da_init_ll(20, 3, MPOOL_TYPE_DRAM, kName, 5, TSLB_DA_DAFLAG_INLL));
  tslb_da_get_range(array.get(), 10);
  const auto at = [](uint64_t off, uint32_t bytes) {
    return [off, bytes](redo_args_t &record, std::string &) { record.data_off = off, record.data_sz = bytes; };
  };
  // Headers take 84 bytes, a slot 36.
  expect_refused(
      array.get(), ARRAY_LOAD_POOL_BY_SIZE,
      {
          {"over a slot's end", "4 bytes at byte 33 of slot 1", at(84 + 36 + 33, 4)},
          {"more than a slot", "37 bytes at byte 0 of slot 0", at(84, 37)},
          {"length that wraps", "of slot 0, but the slot has 36", at(85, 0xFFFFFFFFu)},
          {"over the border of headers and slots", "headers are 84 bytes at 0", at(80, 84)},
          {"headers and a slot", "headers are 84 bytes at 0", at(0, 120)},
          {"part of the headers", "headers are 84 bytes at 0", at(0, 83)},
          {"another part", "headers are 84 bytes at 0", at(8, 60)},
          {"more slots than allowed", "slot 100, but the maximum is 100 slots", at(84 + 36 * 100, 8)},
          {"position at the end of all numbers", "but the maximum is", at(UINT64_MAX - 35, 1)},
          {"no bytes", "no bytes", at(84, 0)},
          {"bytes that are nowhere", "no bytes", [](redo_args_t &record, std::string &) { record.data_ptr = nullptr; }},
          {"another table", "table id 6, but the array has 5",
           [](redo_args_t &record, std::string &) { record.tbl_id = 6; }},
          {"another context", "the context name is not",
           [](redo_args_t &record, std::string &) { record.ctx_name_len = 6; }},
          {"aux_idx that nobody writes", "aux_idx 0 is not supported",
           [](redo_args_t &record, std::string &) { record.aux_idx = 0; }},
          {"growth of an array", "not a pool", [](redo_args_t &record, std::string &) { record.rec_type = 13; }},
          {"another layout", "DynHdr_t", word(0, 3)},
          {"another user header", "DynHdr_t", word(4, 60u << 16 | 8)},
          {"other nodes", "lltype", word(8 + 28, TSLB_DA_DAFLAG_LL)},
          {"other direct area", "n_direct", word(68 + 8, 4)},
          {"other records", "record_size", word(68 + 12, 24)},
          {"ids taken back", "n_used 9, but 10", word(68 + 4, 9)},
          {"more ids than allowed", "slot 100, but the maximum is 100 slots", word(68 + 4, 101)},
      });
  array->mem_type = MPOOL_TYPE_SHM;
  expect_refused(array.get(), ARRAY_LOAD_ANY, {{"block files", "not in process memory", at(84, 8)}});
  array->mem_type = MPOOL_TYPE_DRAM;
}

TEST(RedoApplier, RefusesRecordsThatDoNotFitThePool) {
  const array_t pool(tslb_init_dynmem(1000, 1, MPOOL_FLAG_COMPAT, MPOOL_TYPE_DRAM, MPOOL_FLAG_BV, kName, 5, 0));
  maddr_t address;
  tslb_dynmem_get_mchunk(pool.get(), &address, 800, srcaddr_t{});
  const auto growth = [](uint64_t size, uint32_t bytes) {
    return [size, bytes](redo_args_t &record, std::string &) {
      record.rec_type = 13;
      record.data_off = size;
      record.data_sz = bytes;
    };
  };
  // Headers take 80 bytes, a slot 1008.
  expect_refused(pool.get(), ARRAY_LOAD_POOL,
                 {
                     {"growth with bytes", "growth with 4 bytes", growth(80 + 2016, 4)},
                     {"growth to a negative size", "growth to a size", growth(79, 0)},
                     {"growth above the limit", "growth to a size", growth(80 + 1008 * 101, 0)},
                     {"another kind of pool", "the pool's flag", word(8, MPOOL_FLAG_COMPAT)},
                     {"other memory slots", "mslot_sz", word(8 + 4, 996)},
                 });
}

// ---- The checks ----------------------------------------------------------------------------------------------------

// The loader's tests cover the rules, which are the same. In memory the handle must agree with the headers.
TEST(ArrayCheck, ComparesTheHandleWithTheHeaders) {
  const array_t array(tslb_da_init_ll(20, 3, MPOOL_TYPE_DRAM, kName, 5, TSLB_DA_DAFLAG_INLL));
  char error[256];
  array->daflag = TSLB_DA_DAFLAG_LL;
  EXPECT_EQ(array_check(array.get(), ARRAY_LOAD_ANY, error, sizeof(error)), -1);
  EXPECT_THAT(error, testing::HasSubstr("the handle has 0x01"));
  array->daflag = TSLB_DA_DAFLAG_INLL;
  EXPECT_EQ(array_check(array.get(), ARRAY_LOAD_ANY, error, sizeof(error)), 0) << error;
}

// Creates a pool with slots of `mslot_sz` bytes.
static array_t make_checked_pool(int mslot_sz, char slot_type = 0, uint8_t daflag = TSLB_DA_DAFLAG_LL,
                                 char mem_type = MPOOL_TYPE_DRAM) {
  return array_t(tslb_init_dynmem(mslot_sz, 2, MPOOL_FLAG_COMPAT, mem_type, slot_type, kName, 5, daflag));
}

static maddr_t take_chunk(const array_t &pool, int bytes) {
  maddr_t address;
  char *const chunk = bytes_of(tslb_dynmem_get_mchunk(pool.get(), &address, bytes, srcaddr_t{1, 2, 3, {0, 0}}));
  memset(chunk + 16, 0x5A, static_cast<size_t>(bytes));
  return address;
}

static char *slot_bytes_at(const array_t &pool, uint32_t idx, size_t offset) {
  return bytes_of(tslb_da_get_ptr(pool.get(), idx)) + offset;
}

static std::string fault_of(const array_t &pool) {
  char error[256];
  const int result = pool_check(pool.get(), error, sizeof(error));
  EXPECT_EQ(result, error[0] == '\0' ? 0 : -1);
  return error;
}

// Slot 0: chunks of 40, 24 and 116 bytes with their headers; the second is deleted and 20 bytes are left. Slot 1: one
// chunk of 116 bytes.
TEST(PoolCheck, ReportsInconsistentChunks) {
  const auto make = [] {
    array_t pool = make_checked_pool(200);
    for (const int bytes : {24, 8, 100, 100}) {
      const maddr_t address = take_chunk(pool, bytes);
      if (bytes == 8) tslb_dynmem_del_mchunk(pool.get(), address);
    }
    return pool;
  };
  static const struct {
    const char *fault;
    size_t offset;  // in the record of slot 0, whose first chunk is at 8
    size_t bytes;
    uint32_t value;
    const char *error;
  } rows[] = {
      {"a sound pool refused", 8, 4, 1, ""},
      {"a length beyond the last chunk", 8 + 40 + 14, 2, 141,
       "byte 196: the chunk at byte 40 of slot 0 has 157 bytes, but the slot's chunks end at byte 180"},
      {"a length that ends within a header", 8 + 64 + 14, 2, 92,
       "byte 328: the chunk at byte 172 of slot 0 has 16 bytes, but the slot's chunks end at byte 180"},
      {"a chunk that is marked and not counted", 8 + 12, 1, 1,
       "byte 152: bytes_del 24 of slot 0, but its deleted chunks have 64"},
      {"a chunk that is counted and not marked", 8 + 40 + 12, 1, 0,
       "byte 152: bytes_del 24 of slot 0, but its deleted chunks have 0"},
      {"a counter", 4, 4, 25, "byte 152: bytes_del 25 of slot 0, but its deleted chunks have 24"},
      {"what array_check finds", 4, 4, 181, "byte 152: bytes_del 181 of slot 0, but bytes_used is 180"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    const array_t pool = make();
    ASSERT_EQ(fault_of(pool), "");
    memcpy(slot_bytes_at(pool, 0, row.offset), &row.value, row.bytes);
    EXPECT_EQ(fault_of(pool), row.error);
  }
  EXPECT_EQ(fault_of(array_t(tslb_da_init_v5(8, 1, MPOOL_TYPE_DRAM, kName, 5))),
            "byte 4: hdr_size 0, but a pool has 56");
}

TEST(PoolCheck, AcceptsEveryStateOfAPool) {
  const auto expect_sound = [](const char *what, const array_t &pool) { EXPECT_EQ(fault_of(pool), "") << what; };
  for (const uint8_t daflag : {uint8_t{0}, uint8_t{TSLB_DA_DAFLAG_LL}, uint8_t{TSLB_DA_DAFLAG_INLL}}) {
    SCOPED_TRACE(int{daflag});
    const array_t pool = make_checked_pool(200, 0, daflag);
    expect_sound("no slot yet", pool);
    take_chunk(pool, 40);
    const maddr_t empty = take_chunk(pool, 0);
    tslb_dynmem_del_mchunk(pool.get(), empty);
    expect_sound("a deleted chunk of no bytes, which is not counted", pool);
    maddr64_t address;
    tslb_dynmem_get_mchunk64(pool.get(), &address, 30, srcaddr64_t{});
    expect_sound("chunks of both widths", pool);
    const auto take_and_delete = [&pool] {
      for (int i = 0; i < 30; ++i) tslb_dynmem_del_mchunk(pool.get(), take_chunk(pool, 100));
    };
    stdout_of(take_and_delete);  // a pool without lists frees no slot
    expect_sound("slots that were freed and taken again", pool);
  }
  const array_t plain(tslb_init_dynmem(200, 2, 0, MPOOL_TYPE_DRAM, 0, kName, 5, 0));
  maddr_t address;
  memset(tslb_dynmem_get_mchunk(plain.get(), &address, 100, srcaddr_t{}), 0x5A, 100);
  expect_sound("a pool without compaction headers", plain);

  const array_t ring = make_checked_pool(64, MPOOL_FLAG_BV, TSLB_DA_DAFLAG_LL, MPOOL_TYPE_DRAM_TMP);
  stdout_of([&ring] {
    for (const int bytes : {8, 8}) take_chunk(ring, bytes);
    for (int i = 0; i < 253; ++i) take_chunk(ring, 40);
    for (const int bytes : {0, 40}) take_chunk(ring, bytes);
  });
  expect_sound("a ring that has wrapped, with the rest of an old chunk in slot 0", ring);
  stdout_of([&ring] {
    for (int i = 0; i < 700; ++i) take_chunk(ring, 24);
  });
  expect_sound("a ring whose counters exceed its slots", ring);
}

// Headers keep 16 bits of a length.
TEST(PoolCheck, FollowsLongChunks) {
  const array_t pool = make_checked_pool(200000);
  std::vector<maddr_t> chunks;
  for (const int bytes : {100, 65600, 65536 + 20, 500}) chunks.push_back(take_chunk(pool, bytes));
  EXPECT_EQ(fault_of(pool), "");
  tslb_dynmem_del_mchunk(pool.get(), chunks[1]);
  EXPECT_EQ(fault_of(pool), "");
  write_at<uint16_t>(slot_bytes_at(pool, 0, 8 + 116 + 14), 0, 66);
  EXPECT_NE(fault_of(pool), "") << "lengths that do not lead to the end were accepted";
}

TEST(PoolCheck, AcceptsStatesThatAKilledProcessLeaves) {
  for (const uint32_t missing : {48u, 50u}) {
    SCOPED_TRACE(missing);
    const array_t pool = make_checked_pool(200);
    take_chunk(pool, 24);
    static_cast<DynMemHdr_t *>(tslb_da_get_usrhdr(pool.get()))->cur_slot_addr += uint64_t{missing} << 32;
    EXPECT_EQ(fault_of(pool), "") << "reserved bytes that were neither counted nor written";
    take_chunk(pool, 60);
    char *const gap = slot_bytes_at(pool, 0, 8 + 40);
    memset(gap, 0x77, missing);
    EXPECT_EQ(fault_of(pool), "") << "old bytes of a block file with a chunk after them";
    // The missing bytes are counted as dead.
    memset(gap, 0, missing);
    for (const size_t counter : {0, 4}) {
      char *const at = slot_bytes_at(pool, 0, counter);
      write_at(at, 0, read_at<uint32_t>(at, 0) + missing);
    }
    EXPECT_EQ(fault_of(pool), "");
  }
}

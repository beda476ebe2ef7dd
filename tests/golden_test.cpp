// Tests that stored formats do not change. Scripted operations must store, byte for byte, the files in tests/golden,
// and these files must load. An intended change of a format changes these files with scripts/golden.
#include <map>

#include <tslb/block_files.h>
#include "loader_support.h"
#include "redo_recorder.h"

constexpr time_t START = 1700000000;

static std::string hex(std::string_view bytes) {
  std::string text;
  char piece[24];
  for (size_t at = 0; at < bytes.size(); ++at) {
    if (at % 16 == 0) {
      snprintf(piece, sizeof(piece), "%06zx ", at);
      text += piece;
    }
    snprintf(piece, sizeof(piece), " %02x", static_cast<unsigned char>(bytes[at]));
    text += piece;
    if (at % 16 == 15 || at + 1 == bytes.size()) text += "\n";
  }
  return text;
}

// Fills with bytes that depend on their place, so that a record at another place or with an offset differs.
static void fill(void *at, size_t size, int seed) {
  for (size_t i = 0; i < size; ++i) bytes_of(at)[i] = static_cast<char>(static_cast<size_t>(seed) * 16 + i);
}

static std::string block0_variants() {
  static const struct {
    const char *name;
    int usrhdr_sz, record_sz, n_direct;
    uint8_t daflag, rec_version;
  } arrays[] = {
      {"no user header, no lists", 0, 12, 2, 0, 0},
      {"user header, no lists", 20, 12, 2, 0, 1},
      {"no user header, free list", 0, 12, 2, TSLB_DA_DAFLAG_LL, 2},
      {"no user header, both lists", 0, 12, 2, TSLB_DA_DAFLAG_INLL, 3},
      {"user header of an odd size, both lists, both flags", 13, 7, 2, TSLB_DA_DAFLAG_LL | TSLB_DA_DAFLAG_INLL, 255},
      {"no direct area", 0, 12, 0, TSLB_DA_DAFLAG_LL, 0},
  };
  static const struct {
    const char *name;
    int mslot_sz;
    char compat_flag, slot_type;
    uint8_t daflag, is_persist;
    short max_slots;
  } pools[] = {
      {"big-buffer pool", 32, 0, 0, 0, 0, 0},
      {"big-buffer pool, compaction headers, free list, growth logged, limited", 30, MPOOL_FLAG_COMPAT, 0,
       TSLB_DA_DAFLAG_LL, 1, 300},
      {"bit-vector pool, both lists", 32, 0, MPOOL_FLAG_BV, TSLB_DA_DAFLAG_INLL, 0, -1},
  };
  std::string text;
  const auto add = [&](const char *name, const array_t &array) {
    const size_t bytes = static_cast<size_t>(tslb_dynmem_get_hdrsz(array.get())) +
                         size_t{array->n_direct} * tslb_da_get_slotsz(array.get(), nullptr);
    text += std::string("== ") + name + "\n" + hex({bytes_of(array->arr_base), bytes});
  };
  for (const auto &row : arrays) {
    const array_t array(get_default_dyn_array_ex_ex(row.usrhdr_sz, row.record_sz, row.n_direct, MPOOL_TYPE_DRAM, 7,
                                                    "golden", row.daflag, row.rec_version));
    fill(tslb_da_get_usrhdr(array.get()), static_cast<size_t>(row.usrhdr_sz), 10);
    uint32_t idx;
    if (row.n_direct != 0) fill(tslb_da_get_newptr(array.get(), &idx), static_cast<size_t>(row.record_sz), 1);
    add(row.name, array);
  }
  for (const auto &row : pools)
    add(row.name, array_t(tslb_init_dynmem_ex1(row.mslot_sz, 2, row.compat_flag, MPOOL_TYPE_DRAM, row.slot_type,
                                               "golden", 7, row.daflag, 4, row.is_persist, row.max_slots)));
  return text;
}

static array_t plain_array() {
  array_t array(tslb_da_init_v5(4, 2, MPOOL_TYPE_DRAM, "golden", 7));
  for (uint32_t i = 0; i < 2 + 256 + 5; ++i)  // up to level 2
    write_at(tslb_da_get_ptr(array.get(), tslb_da_get_newidx(array.get())), 0, i * 0x01010101u);
  return array;
}

// Free and inactive slots, in an order different from that of their indices.
static array_t list_array(char mem_type, int record_sz, int n_slots, uint8_t daflag) {
  array_t array(tslb_da_init_ver(record_sz, 3, mem_type, "metrics", 12, daflag, 5));
  DynArrHandle_t *const handle = array.get();
  if ((daflag & TSLB_DA_DAFLAG_INLL) != 0) {
    tsdb_mem_pressure_config_t policy = {1, {}, {50, 0, 9, 3600, 1000}, {60, 0, 8, 0, 2000}};
    tslb_da_register_reuse_policy(handle, &policy);
  }
  uint32_t idx;
  for (int i = 0; i < n_slots; ++i, ++now) fill(tslb_da_get_newptr(handle, &idx), static_cast<size_t>(record_sz), i);
  if ((daflag & TSLB_DA_DAFLAG_INLL) != 0) {
    for (const uint32_t parked : {8u, 1u, 6u, 5u}) tslb_da_inactivate_idx(handle, parked, now++);
    tslb_da_activate_idx(handle, 6);
  }
  for (const uint32_t freed : {7u, 2u, 8u, 0u}) tslb_da_free_idx(handle, freed);
  fill(tslb_da_get_newptr(handle, &idx), static_cast<size_t>(record_sz), 77);
  return array;
}

// Chunks of growing length. Each third one and all chunks of slot 1 are deleted. Slot 1 is freed if the pool allows it.
static array_t chunk_pool(char compat_flag, char slot_type, int tbl_id, uint8_t daflag) {
  array_t pool(tslb_init_dynmem_ex(64, 2, compat_flag, MPOOL_TYPE_DRAM, slot_type, "golden", tbl_id, daflag, 5));
  for (int i = 0; i < 12; ++i, ++now) {
    const srcaddr_t source = {9, static_cast<uint32_t>(i), static_cast<short>(-i), {'p', 'q'}};
    maddr_t address;
    const int bytes = 8 + 8 * (i % 3);
    char *const chunk = bytes_of(tslb_dynmem_get_mchunk(pool.get(), &address, bytes, source));
    fill(compat_flag != 0 ? chunk + sizeof(compat_t) : chunk, static_cast<size_t>(bytes), i);
    if (i % 3 == 2 || address.mslot_idx == 1) tslb_dynmem_del_mchunk(pool.get(), address);
  }
  size_t total, used, deleted;
  tslb_dynmem_update_free_list(pool.get(), &total, &used, &deleted);
  return pool;
}

static std::string redo_text(const std::vector<redo_record_t> &records) {
  std::string text;
  for (const redo_record_t &record : records) {
    char line[200];
    snprintf(line, sizeof(line), "transaction %llx type %d name \"%s\" table %d position %llu aux %x bytes %zu\n",
             static_cast<unsigned long long>(record.txn_id), record.rec_type, record.ctx_name.c_str(),
             static_cast<int>(record.tbl_id), static_cast<unsigned long long>(record.data_off), record.aux_idx,
             record.bytes.size());
    text += line + hex(record.bytes);
  }
  return text;
}

static std::string redo_of_a_slot_array() {
  redo_recorder_t log;
  const array_t array = list_array(MPOOL_TYPE_DRAM, 6, 9, TSLB_DA_DAFLAG_INLL);
  fill(tslb_da_get_ptr(array.get(), 4), 6, 44);
  tslb_redo_log_da(array.get(), 4, 1001, 0);
  tslb_redo_log_da_ex(array.get(), 4, 1002, 9, 1);
  tslb_redo_log_da_field(array.get(), 4, 1003, 9, 2, 3);
  tslb_redo_log_da_hdr(array.get(), 4, 1004, 9);
  return redo_text(log.take());
}

static std::string redo_of_a_pool() {
  redo_recorder_t log;
  const array_t pool = chunk_pool(MPOOL_FLAG_COMPAT, 0, BBP_TBLID, TSLB_DA_DAFLAG_LL);
  return redo_text(log.take());
}

using images_t = std::map<std::string, std::string>;  // content by path below tests/golden

static void add_block_files(images_t *images) {
  const base_path_t base;
  array_t array = list_array(MPOOL_TYPE_SHM, 9, 3 + 16 + 2, TSLB_DA_DAFLAG_INLL);
  array.reset();
  for (const auto &file : fs::recursive_directory_iterator(base.path)) {
    if (file.is_regular_file())
      (*images)["block_files" / fs::relative(file.path(), base.path)] = content_of(file.path());
  }
}

static images_t make_images() {
  now = START;
  images_t images;
  images["block0.txt"] = block0_variants();
  images["redo_slot_array.txt"] = redo_of_a_slot_array();
  images["redo_pool.txt"] = redo_of_a_pool();
  images["plain.stream"] = stream_of(plain_array().get());
  images["free_list.stream"] = stream_of(list_array(MPOOL_TYPE_DRAM, 11, 40, TSLB_DA_DAFLAG_LL).get());
  images["both_lists.stream"] = stream_of(list_array(MPOOL_TYPE_DRAM, 9, 40, TSLB_DA_DAFLAG_INLL).get());
  images["bigbuffer_compat.stream"] = stream_of(chunk_pool(MPOOL_FLAG_COMPAT, 0, BBP_TBLID, TSLB_DA_DAFLAG_LL).get());
  images["bitvector_cut.stream"] = cut_stream_of(chunk_pool(0, MPOOL_FLAG_BV, BVP_TBLID, TSLB_DA_DAFLAG_LL).get());
  images["bitvector_cut_both_lists.stream"] =
      cut_stream_of(chunk_pool(0, MPOOL_FLAG_BV, BVP_TBLID, TSLB_DA_DAFLAG_INLL).get());
  add_block_files(&images);
  return images;
}

static void write_images(const images_t &images, const fs::path &dir) {
  for (const auto &[name, content] : images) {
    fs::create_directories((dir / name).parent_path());
    EXPECT_TRUE(std::ofstream(dir / name, std::ios::binary) << content << std::flush) << dir / name;
  }
}

// Compared as text, so that a failure shows the lines that differ.
static void expect_same(const std::string &name, const std::string &made, const std::string &golden) {
  const bool is_text = name.ends_with(".txt");
  EXPECT_EQ(is_text ? made : hex(made), is_text ? golden : hex(golden)) << name;
}

static const fs::path golden_dir = TSLB_GOLDEN_DIR;

TEST(Golden, StoredBytesMatchTheGoldenFiles) {
  const images_t images = make_images();
  if (const char *const dir = getenv("TSLB_REMAKE_GOLDEN"); dir != nullptr) {
    write_images(images, dir);
    GTEST_SKIP() << images.size() << " images written to " << dir << ", nothing compared";
  }
  for (const auto &[name, content] : images) expect_same(name, content, content_of(golden_dir / name));

  for (const auto &file : fs::recursive_directory_iterator(golden_dir)) {
    const std::string name = fs::relative(file.path(), golden_dir);
    EXPECT_TRUE(!file.is_regular_file() || images.count(name) == 1) << name << " is not made by this test";
  }
}

// Streams of an earlier version load, and storing them again gives the same bytes.
TEST(Golden, StreamsLoad) {
  int n_streams = 0;
  for (const auto &file : fs::directory_iterator(golden_dir)) {
    if (file.path().extension() != ".stream") continue;
    SCOPED_TRACE(file.path().filename());
    ++n_streams;
    const bool is_cut = file.path().filename().string().starts_with("bitvector_cut");
    const load_result_t loaded =
        load(content_of(file.path()), {"golden", is_cut ? BVP_TBLID : 7, MPOOL_TYPE_DRAM, ARRAY_LOAD_POOL_BY_SIZE, 0,
                                       ARRAY_LOAD_ANY_VERSION, ARRAY_LOAD_ANY_SIZE});
    ASSERT_NE(loaded.array, nullptr) << loaded.error;
    expect_same(file.path().filename(), cut_stream_of(loaded.array.get()), content_of(file.path()));
  }
  EXPECT_EQ(n_streams, 6);
}

TEST(Golden, BlockFilesLoad) {
  const array_load_options_t options = {
      "metrics", 12, MPOOL_TYPE_DRAM, ARRAY_LOAD_ANY, 0, ARRAY_LOAD_ANY_VERSION, ARRAY_LOAD_ANY_SIZE};
  const load_result_t loaded = loaded_by([&](char *error, size_t size) {
    return array_load_block_files((golden_dir / "block_files").c_str(), &options, error, size);
  });
  ASSERT_NE(loaded.array, nullptr) << loaded.error;
  const fs::path files = golden_dir / "block_files" / "metrics";
  const std::string block0 = content_of(files / "12.0.darr");
  const std::string stored = block0 + content_of(files / "12.1.darr") + content_of(files / "12.2.darr").substr(0, 50);
  expect_same("block_files", stream_of(loaded.array.get()), stored);
}

// Conversions of stored arrays, through the driver and through the tool: every route of both maps against streams that are
// put together here byte by byte, and every refusal with what it must leave alone.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <random>
#include <sstream>

#include "array_support.h"
#include "fault_alloc.h"
#include "recovery_driver.h"
#include "tsdb_recovery_version_compatibility.h"
#include "tslb_rd_api.h"
#include "tslb_settings.h"

namespace fs = std::filesystem;

constexpr time_t NOW = 1700000000;  // what the nodes of this process carry

extern "C" __attribute__((visibility("default"))) time_t time(time_t *at) {
  if (at != nullptr) *at = NOW;
  return NOW;
}

// ---- Routes of the catalogue, as the format has them ---------------------------------------------------------------

using older_t = std::string (*)(const std::string &newer);

template <size_t BYTES>
static std::string first_bytes(const std::string &newer) {
  return newer.substr(0, BYTES);
}

static std::string older_ty_sub(const std::string &newer) {
  std::string older(80, '\0');
  const auto carry = [&](size_t from, size_t to, size_t bytes) { older.replace(to, bytes, newer, from, bytes); };
  carry(0, 0, 10);
  carry(12, 12, 5);
  carry(20, 20, 9);
  for (size_t i = 0; i < 5; ++i) carry(32 + 12 * i, 32 + 8 * i, 8);
  carry(92, 72, 8);
  return older;
}

static std::string older_subject_value(const std::string &newer) {
  const std::string tag = newer.substr(1, strnlen(newer.data() + 1, 63));
  const std::string value = newer.substr(68, strnlen(newer.data() + 68, 255));
  std::string older(392, '\0');
  older[0] = static_cast<char>(tag.size());
  older.replace(1, tag.size(), tag);
  older[65] = static_cast<char>(value.size());
  older.replace(66, value.size(), value);
  older[322] = newer[4164];
  older.replace(328, 64, newer, 4168, 64);
  return older;
}

struct route_t {
  const char *name;
  uint16_t rec_type;
  uint8_t from, to;
  uint8_t daflag;  // where the array has nodes; 0: it must have none
  int newer_bytes, older_bytes;
  older_t older;
};
static const route_t kRoutes[] = {
    {"type", 1, 1, 0, TSLB_DA_DAFLAG_INLL, 100, 80, older_ty_sub},
    {"g_mg", 2, 2, 0, 0, 44, 36, first_bytes<36>},
    {"g_mg", 2, 2, 1, 0, 44, 40, first_bytes<40>},
    {"g_mt", 3, 1, 0, 0, 28, 24, first_bytes<24>},
    {"local_root_subject", 10, 1, 0, TSLB_DA_DAFLAG_INLL, 100, 80, older_ty_sub},
    {"g_dmt_info", 14, 1, 0, 0, 112, 112, first_bytes<112>},
    {"g_dmg", 16, 2, 0, 0, 44, 36, first_bytes<36>},
    {"g_dmg", 16, 2, 1, 0, 44, 40, first_bytes<40>},
    {"dmt_member", 19, 1, 0, 0, 536, 512, first_bytes<512>},
    {"dmt_subject", 20, 1, 0, 0, 4232, 392, older_subject_value},
};

TEST(Convert, RoutesHereAreThoseOfTheMaps) {
  size_t n_routes = 0;
  for (const TSDBVerMap_t &row : g_old_vermap)
    for (const TSDBVerCB_t &way : row.cb) n_routes += way.downgrade_cb != nullptr ? 1 : 0;
  EXPECT_EQ(std::size(kRoutes), n_routes) << "a route is not covered by these tests";
}

// ---- Arrays to store -----------------------------------------------------------------------------------------------

static std::mt19937 dice(20270131);

static std::string random_bytes(int count) {
  std::string bytes(static_cast<size_t>(count), '\0');
  for (char &byte : bytes) byte = static_cast<char>(dice());
  return bytes;
}

struct stored_t {
  std::string stream;
  std::vector<std::string> records;
  uint32_t n_free = 0, n_inactive = 0, n_other = 0;
};

static std::string content_of(int fd) {
  std::string content(static_cast<size_t>(lseek(fd, 0, SEEK_END)), '\0');
  EXPECT_EQ(pread(fd, content.data(), content.size(), 0), static_cast<ssize_t>(content.size()));
  return content;
}

static std::string stream_of(DynArrHandle_t *array) {
  const int fd = memfd_create("stream", MFD_CLOEXEC);
  size_t total = 0;
  EXPECT_EQ(tslb_create_dump_for_dynarr(array, fd, 0, &total), 0);
  const std::string stream = content_of(fd);
  close(fd);
  return stream;
}

// Random records in the direct area and behind it; with nodes, slots of every status.
static stored_t store(int record_bytes, uint8_t daflag, uint8_t rec_version, uint32_t n_records, int hdr_size = 0) {
  const array_t array(
      get_default_dyn_array_ex_ex(hdr_size, record_bytes, 3, MPOOL_TYPE_DRAM, 12, nullptr, daflag, rec_version));
  memset(tslb_da_get_usrhdr(array.get()), 0xEE, static_cast<size_t>(hdr_size));
  stored_t stored;
  for (uint32_t i = 0; i < n_records; ++i) {
    uint32_t idx;
    void *record;
    if (daflag != 0 && i == 6)
      get_dyn_arr_new_record_id_ex(array.get(), &record, daflag);  // an id that nobody took: its node is zero
    else
      tslb_da_get_newptr(array.get(), &idx);
  }
  for (uint32_t i = 0; daflag != 0 && i < n_records; ++i) {
    if (i == 6) {
      ++stored.n_other;
    } else if (i % 3 == 1) {
      stored.n_free += tslb_da_free_idx(array.get(), i) == 0 ? 1 : 0;
    } else if ((daflag & TSLB_DA_DAFLAG_INLL) != 0 && i % 4 == 0) {
      stored.n_inactive += tslb_da_inactivate_idx(array.get(), i, NOW - 77) == 0 ? 1 : 0;
    }
  }
  for (uint32_t i = 0; i < n_records; ++i) {
    stored.records.push_back(random_bytes(record_bytes));
    memcpy(tslb_da_get_ptr(array.get(), i), stored.records.back().data(), static_cast<size_t>(record_bytes));
  }
  stored.stream = stream_of(array.get());
  return stored;
}

static std::string words(std::initializer_list<uint32_t> values) {
  std::string bytes;
  for (const uint32_t value : values) bytes.append(reinterpret_cast<const char *>(&value), sizeof(value));
  return bytes;
}

// The older stream, from the format alone: no call of the library.
static std::string expected_stream(const route_t &route, const stored_t &stored, uint8_t daflag) {
  constexpr uint32_t NIL = 0xFFFFFFFF;
  const uint32_t n = static_cast<uint32_t>(stored.records.size());
  std::string stream = {2, static_cast<char>(route.to), 0, 0, 0, 0, static_cast<char>(daflag != 0 ? 60 : 0), 0};
  if (daflag != 0) stream += words({NIL, NIL, NIL, NIL, 0, 0, 0, daflag, 0, 0, 0, 0, 0, 0, 0});
  stream += words({n, n, n, static_cast<uint32_t>(route.older_bytes)});
  for (const std::string &record : stored.records) {
    if (daflag != 0) stream += words({TSLB_DA_SLOT_ACTIVE, NIL});
    stream += route.older(record);
    if (daflag != 0) stream += words({NIL, NOW});
  }
  return stream;
}

static std::vector<uint8_t> flags_of(const route_t &route) {
  return route.daflag != 0 ? std::vector<uint8_t>{0, route.daflag} : std::vector<uint8_t>{0};
}

// ---- Pools ---------------------------------------------------------------------------------------------------------

static array_t chunk_pool(char slot_type, uint8_t daflag, int n_chunks) {
  array_t pool(
      tslb_init_dynmem_ex1(64, 2, MPOOL_FLAG_COMPAT, MPOOL_TYPE_DRAM, slot_type, nullptr, BBP_TBLID, daflag, 7, 0, 0));
  for (int i = 0; i < n_chunks; ++i) {
    maddr_t address;
    const srcaddr_t source = {1, static_cast<uint32_t>(i), 3, {4, 5}};
    char *const chunk = bytes_of(tslb_dynmem_get_mchunk(pool.get(), &address, 8, source));
    memset(chunk + 16, i + 1, 8);
    if (i % 5 < 2) tslb_dynmem_del_mchunk(pool.get(), address);
  }
  return pool;
}
constexpr char BIG_BUFFER = 1;

// ---- The driver ----------------------------------------------------------------------------------------------------

struct converted_t {
  recovery_result_t result;
  recovery_counts_t counts;
  std::string error, output;
};

static converted_t convert(const std::string &stream, const recovery_conversion_t &conversion) {
  const int in = memfd_create("in", MFD_CLOEXEC), out = memfd_create("out", MFD_CLOEXEC);
  EXPECT_EQ(pwrite(in, stream.data(), stream.size(), 0), static_cast<ssize_t>(stream.size()));
  converted_t converted = {};
  char error[256] = "untouched";
  converted.counts.n_records = 99;
  converted.result = recovery_convert_stream(in, out, &conversion, &converted.counts, error, sizeof(error));
  converted.error = error;
  converted.output = content_of(out);
  EXPECT_EQ(content_of(in), stream) << "the input is only read";
  close(in);
  close(out);
  return converted;
}

static void expect_nothing_done(const converted_t &converted) {
  EXPECT_EQ(converted.output, "") << "a refusal writes nothing";
  const recovery_counts_t none = {};
  EXPECT_EQ(memcmp(&converted.counts, &none, sizeof(none)), 0);
  EXPECT_NE(converted.error, "");
  EXPECT_EQ(converted.error.find('\n'), std::string::npos);
}

TEST(ConvertDriver, EveryRouteOfTheCatalogue) {
  for (const route_t &route : kRoutes) {
    for (const uint8_t daflag : flags_of(route)) {
      for (const uint32_t n_records : {0u, 3u, 60u}) {
        SCOPED_TRACE(testing::Message() << route.name << " to " << int{route.to} << ", flags " << int{daflag} << ", "
                                        << n_records << " records");
        const stored_t stored = store(route.newer_bytes, daflag, route.from, n_records);
        const std::string want = expected_stream(route, stored, daflag);
        const converted_t got = convert(stored.stream, {route.rec_type, 0, route.to, 0});
        ASSERT_EQ(got.result, RECOVERY_DONE) << got.error;
        EXPECT_EQ(got.error, "");
        EXPECT_TRUE(got.output == want) << got.output.size() << " bytes, expected " << want.size();
        EXPECT_EQ(got.counts.n_records, n_records);
        EXPECT_EQ(got.counts.n_free, stored.n_free);
        EXPECT_EQ(got.counts.n_inactive, stored.n_inactive);
        EXPECT_EQ(got.counts.n_other, stored.n_other);
        EXPECT_EQ(got.counts.n_active, n_records - stored.n_free - stored.n_inactive - stored.n_other);
        EXPECT_EQ(got.counts.record_bytes_before, static_cast<uint32_t>(route.newer_bytes));
        EXPECT_EQ(got.counts.record_bytes_after, static_cast<uint32_t>(route.older_bytes));
        EXPECT_EQ(got.counts.stream_bytes_after, want.size());
        EXPECT_EQ(got.counts.version_is_asserted, 0);

        const converted_t dry = convert(stored.stream, {route.rec_type, 0, route.to, 1});
        EXPECT_EQ(dry.result, RECOVERY_DONE);
        EXPECT_EQ(dry.output, "") << "a dry run writes";
        EXPECT_EQ(memcmp(&dry.counts, &got.counts, sizeof(dry.counts)), 0) << "a dry run counts something else";
      }
    }
  }
}

TEST(ConvertDriver, OldHeadersKeepEverySlotAndList) {
  static const struct {
    const char *fault;
    int record_bytes, hdr_size;
    uint8_t daflag;
    uint32_t n_records;
  } rows[] = {
      {"a plain array gets nodes", 12, 0, 0, 40},
      {"an empty array is refused", 12, 0, TSLB_DA_DAFLAG_INLL, 0},
      {"nodes are lost with the handle's flags", 12, 0, TSLB_DA_DAFLAG_LL, 3},
      {"data blocks are lost with the handle's flags", 12, 0, TSLB_DA_DAFLAG_INLL, 60},
      {"one of two flags, or a flag that means nothing here, is lost", 9, 0, 0xF3, 40},
      {"a user header shifts lists or slots, or is not carried", 9, 13, TSLB_DA_DAFLAG_INLL, 40},
      {"a user header longer than a pool's is carried in part", 12, 300, TSLB_DA_DAFLAG_LL, 40},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    const stored_t stored = store(row.record_bytes, row.daflag, 0xC3, row.n_records, row.hdr_size);
    const converted_t got = convert(stored.stream, {RECTYPE_LIB, 1, 1, 0});
    ASSERT_EQ(got.result, RECOVERY_DONE) << got.error;
    std::string want = stored.stream;
    want[0] = 1;
    EXPECT_TRUE(got.output == want);
    EXPECT_EQ(got.counts.n_inactive, stored.n_inactive);
    EXPECT_EQ(got.counts.record_bytes_after, static_cast<uint32_t>(row.record_bytes));
    EXPECT_EQ(got.counts.stream_bytes_after, want.size());
    EXPECT_EQ(got.counts.version_is_asserted, 0);
  }
}

// Anything but 0 chooses the library's map.
TEST(ConvertDriver, PoolsComeOutAsTheyAre) {
  static const struct {
    const char *fault;
    uint16_t rec_type;
    uint8_t to;
    char slot_type;
    uint8_t daflag, lib_version_after, asserted;
  } rows[] = {
      {"pool header or cursor lost", RECTYPE_LIB, 1, BIG_BUFFER, TSLB_DA_DAFLAG_LL, 1, 0},
      {"big-buffer pool refused or changed", RECTYPE_LIB_BB, 0, BIG_BUFFER, TSLB_DA_DAFLAG_LL, 2, 1},
      {"pool without lists refused", RECTYPE_LIB_BB, 0, BIG_BUFFER, 0, 2, 1},
      {"bit-vector pool refused or changed", RECTYPE_LIB_BV, 0, MPOOL_FLAG_BV, TSLB_DA_DAFLAG_LL, 2, 1},
  };
  for (const auto &row : rows) {
    for (const int n_chunks : {0, 1, 3, 41}) {
      SCOPED_TRACE(testing::Message() << row.fault << ", " << n_chunks << " chunks");
      const array_t pool = chunk_pool(row.slot_type, row.daflag, n_chunks);
      std::string want = stream_of(pool.get());
      tslb_test_mode = 0;
      lib_config.tslb_enable_file_trimming_flag = 1;
      const std::string cut = stream_of(pool.get());
      std::vector<std::string> outputs;
      for (const std::string &stream : {want, cut}) {
        const converted_t got = convert(stream, {row.rec_type, 2, row.to, 0});
        EXPECT_EQ(got.result, RECOVERY_DONE) << got.error;
        EXPECT_EQ(got.counts.version_is_asserted, row.asserted);
        EXPECT_EQ(got.counts.stream_bytes_after, want.size());
        outputs.push_back(got.output);
      }
      tslb_test_mode = static_cast<char>(0xFF);
      lib_config.tslb_enable_file_trimming_flag = 0;
      want[0] = static_cast<char>(row.lib_version_after);
      EXPECT_TRUE(outputs[0] == want);
      EXPECT_TRUE(outputs[1] == want) << "a cut last slot does not come out whole";
      EXPECT_EQ(cut.size() < want.size(), n_chunks != 0) << "the cut was not tried";
    }
  }
}

// ---- Refusals, for both --------------------------------------------------------------------------------------------

struct refusal_row_t {
  const char *fault;
  uint16_t rec_type;
  uint8_t is_lib, to;
  std::string stream;
  recovery_result_t result;
  const char *line;
};

static std::string edited(std::string stream, size_t at, char byte) {
  stream.at(at) = byte;
  return stream;
}

static std::vector<refusal_row_t> refusal_rows() {
  constexpr uint8_t LL = TSLB_DA_DAFLAG_LL, INLL = TSLB_DA_DAFLAG_INLL;
  const std::string groups = store(44, 0, 2, 20).stream, types = store(100, INLL, 1, 20).stream;
  const std::string big_buffer = stream_of(chunk_pool(BIG_BUFFER, LL, 9).get());
  const std::string bit_vector = stream_of(chunk_pool(MPOOL_FLAG_BV, LL, 9).get());
  const std::string parked = stream_of(chunk_pool(BIG_BUFFER, INLL, 9).get());
  return {
      {"nothing converted", 2, 0, 0, "", RECOVERY_BAD_STREAM, "byte 0: ends 0 bytes into DynHdr_t of 8"},
      {"truncated headers", 2, 0, 0, groups.substr(0, 20), RECOVERY_BAD_STREAM,
       "byte 20: ends 12 bytes into headers of 16"},
      {"truncated records", 2, 0, 0, groups.substr(0, groups.size() - 1), RECOVERY_BAD_STREAM,
       "byte 903: ends 43 bytes into slot 19 of 44 bytes"},
      {"a second stream behind the first", 2, 0, 1, groups + groups, RECOVERY_BAD_STREAM,
       "byte 904: more bytes behind the last slot"},
      {"a list that contradicts itself", 1, 0, 0, edited(types, 8, 18), RECOVERY_BAD_STREAM,
       "byte 2172: status 2 on the free list, slot 18"},
      {"headers of another version", 2, 0, 0, edited(groups, 0, 1), RECOVERY_BAD_STREAM,
       "byte 0: lib_version 1, which is not 2"},
      {"an older version taken for the newer", 2, 0, 0, edited(groups, 1, 1), RECOVERY_DOES_NOT_FIT,
       "rec_version 1, where the version map has 2 for g_mg"},
      {"a version from the future", 2, 0, 1, edited(groups, 1, 3), RECOVERY_DOES_NOT_FIT,
       "rec_version 3, where the version map has 2 for g_mg"},
      {"another type's records", 2, 0, 0, store(28, 0, 2, 5).stream, RECOVERY_DOES_NOT_FIT,
       "record_size 28, where g_mg has 44 in version 2"},
      {"records that are older already", 20, 0, 0, store(392, 0, 1, 5).stream, RECOVERY_DOES_NOT_FIT,
       "record_size 392, where dmt_subject has 4232 in version 1"},
      {"records with something behind them", 2, 0, 0, store(45, 0, 2, 5).stream, RECOVERY_DOES_NOT_FIT,
       "record_size 45, where g_mg has 44 in version 2"},
      {"nodes where the map has none", 2, 0, 0, store(44, LL, 2, 5).stream, RECOVERY_DOES_NOT_FIT,
       "lltype 0x01, where the version map has 0x00 for g_mg"},
      {"other nodes than the map's", 10, 0, 0, store(100, LL, 1, 5).stream, RECOVERY_DOES_NOT_FIT,
       "lltype 0x01, where the version map has 0x02 for local_root_subject"},
      {"more flags than the map's", 1, 0, 0, store(100, LL | INLL, 1, 5).stream, RECOVERY_DOES_NOT_FIT,
       "lltype 0x03, where the version map has 0x02 for type"},
      {"a user header lost", 3, 0, 0, store(28, 0, 1, 5, 8).stream, RECOVERY_DOES_NOT_FIT,
       "a user header of 8 bytes, which the conversion would lose"},
      {"its own version", 2, 0, 2, groups, RECOVERY_NO_WAY, "g_mg is in version 2 already"},
      {"a version without a routine", 2, 0, 3, groups, RECOVERY_NO_WAY, "g_mg has no way from version 2 to 3"},
      {"a version beyond the map's", 2, 0, 4, groups, RECOVERY_NO_WAY, "g_mg has no way from version 2 to 4"},
      {"a type without a way", 5, 0, 1, groups, RECOVERY_NO_WAY, "l_mt has no way from version 0 to 1"},
      {"a type in version 0", 0, 0, 0, groups, RECOVERY_NO_WAY, "subject is in version 0 already"},
      {"a row of the catalogue for one of the library", 2, 1, 1, bit_vector, RECOVERY_NO_WAY,
       "lib_bv is in version 1 already"},
      {"a row of the library that is empty", 4, 1, 1, groups, RECOVERY_NO_WAY, "tot has no way from version 0 to 1"},
      {"headers that are older already", 0, 1, 1, edited(groups, 0, 1), RECOVERY_BAD_STREAM,
       "byte 0: lib_version 1, which is not 2"},
      {"a pool whose header contradicts its slots", 0, 1, 1, edited(big_buffer, 12, 4), RECOVERY_BAD_STREAM,
       "byte 12: mslot_sz 4 does not go with record_size 72"},
      {"a slot array for a pool", 1, 1, 0, groups, RECOVERY_BAD_STREAM, "byte 4: hdr_size 0, a pool has 56"},
      {"a bit-vector pool for a big-buffer pool", 1, 1, 0, bit_vector, RECOVERY_DOES_NOT_FIT,
       "the pool's flag 0x11 is that of a bit-vector pool, which is not lib_bb"},
      {"a big-buffer pool for a bit-vector pool", 2, 1, 0, big_buffer, RECOVERY_DOES_NOT_FIT,
       "the pool's flag 0x01 is that of a big-buffer pool, which is not lib_bv"},
      {"a pool with other nodes than the map's", 1, 1, 0, parked, RECOVERY_DOES_NOT_FIT,
       "lltype 0x02, where the version map has 0x01 for lib_bb"},
  };
}

TEST(ConvertDriver, RefusesWhatDoesNotFit) {
  for (const refusal_row_t &row : refusal_rows()) {
    for (const uint8_t dry_run : {uint8_t{0}, uint8_t{1}}) {
      SCOPED_TRACE(testing::Message() << row.fault << (dry_run != 0 ? ", dry" : ""));
      const converted_t got = convert(row.stream, {row.rec_type, row.is_lib, row.to, dry_run});
      EXPECT_EQ(got.result, row.result);
      EXPECT_EQ(got.error, row.line);
      expect_nothing_done(got);
    }
  }
}

TEST(ConvertDriver, KnowsNothingOutsideTheMaps) {
  static const struct {
    uint16_t rec_type;
    uint8_t is_lib;
    const char *line;
  } rows[] = {
      {33, 0, "record type 33 is not in the catalogue's version map"},
      {65535, 0, "record type 65535 is not in the catalogue's version map"},
      {5, 1, "record type 5 is not in the library's version map"},
      {32, 9, "record type 32 is not in the library's version map"},
  };
  for (const auto &row : rows) {
    const converted_t got = convert(store(44, 0, 2, 5).stream, {row.rec_type, row.is_lib, 0, 0});
    EXPECT_EQ(got.result, RECOVERY_NO_WAY);
    EXPECT_EQ(got.error, row.line);
    expect_nothing_done(got);
    EXPECT_EQ(recovery_type_name(row.rec_type, row.is_lib), nullptr);
    EXPECT_EQ(recovery_record_bytes(row.rec_type, row.is_lib, 0), 0u);
  }
  for (const uint8_t version : {3, 4, 255}) EXPECT_EQ(recovery_record_bytes(RECTYPE_G_MG, 0, version), 0u);
}

TEST(ConvertDriver, LineIsCutToTheBuffer) {
  const recovery_conversion_t own_version = {RECTYPE_G_MG, 0, 2, 0};
  recovery_counts_t counts;
  char error[9] = "........";
  EXPECT_EQ(recovery_convert_stream(-1, -1, &own_version, &counts, error, 5), RECOVERY_NO_WAY);
  EXPECT_EQ(std::string(error, 8), std::string("g_mg\0...", 8));
  EXPECT_EQ(recovery_convert_stream(-1, -1, &own_version, &counts, nullptr, 0), RECOVERY_NO_WAY);
}

TEST(ConvertDriver, RefusedMemoryWritesNothing) {
  const std::string groups = store(44, 0, 2, 60).stream;
  // The last record alone lies in the last block: without its memory a copy has as many ids, and headers that differ in
  // nothing.
  const std::string slots = store(12, 0, 0, 3 + 3 * 16 + 1).stream;
  static const struct {
    const char *fault;
    const std::string *stream;
    recovery_conversion_t conversion;
    std::vector<recovery_result_t> results;
  } rows[] = {
      {"a catalogue array half done", &groups, {RECTYPE_G_MG, 0, 0, 0}, {RECOVERY_BAD_STREAM, RECOVERY_FAILED}},
      {"a copy that ended early taken for a whole one",
       &slots,
       {RECTYPE_LIB, 1, 1, 0},
       {RECOVERY_BAD_STREAM, RECOVERY_FAILED}},
  };
  for (const auto &row : rows) {
    std::map<recovery_result_t, int> seen;
    bool struck = true;
    for (int nth = 1; struck; ++nth) {
      SCOPED_TRACE(testing::Message() << row.fault << ", allocation " << nth);
      const int in = memfd_create("in", MFD_CLOEXEC), out = memfd_create("out", MFD_CLOEXEC);
      ASSERT_EQ(pwrite(in, row.stream->data(), row.stream->size(), 0), static_cast<ssize_t>(row.stream->size()));
      converted_t got = {};
      char error[256];
      stderr_of([&] {
        const fault_t fault(nth);
        got.result = recovery_convert_stream(in, out, &row.conversion, &got.counts, error, sizeof(error));
        struck = fault.struck();
      });
      got.error = error;
      got.output = content_of(out);
      close(in);
      close(out);
      ASSERT_EQ(got.result == RECOVERY_DONE, !struck);
      if (!struck) continue;
      ++seen[got.result];
      expect_nothing_done(got);
    }
    for (const recovery_result_t result : row.results) EXPECT_GT(seen[result], 0) << row.fault;
    EXPECT_EQ(seen.size(), row.results.size()) << row.fault;
  }
}

TEST(ConvertDriver, TellsABrokenOutput) {
  const std::string groups = store(44, 0, 2, 60).stream;
  const int in = memfd_create("in", MFD_CLOEXEC), full = open("/dev/full", O_WRONLY | O_CLOEXEC);
  ASSERT_EQ(pwrite(in, groups.data(), groups.size(), 0), static_cast<ssize_t>(groups.size()));
  const recovery_conversion_t conversion = {RECTYPE_G_MG, 0, 0, 0};
  recovery_counts_t counts;
  char error[256];
  const std::string said = stderr_of([&] {
    EXPECT_EQ(recovery_convert_stream(in, full, &conversion, &counts, error, sizeof(error)), RECOVERY_NOT_WRITTEN);
  });
  EXPECT_STREQ(error, "the older array could not be written to its end");
  EXPECT_EQ(counts.n_records, 0u);
  EXPECT_NE(said.find("No space left"), std::string::npos);
  close(in);
  close(full);
}

// ---- The tool ------------------------------------------------------------------------------------------------------

using arguments_t = std::vector<std::string>;

struct run_t {
  int exit_code;
  std::string out, err;
};

class Tool : public testing::Test {
 protected:
  Tool() {
    std::string name = testing::TempDir() + "convert.XXXXXX";
    dir_ = mkdtemp(name.data());
  }
  ~Tool() override { fs::remove_all(dir_); }

  std::string path(const std::string &name) const { return dir_ / name; }

  void write(const std::string &name, const std::string &content) const {
    std::ofstream(path(name), std::ios::binary) << content;
  }
  std::string read(const std::string &name) const {
    std::ifstream file(path(name), std::ios::binary);
    EXPECT_TRUE(file.good()) << name << " is not there";
    return {std::istreambuf_iterator<char>(file), {}};
  }
  std::vector<std::string> names() const {
    std::vector<std::string> names;
    for (const auto &entry : fs::directory_iterator(dir_)) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }

  // The child's standard streams are memory, but for an output that is named; no file that it writes gets longer than
  // `file_limit`.
  run_t run(const arguments_t &arguments, rlim_t file_limit = RLIM_INFINITY, const char *out_path = nullptr) const {
    const int out = memfd_create("stdout", 0), err = memfd_create("stderr", 0);
    std::vector<char *> words = {const_cast<char *>("tslb-convert")};
    for (const std::string &argument : arguments) words.push_back(const_cast<char *>(argument.c_str()));
    words.push_back(nullptr);
    const pid_t child = fork();
    if (child == 0) {
      const rlimit limit = {file_limit, file_limit};
      signal(SIGXFSZ, SIG_IGN);
      dup2(out_path != nullptr ? open(out_path, O_WRONLY) : out, STDOUT_FILENO);
      dup2(err, STDERR_FILENO);
      if (chdir(dir_.c_str()) == 0 && setrlimit(RLIMIT_FSIZE, &limit) == 0) execv(TSLB_CONVERT, words.data());
      _exit(99);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    const run_t ran = {WIFEXITED(status) ? WEXITSTATUS(status) : -1, content_of(out), content_of(err)};
    close(out);
    close(err);
    return ran;
  }

  void expect_refused(const run_t &ran, const std::string &line) const {
    EXPECT_EQ(ran.exit_code, 1);
    EXPECT_EQ(ran.out, "");
    EXPECT_EQ(ran.err, "tslb-convert: " + line + "\n");
  }

 private:
  fs::path dir_;
};

// Nodes that the tool writes carry its own time.
static std::string without_times(std::string stream, const route_t &route, uint8_t daflag, size_t n_records) {
  const size_t slot_bytes = static_cast<size_t>(route.older_bytes) + 16;
  for (size_t i = 0; daflag != 0 && i < n_records; ++i) stream.replace(84 + (i + 1) * slot_bytes - 4, 4, 4, '\0');
  return stream;
}

TEST_F(Tool, EveryRouteOfTheCatalogue) {
  for (const route_t &route : kRoutes) {
    for (const uint8_t daflag : flags_of(route)) {
      for (const bool by_number : {false, true}) {
        SCOPED_TRACE(testing::Message() << route.name << " to " << int{route.to} << ", flags " << int{daflag});
        const stored_t stored = store(route.newer_bytes, daflag, route.from, 60);
        write("in", stored.stream);
        const std::string type = by_number ? std::to_string(route.rec_type) : route.name;
        const run_t ran = run({"--rec-type", type, "--to", std::to_string(route.to), "in", "out"});
        EXPECT_EQ(ran.exit_code, 0);
        EXPECT_EQ(ran.err, "");
        EXPECT_EQ(names(), (std::vector<std::string>{"in", "out"}));
        EXPECT_EQ(read("in"), stored.stream);
        EXPECT_TRUE(without_times(read("out"), route, daflag, 60) ==
                    without_times(expected_stream(route, stored, daflag), route, daflag, 60));
        fs::remove(path("out"));
      }
    }
  }
}

TEST_F(Tool, EveryRouteOfTheLibrary) {
  const std::string slots = store(12, TSLB_DA_DAFLAG_INLL, 5, 60).stream;
  const std::string big_buffer = stream_of(chunk_pool(BIG_BUFFER, TSLB_DA_DAFLAG_LL, 41).get());
  const std::string bit_vector = stream_of(chunk_pool(MPOOL_FLAG_BV, TSLB_DA_DAFLAG_LL, 41).get());
  const char *const word = "is your word";
  const struct {
    const char *fault;
    arguments_t type;
    const char *to;
    std::string in, out;
    bool says_word;
  } rows[] = {
      {"headers", {"lib"}, "1", slots, edited(slots, 0, 1), false},
      {"number read as a row of the catalogue", {"0", "--lib"}, "1", slots, edited(slots, 0, 1), false},
      {"name refused beside --lib", {"lib_bb", "--lib"}, "0", big_buffer, big_buffer, true},
      {"an asserted version passed off as checked", {"lib_bb"}, "0", big_buffer, big_buffer, true},
      {"bit-vector pool", {"2", "--lib"}, "0", bit_vector, bit_vector, true},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    write("in", row.in);
    arguments_t arguments = {"--to", row.to, "--rec-type"};
    arguments.insert(arguments.end(), row.type.begin(), row.type.end());
    arguments.insert(arguments.end(), {"in", "out"});
    const run_t ran = run(arguments);
    EXPECT_EQ(ran.exit_code, 0) << ran.err;
    EXPECT_TRUE(read("out") == row.out);
    EXPECT_EQ(ran.out.find(word) != std::string::npos, row.says_word) << ran.out;
    fs::remove(path("out"));
  }
}

TEST_F(Tool, RefusesWhatDoesNotFit) {
  for (const refusal_row_t &row : refusal_rows()) {
    for (const bool over_old : {false, true}) {
      SCOPED_TRACE(testing::Message() << row.fault << (over_old ? ", over an old file" : ""));
      write("in", row.stream);
      if (over_old) write("out", "old");
      arguments_t arguments = {"--rec-type", std::to_string(row.rec_type), "--to", std::to_string(row.to), "in", "out"};
      if (row.is_lib != 0) arguments.push_back("--lib");
      if (over_old) arguments.push_back("--force");
      expect_refused(run(arguments), "in: " + std::string(row.line));
      EXPECT_EQ(read("in"), row.stream);
      if (over_old) {
        EXPECT_EQ(read("out"), "old");
      }
      EXPECT_EQ(names().size(), over_old ? 2u : 1u) << "something was left behind";
      fs::remove(path("out"));
    }
  }
}

TEST_F(Tool, LeavesOtherFilesAlone) {
  const std::string groups = store(44, 0, 2, 20).stream;
  write("in", groups);
  write("old", "old");
  fs::create_symlink("in", path("link_to_in"));
  fs::create_symlink("old", path("link_to_old"));
  fs::create_symlink("nowhere", path("dangling"));
  fs::create_hard_link(path("in"), path("second_in"));
  fs::create_directory(path("dir"));
  ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
  const std::vector<std::string> before = names();
  static const struct {
    const char *fault, *in, *out;
    bool force;
    const char *line;
  } rows[] = {
      {"replaced unasked", "in", "old", false, "old: exists; --force replaces it"},
      {"a link followed or replaced unasked", "in", "dangling", false, "dangling: exists; --force replaces it"},
      {"input replaced", "in", "in", true, "in: is the input file"},
      {"input replaced under another spelling", "in", "./dir/../in", true, "./dir/../in: is the input file"},
      {"input replaced through a link", "in", "link_to_in", true, "link_to_in: is the input file"},
      {"input read through a link, replaced", "link_to_in", "in", true, "in: is the input file"},
      {"input's second name replaced", "in", "second_in", true, "second_in: is the input file"},
      {"a link replaced", "in", "link_to_old", true,
       "link_to_old: exists and is not a regular file, which --force leaves alone"},
      {"a directory replaced", "in", "dir", true, "dir: exists and is not a regular file, which --force leaves alone"},
      {"a pipe replaced", "in", "pipe", true, "pipe: exists and is not a regular file, which --force leaves alone"},
      {"output in no directory", "in", "none/out", false,
       "none/out: no file can be made beside it: No such file or directory"},
      {"missing input", "none", "out", false, "none: cannot be read: No such file or directory"},
      {"a directory read", "dir", "out", false, "dir: not a regular file"},
      {"a pipe waited for", "pipe", "out", false, "pipe: not a regular file"},
  };
  for (const auto &row : rows) {
    for (const bool dry : {false, true}) {
      if (dry && strcmp(row.out, "none/out") == 0) continue;  // it makes no file there
      SCOPED_TRACE(testing::Message() << row.fault << (dry ? ", dry" : ""));
      arguments_t arguments = {"--rec-type", "g_mg", "--to", "0", row.in, row.out};
      if (row.force) arguments.push_back("--force");
      if (dry) arguments.push_back("--dry-run");
      expect_refused(run(arguments), row.line);
      EXPECT_EQ(names(), before);
      EXPECT_EQ(read("in"), groups);
      EXPECT_EQ(read("old"), "old");
    }
  }
}

TEST_F(Tool, ForceReplacesAFile) {
  const stored_t groups = store(44, 0, 2, 20);
  write("in", groups.stream);
  write("out", std::string(100000, 'x'));
  ASSERT_EQ(chmod(path("in").c_str(), 0640), 0);
  EXPECT_EQ(run({"--rec-type", "g_mg", "--to", "1", "--force", "in", "out"}).exit_code, 0);
  EXPECT_TRUE(read("out") == expected_stream(kRoutes[2], groups, 0));
  EXPECT_EQ(fs::status(path("out")).permissions(), fs::perms{0640}) << "the mode is the input's";
  EXPECT_EQ(names(), (std::vector<std::string>{"in", "out"}));
}

TEST_F(Tool, AnOutputThatFailsIsNotThere) {
  write("in", store(44, 0, 2, 60).stream);
  static const struct {
    const char *fault;
    rlim_t limit;
    const char *stdout_path;
    const char *last_line;
  } rows[] = {
      {"an output cut short is kept", 2000, nullptr,
       "tslb-convert: out: the older array could not be written to its end\n"},
      {"the report's loss is not told", RLIM_INFINITY, "/dev/full",
       "tslb-convert: stdout: cannot be written: No space left on device\n"},
  };
  for (const auto &row : rows) {
    for (const bool over_old : {false, true}) {
      SCOPED_TRACE(testing::Message() << row.fault << (over_old ? ", over an old file" : ""));
      if (over_old) write("out", "old");
      arguments_t arguments = {"--rec-type", "g_mg", "--to", "0", "in", "out"};
      if (over_old) arguments.push_back("--force");
      const run_t ran = run(arguments, row.limit, row.stdout_path);
      EXPECT_EQ(ran.exit_code, 1);
      const std::string end = row.last_line;
      EXPECT_EQ(ran.err.substr(ran.err.size() - std::min(ran.err.size(), end.size())), end);
      EXPECT_EQ(names().size(), over_old ? 2u : 1u) << "something was left behind";
      if (over_old) {
        EXPECT_EQ(read("out"), "old");
      }
    }
    fs::remove(path("out"));
  }
}

TEST_F(Tool, DryRunCountsAndWritesNothing) {
  const stored_t types = store(100, TSLB_DA_DAFLAG_INLL, 1, 60);
  write("in", types.stream);
  for (const bool with_out : {false, true}) {
    arguments_t arguments = {"--dry-run", "--rec-type", "type", "--to", "0", "in"};
    if (with_out) arguments.push_back("out");
    const run_t ran = run(arguments);
    EXPECT_EQ(ran.exit_code, 0) << ran.err;
    EXPECT_EQ(ran.err, "");
    const uint32_t n_quiet = types.n_free + types.n_inactive + 1;
    EXPECT_GT(types.n_free, 0u);
    EXPECT_GT(types.n_inactive, 0u);
    std::ostringstream want;
    want << "type: version 1 to 0, dry run: nothing is written\n  records       60: " << 60 - n_quiet << " active, "
         << types.n_free << " free, " << types.n_inactive << " inactive, 1 other\n                " << n_quiet
         << " of them become active\n  record bytes  100 before, 80 after\n  file bytes    " << 84 + 60 * 116
         << " before, " << 84 + 60 * 96 << " after\n";
    EXPECT_EQ(ran.out, want.str());
    EXPECT_EQ(names(), std::vector<std::string>{"in"});
    EXPECT_EQ(read("in"), types.stream);
  }
}

TEST_F(Tool, ListHasEveryRow) {
  static const char *const rows[] = {
      "0 subject 0 INLL - -",
      "1 type 1 INLL 0 0:80 1:100",
      "2 g_mg 2 plain 0 1 0:36 1:40 2:44",
      "3 g_mt 1 plain 0 0:24 1:28",
      "4 l_mg 0 plain - -",
      "5 l_mt 0 plain - -",
      "6 msg 0 plain - -",
      "7 ts_data_type 0 plain - -",
      "8 umg 0 plain - -",
      "9 osp 0 plain - -",
      "10 local_root_subject 1 INLL 0 0:80 1:100",
      "11 od 0 plain - -",
      "12 tt 0 plain - -",
      "13 od_idx 0 plain - -",
      "14 g_dmt_info 1 plain 0 0:112 1:112",
      "15 g_vmt 0 plain - -",
      "16 g_dmg 2 plain 0 1 0:36 1:40 2:44",
      "17 g_cacheq 0 plain - -",
      "18 g_rulet 0 plain - -",
      "19 dmt_member 1 plain 0 0:512 1:536",
      "20 dmt_subject 1 plain 0 0:392 1:4232",
      "21 tt_rsb 0 plain - -",
      "22 tag 0 plain - -",
      "23 tag_name 0 plain - -",
      "24 tag_value 0 plain - -",
      "25 utvt_idx 0 plain - -",
      "26 ag 0 plain - -",
      "27 attr 0 plain - -",
      "28 attr_name 0 plain - -",
      "29 attr_utvt_idx 0 plain - -",
      "30 attr_value 0 plain - -",
      "31 mg_tag 0 plain - -",
      "32 mg_tag_mapping 0 plain - -",
      "0 lib 2 plain 1 -",
      "1 lib_bb 1 LL 0 -",
      "2 lib_bv 1 LL 0 -",
      "3 toc 0 plain - -",
      "4 tot 0 plain - -",
  };
  const run_t ran = run({"--list"});
  EXPECT_EQ(ran.exit_code, 0);
  EXPECT_EQ(ran.err, "");
  std::istringstream lines(ran.out);
  std::vector<std::string> got;
  for (std::string line; std::getline(lines, line);) {
    std::istringstream items(line);
    std::string row;
    for (std::string item; items >> item;) row += (row.empty() ? "" : " ") + item;
    if (!row.empty() && isdigit(static_cast<unsigned char>(row[0])) != 0) got.push_back(row);
  }
  EXPECT_EQ(got, std::vector<std::string>(std::begin(rows), std::end(rows)));

  const run_t lost = run({"--list"}, RLIM_INFINITY, "/dev/full");
  EXPECT_EQ(lost.exit_code, 1) << "a list that did not arrive is success";
}

TEST_F(Tool, Usage) {
  write("in", store(44, 0, 2, 5).stream);
  static const struct {
    const char *fault;
    arguments_t arguments;
    const char *line;
  } rows[] = {
      {"nothing asked", {}, "--rec-type is missing"},
      {"no type", {"--to", "0", "in", "out"}, "--rec-type is missing"},
      {"version 0 assumed", {"--rec-type", "g_mg", "in", "out"}, "--to is missing"},
      {"no files", {"--rec-type", "g_mg", "--to", "0"}, "IN is missing"},
      {"no output", {"--rec-type", "g_mg", "--to", "0", "in"}, "OUT is missing"},
      {"a type that is none",
       {"--rec-type", "G_MG", "--to", "0", "in", "out"},
       "--rec-type G_MG: no such record type of the catalogue or the library; --list shows them"},
      {"the start of a number",
       {"--rec-type", "2x", "--to", "0", "in", "out"},
       "--rec-type 2x: no such record type of the catalogue or the library; --list shows them"},
      {"a row behind the catalogue",
       {"--rec-type", "33", "--to", "0", "in", "out"},
       "--rec-type 33: no such record type of the catalogue or the library; --list shows them"},
      {"a number cut to 16 bits",
       {"--rec-type", "65538", "--to", "0", "in", "out"},
       "--rec-type 65538: no such record type of the catalogue or the library; --list shows them"},
      {"a row behind the library",
       {"--lib", "--rec-type", "5", "--to", "0", "in", "out"},
       "--rec-type 5: no such record type of the library; --list shows them"},
      {"a catalogue type of the library",
       {"--lib", "--rec-type", "g_mg", "--to", "0", "in", "out"},
       "--rec-type g_mg: no such record type of the library; --list shows them"},
      {"a version cut to 8 bits",
       {"--rec-type", "g_mg", "--to", "256", "in", "out"},
       "--to: Value 256 not in range 0 to 255"},
      {"a list with a conversion", {"--list", "in"}, "--list goes alone"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    const run_t ran = run(row.arguments);
    EXPECT_EQ(ran.exit_code, 2);
    EXPECT_EQ(ran.out, "");
    EXPECT_EQ(ran.err, std::string("tslb-convert: ") + row.line + "\n");
    EXPECT_EQ(names(), std::vector<std::string>{"in"});
  }
  const run_t help = run({"--help"});
  EXPECT_EQ(help.exit_code, 0);
  EXPECT_NE(help.out.find("Exit: 0 done\n      1 refused"), std::string::npos) << help.out;
  EXPECT_NE(help.out.find("\n      2 usage"), std::string::npos);
}

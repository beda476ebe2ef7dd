// Tests of the conversion driver: every conversion against streams that are assembled byte by byte, and every refusal.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <set>

#include <tslb/tsdb_recovery_version_compatibility.h>
#include "convert_support.h"
#include "fault_alloc.h"

TEST(Convert, RoutesMatchTheVersionMaps) {
  size_t n_routes = 0;
  for (const TSDBVerMap_t &row : g_old_vermap)
    for (const TSDBVerCB_t &conversion : row.cb) n_routes += conversion.downgrade_cb != nullptr ? 1 : 0;
  EXPECT_EQ(std::size(kRoutes), n_routes) << "a route is not covered by these tests";
}

static bool operator==(const recovery_counts_t &a, const recovery_counts_t &b) {
  return memcmp(&a, &b, sizeof(a)) == 0;
}

struct conversion_result_t {
  recovery_result_t result;
  recovery_counts_t counts;
  std::string error, output;
  bool struck;  // the requested failure of an allocation happened
};

// Converts; the nth allocation fails (0: none).
static conversion_result_t convert(const std::string &stream, const recovery_conversion_t &conversion, int nth = 0) {
  const memory_file_t in(stream), out;
  conversion_result_t converted = {};
  char error[256] = "untouched";
  converted.counts.n_records = 99;
  {
    const fault_t fault(nth);
    converted.result = recovery_convert_stream(in.fd(), out.fd(), &conversion, &converted.counts, error, sizeof(error));
    converted.struck = fault.struck();
  }
  converted.error = error;
  converted.output = content_of(out.fd());
  EXPECT_EQ(content_of(in.fd()), stream) << "the input was changed";
  return converted;
}

static void expect_nothing_done(const conversion_result_t &converted) {
  EXPECT_EQ(converted.output, "") << "a refused conversion wrote output";
  EXPECT_EQ(converted.counts, recovery_counts_t{});
  EXPECT_NE(converted.error, "");
  EXPECT_EQ(converted.error.find('\n'), std::string::npos);
}

TEST(ConvertDriver, EveryRouteOfTheCatalogue) {
  for (const route_t &route : kRoutes) {
    for (const uint8_t daflag : std::set<uint8_t>{0, route.daflag}) {
      for (const uint32_t n_records : {0u, 3u, 60u}) {
        SCOPED_TRACE(testing::Message() << route.name << " to " << int{route.to} << ", flags " << int{daflag} << ", "
                                        << n_records << " records");
        const stored_array_t stored = store(route.newer_bytes, daflag, route.from, n_records);
        const std::string want = expected_stream(route, stored, daflag);
        const uint32_t n_active = n_records - stored.n_free - stored.n_inactive - stored.n_other;
        const recovery_counts_t counts = {want.size(),       n_records,         n_active,
                                          stored.n_free,     stored.n_inactive, stored.n_other,
                                          route.newer_bytes, route.older_bytes, 0};
        for (const uint8_t dry_run : {uint8_t{0}, uint8_t{1}}) {
          const conversion_result_t got = convert(stored.stream, {route.rec_type, 0, route.to, dry_run});
          ASSERT_EQ(got.result, RECOVERY_DONE) << got.error;
          EXPECT_EQ(got.error, "");
          EXPECT_TRUE(got.output == (dry_run != 0 ? "" : want)) << got.output.size() << " bytes of " << want.size();
          EXPECT_EQ(got.counts, counts);
        }
      }
    }
  }
}

TEST(ConvertDriver, OldHeadersKeepEverySlotAndList) {
  static const struct {
    const char *fault;
    uint32_t record_bytes;
    int hdr_size;
    uint8_t daflag;
    uint32_t n_records;
  } rows[] = {
      {"a plain array gets nodes", 12, 0, 0, 40},
      {"an empty array is refused", 12, 0, TSLB_DA_DAFLAG_INLL, 0},
      {"data blocks are lost with the handle's flags", 12, 0, TSLB_DA_DAFLAG_INLL, 60},
      {"one of two flags, or an unknown flag, is lost", 9, 0, 0xF3, 40},
      {"a user header shifts lists or slots, or is not copied", 9, 13, TSLB_DA_DAFLAG_INLL, 40},
      {"a user header longer than a pool's is copied in part", 12, 300, TSLB_DA_DAFLAG_LL, 40},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    const stored_array_t stored = store(row.record_bytes, row.daflag, 0xC3, row.n_records, row.hdr_size);
    const conversion_result_t got = convert(stored.stream, {RECTYPE_LIB, 1, 1, 0});
    ASSERT_EQ(got.result, RECOVERY_DONE) << got.error;
    std::string want = stored.stream;
    want[0] = 1;
    EXPECT_TRUE(got.output == want);
    EXPECT_EQ(got.counts.n_inactive, stored.n_inactive);
    EXPECT_EQ(got.counts.record_bytes_after, row.record_bytes);
    EXPECT_EQ(got.counts.stream_bytes_after, want.size());
    EXPECT_EQ(got.counts.version_is_asserted, 0);
  }
}

// Every value except 0 selects the library's map.
TEST(ConvertDriver, PoolsAreCopiedUnchanged) {
  static const struct {
    const char *fault;
    uint16_t rec_type;
    uint8_t to;
    pool_kind_t kind;
    uint8_t lib_version_after, asserted;
  } rows[] = {
      {"pool header or cursor lost", RECTYPE_LIB, 1, BIG_BUFFER, 1, 0},
      {"big-buffer pool refused or changed", RECTYPE_LIB_BB, 0, BIG_BUFFER, 2, 1},
      {"pool without lists refused", RECTYPE_LIB_BB, 0, {"", 64, 2, MPOOL_FLAG_COMPAT, 0, 0}, 2, 1},
      {"bit-vector pool refused or changed", RECTYPE_LIB_BV, 0, BIT_VECTOR, 2, 1},
  };
  for (const auto &row : rows) {
    for (const int n_chunks : {0, 1, 3, 41}) {
      SCOPED_TRACE(testing::Message() << row.fault << ", " << n_chunks << " chunks");
      const array_t pool = chunk_pool(row.kind, n_chunks);
      const std::string want = stream_of(pool.get());
      const std::string cut = cut_stream_of(pool.get());
      const trim_settings_t trimming;
      std::string older = want;
      older[0] = static_cast<char>(row.lib_version_after);
      for (const std::string &stream : {want, cut}) {
        const conversion_result_t got = convert(stream, {row.rec_type, 2, row.to, 0});
        EXPECT_EQ(got.result, RECOVERY_DONE) << got.error;
        EXPECT_EQ(got.counts.version_is_asserted, row.asserted);
        EXPECT_EQ(got.counts.stream_bytes_after, want.size());
        EXPECT_TRUE(got.output == older) << "of " << stream.size() << " bytes, whole: " << want.size();
      }
      EXPECT_EQ(cut.size() < want.size(), n_chunks != 0) << "the cut was not tried";
    }
  }
}

// The older reader has no array_settle, so the conversion accounts for the bytes that a killed process reserved.
TEST(ConvertDriver, PoolsAreSettledInTheOutput) {
  const array_t pool = chunk_pool(BIT_VECTOR, 1);
  DynMemHdr_t *const hdr = static_cast<DynMemHdr_t *>(get_user_hdr(pool.get()));
  MemSlot_t *const slot = static_cast<MemSlot_t *>(tslb_da_get_ptr(pool.get(), 0));
  hdr->cur_slot_addr += uint64_t{8} << 32;
  const std::string stream = stream_of(pool.get());
  slot->bytes_used += 8;
  slot->bytes_del += 8;
  const conversion_result_t got = convert(stream, {RECTYPE_LIB_BV, 2, 0, 0});
  EXPECT_EQ(got.result, RECOVERY_DONE) << got.error;
  EXPECT_TRUE(got.output == stream_of(pool.get()));
}

TEST(ConvertDriver, RefusesArraysThatDoNotMatchTheMap) {
  constexpr uint8_t LL = TSLB_DA_DAFLAG_LL, INLL = TSLB_DA_DAFLAG_INLL;
  const std::string groups = store(44, 0, 2, 20).stream, types = store(100, INLL, 1, 20).stream;
  const std::string big_buffer = stream_of(chunk_pool(BIG_BUFFER, 9).get());
  const std::string bit_vector = stream_of(chunk_pool(BIT_VECTOR, 9).get());
  const std::string parked = stream_of(chunk_pool({"", 64, 2, MPOOL_FLAG_COMPAT, 0, INLL}, 9).get());
  constexpr auto BAD_STREAM = RECOVERY_BAD_STREAM, DOES_NOT_FIT = RECOVERY_DOES_NOT_FIT,
                 UNSUPPORTED = RECOVERY_UNSUPPORTED;
  const auto stored = [](uint32_t record_bytes, uint8_t daflag, uint8_t rec_version, int hdr_size = 0) {
    return store(record_bytes, daflag, rec_version, 5, hdr_size).stream;
  };
  const struct {
    const char *fault;
    uint16_t rec_type;
    uint8_t is_lib, to;
    std::string stream;
    recovery_result_t result;
    const char *line;
  } rows[] = {
      {"truncated records", 2, 0, 0, groups.substr(0, groups.size() - 1), BAD_STREAM,
       "byte 903: ends 43 bytes into slot 19 of 44 bytes"},
      {"an inconsistent list", 1, 0, 0, edited(types, 8, 18), BAD_STREAM,
       "byte 2172: status 2 on the free list, slot 18"},
      {"a status that does not exist made active", 1, 0, 0, edited(types, 84 + 2 * 116, 9), BAD_STREAM,
       "byte 316: status 9 of slot 2 does not exist"},
      {"older", 2, 0, 0, edited(groups, 1, 1), DOES_NOT_FIT, "rec_version 1, but the version map has 2 for g_mg"},
      {"a version that is unknown", 2, 0, 1, edited(groups, 1, 3), DOES_NOT_FIT,
       "rec_version 3, but the version map has 2 for g_mg"},
      {"other records", 2, 0, 0, stored(28, 0, 2), DOES_NOT_FIT, "record_size 28, but g_mg has 44 in version 2"},
      {"older", 20, 0, 0, stored(392, 0, 1), DOES_NOT_FIT, "record_size 392, but dmt_subject has 4232 in version 1"},
      {"longer records", 2, 0, 0, stored(45, 0, 2), DOES_NOT_FIT, "record_size 45, but g_mg has 44 in version 2"},
      {"nodes", 2, 0, 0, stored(44, LL, 2), DOES_NOT_FIT, "lltype 0x01, but the version map has 0x00 for g_mg"},
      {"other nodes", 10, 0, 0, stored(100, LL, 1), DOES_NOT_FIT,
       "lltype 0x01, but the version map has 0x02 for local_root_subject"},
      {"more", 1, 0, 0, stored(100, LL | INLL, 1), DOES_NOT_FIT, "lltype 0x03, but the version map has 0x02 for type"},
      {"a user header lost", 3, 0, 0, stored(28, 0, 1, 8), DOES_NOT_FIT,
       "a user header of 8 bytes, which the conversion would lose"},
      {"its own version", 2, 0, 2, groups, UNSUPPORTED, "g_mg is already in version 2"},
      {"no routine", 2, 0, 3, groups, UNSUPPORTED, "g_mg has no conversion from version 2 to 3"},
      {"no such version", 2, 0, 4, groups, UNSUPPORTED, "g_mg has no conversion from version 2 to 4"},
      {"a type without conversions", 5, 0, 1, groups, UNSUPPORTED, "l_mt has no conversion from version 0 to 1"},
      {"a type in version 0", 0, 0, 0, groups, UNSUPPORTED, "subject is already in version 0"},
      {"a row of the catalogue", 2, 1, 1, bit_vector, UNSUPPORTED, "lib_bv is already in version 1"},
      {"an empty row", 4, 1, 1, groups, UNSUPPORTED, "tot has no conversion from version 0 to 1"},
      {"a pool that contradicts itself", 0, 1, 1, edited(big_buffer, 12, 4), BAD_STREAM,
       "byte 12: mslot_sz 4 does not match record_size 72"},
      {"a slot array for a pool", 1, 1, 0, groups, BAD_STREAM, "byte 4: hdr_size 0, but a pool has 56"},
      {"a bit-vector pool for a big-buffer pool", 1, 1, 0, bit_vector, DOES_NOT_FIT,
       "the pool's flag 0x11 is that of a bit-vector pool, not of lib_bb"},
      {"a big-buffer pool for a bit-vector pool", 2, 1, 0, big_buffer, DOES_NOT_FIT,
       "the pool's flag 0x01 is that of a big-buffer pool, not of lib_bv"},
      {"a pool's nodes", 1, 1, 0, parked, DOES_NOT_FIT, "lltype 0x02, but the version map has 0x01 for lib_bb"},
  };
  for (const auto &row : rows) {
    for (const uint8_t dry_run : {uint8_t{0}, uint8_t{1}}) {
      SCOPED_TRACE(testing::Message() << row.fault << (dry_run != 0 ? ", dry" : ""));
      const conversion_result_t got = convert(row.stream, {row.rec_type, row.is_lib, row.to, dry_run});
      EXPECT_EQ(got.result, row.result);
      EXPECT_EQ(got.error, row.line);
      expect_nothing_done(got);
    }
  }
}

TEST(ConvertDriver, RefusesRowsOutsideTheMaps) {
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
    const conversion_result_t got = convert(store(44, 0, 2, 5).stream, {row.rec_type, row.is_lib, 0, 0});
    EXPECT_EQ(got.result, RECOVERY_UNSUPPORTED);
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
  EXPECT_EQ(recovery_convert_stream(-1, -1, &own_version, &counts, error, 5), RECOVERY_UNSUPPORTED);
  EXPECT_EQ(std::string(error, 8), std::string("g_mg\0...", 8));
  EXPECT_EQ(recovery_convert_stream(-1, -1, &own_version, &counts, nullptr, 0), RECOVERY_UNSUPPORTED);
}

TEST(ConvertDriver, RefusedMemoryWritesNothing) {
  const std::string groups = store(44, 0, 2, 60).stream;
  // Only the last record lies in the last block. If the memory of that block is refused, a copy has as many ids and the
  // same headers.
  const std::string slots = store(12, 0, 0, 3 + 3 * 16 + 1).stream;
  static const struct {
    const char *fault;
    const std::string *stream;
    recovery_conversion_t conversion;
  } rows[] = {
      {"a partly converted catalogue array written", &groups, {RECTYPE_G_MG, 0, 0, 0}},
      {"an incomplete copy treated as complete", &slots, {RECTYPE_LIB, 1, 1, 0}},
  };
  for (const auto &row : rows) {
    std::set<recovery_result_t> seen;
    bool struck = true;
    for (int nth = 1; struck; ++nth) {
      SCOPED_TRACE(testing::Message() << row.fault << ", allocation " << nth);
      conversion_result_t got;
      stderr_of([&] { got = convert(*row.stream, row.conversion, nth); });
      struck = got.struck;
      ASSERT_EQ(got.result == RECOVERY_DONE, !struck);
      if (!struck) continue;
      seen.insert(got.result);
      expect_nothing_done(got);
    }
    EXPECT_EQ(seen, (std::set{RECOVERY_BAD_STREAM, RECOVERY_FAILED})) << row.fault;
  }
}

// Headers can claim a direct area or records that the stream does not contain. The tests' allocator does not count
// bytes, so a limit on the address space shows the requested memory.
TEST(ConvertDriver, ClaimedRecordsAllocateNoMemory) {
#ifndef TSLB_SANITIZES_ADDRESS
  std::string wide = store(44, 0, 2, 3).stream;  // 156 bytes
  write_at(wide.data(), 8 + 8, uint32_t{12'000'000});
  write_at(wide.data(), 8, uint32_t{12'000'000});
  std::string long_one = wide;
  write_at(long_one.data(), 8 + 4, uint32_t{12'000'000});
  const pid_t child = fork();
  if (child == 0) {
    const rlimit limit = {rlim_t{256} << 20, rlim_t{256} << 20};
    if (setrlimit(RLIMIT_AS, &limit) != 0) _exit(9);
    const conversion_result_t older = convert(wide, {RECTYPE_LIB, 1, 1, 0});
    std::string want = wide;
    want[0] = 1;
    if (older.result != RECOVERY_DONE || older.output != want) _exit(1);
    if (convert(wide, {RECTYPE_G_MG, 0, 0, 0}).result != RECOVERY_DONE) _exit(2);
    if (convert(long_one, {RECTYPE_G_MG, 0, 0, 0}).error != "byte 156: ends 0 bytes into slot 3 of 44 bytes") _exit(3);
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0) << "exit " << WEXITSTATUS(status);
#endif
}

// The output does not depend on whether the slots lie in one block in memory.
TEST(ConvertDriver, PipesAreConvertedLikeFiles) {
  for (const uint32_t n_records : {0u, 2u, 3u, 60u}) {
    const stored_array_t stored = store(12, TSLB_DA_DAFLAG_INLL, 7, n_records);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(write(ends[1], stored.stream.data(), stored.stream.size()), static_cast<ssize_t>(stored.stream.size()));
    close(ends[1]);
    const memory_file_t out;
    const recovery_conversion_t conversion = {RECTYPE_LIB, 1, 1, 0};
    recovery_counts_t counts;
    char error[256];
    EXPECT_EQ(recovery_convert_stream(ends[0], out.fd(), &conversion, &counts, error, sizeof(error)), RECOVERY_DONE)
        << error;
    close(ends[0]);
    std::string want = stored.stream;
    want[0] = 1;
    EXPECT_TRUE(content_of(out.fd()) == want) << n_records;
  }
}

TEST(ConvertDriver, ReportsAnOutputThatCannotBeWritten) {
  const std::string groups = store(44, 0, 2, 60).stream;
  const memory_file_t in(groups);
  const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
  const recovery_conversion_t conversion = {RECTYPE_G_MG, 0, 0, 0};
  recovery_counts_t counts;
  char error[256];
  const std::string said = stderr_of([&] {
    EXPECT_EQ(recovery_convert_stream(in.fd(), full, &conversion, &counts, error, sizeof(error)), RECOVERY_NOT_WRITTEN);
  });
  EXPECT_STREQ(error, "the converted array could not be written completely");
  EXPECT_EQ(counts.n_records, 0u);
  EXPECT_NE(said.find("No space left"), std::string::npos);
  close(full);
}

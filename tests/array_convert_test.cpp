// Tests of conversions with a host's converter: results against streams that are assembled byte by byte, and refusals.
#include <fcntl.h>

#include <climits>

#include <tslb/array_convert.h>
#include <tslb/block_files.h>
#include "convert_support.h"
#include "fault_alloc.h"

namespace {

constexpr uint32_t OLD_BYTES = 12;

// The new record is the old one, cut or extended by 'n'. Fails at the index that it is given.
struct converter_t {
  uint32_t fails_at = UINT32_MAX;
  uint32_t n_calls = 0;

  static int convert(void *arg, uint8_t from_version, const void *from, uint32_t from_bytes, void *to,
                     uint32_t to_bytes) {
    converter_t *const self = static_cast<converter_t *>(arg);
    EXPECT_EQ(from_version, 7);
    const char *const bytes = static_cast<char *>(to);
    EXPECT_TRUE(std::all_of(bytes, bytes + to_bytes, [](char byte) { return byte == 0; }));
    if (self->n_calls++ == self->fails_at) return -5;
    memset(to, 'n', to_bytes);
    memcpy(to, from, std::min(from_bytes, to_bytes));
    return 0;
  }
};

array_conversion_t conversion_to(uint32_t to_bytes, converter_t *converter) {
  return {"readings", 7, 9, OLD_BYTES, to_bytes, converter_t::convert, converter};
}

// Builds the converted stream from the stored one and the format.
std::string expected(const std::string &stored, uint8_t daflag, int hdr_size, uint32_t to_bytes) {
  const size_t front = daflag != 0 ? 8 : 0, back = (daflag & TSLB_DA_DAFLAG_INLL) != 0 ? 8 : 0;
  const size_t size_at = size_t{8} + static_cast<size_t>(hdr_size) + (daflag != 0 ? 60 : 0) + 12;
  std::string stream = edited(stored.substr(0, size_at), 1, 9) + words({to_bytes});
  const size_t slot_bytes = front + OLD_BYTES + back;
  for (size_t at = size_at + 4; at < stored.size(); at += slot_bytes) {
    uint32_t status = TSLB_DA_SLOT_ACTIVE;
    if (front != 0) memcpy(&status, &stored[at], sizeof status);
    std::string record = stored.substr(at + front, std::min<size_t>(OLD_BYTES, to_bytes));
    if (status == TSLB_DA_SLOT_FREE) record.resize(4);
    record.resize(to_bytes, status == TSLB_DA_SLOT_FREE ? '\0' : 'n');
    stream += stored.substr(at, front) + record + stored.substr(at + front + OLD_BYTES, back);
  }
  return stream;
}

struct converted_t {
  recovery_result_t result;
  std::string error, output;
  recovery_counts_t counts;
};

converted_t convert_stream(const std::string &stream, const array_conversion_t &conversion, int dry_run = 0) {
  const memory_file_t in(stream), out;
  converted_t got = {};
  got.counts.n_records = 99;
  char error[256] = "untouched";
  got.result = array_convert_stream(in.fd(), out.fd(), &conversion, dry_run, &got.counts, error, sizeof(error));
  got.error = error;
  got.output = content_of(out.fd());
  return got;
}

}  // namespace

TEST(ArrayConvert, KeepsSlotsListsAndHeaders) {
  for (const uint8_t daflag : {0, int{TSLB_DA_DAFLAG_LL}, int{TSLB_DA_DAFLAG_INLL}}) {
    for (const int hdr_size : {0, 13}) {
      for (const uint32_t n_records : {0u, 3u, 60u}) {
        for (const uint32_t to_bytes : {5u, 12u, 40u}) {
          SCOPED_TRACE(testing::Message() << "flags " << int{daflag} << ", user header " << hdr_size << ", "
                                          << n_records << " records, to " << to_bytes << " bytes");
          const stored_array_t stored = store(OLD_BYTES, daflag, 7, n_records, hdr_size);
          const std::string want = expected(stored.stream, daflag, hdr_size, to_bytes);
          converter_t converter;
          const array_conversion_t conversion = conversion_to(to_bytes, &converter);
          const converted_t got = convert_stream(stored.stream, conversion);
          ASSERT_EQ(got.result, RECOVERY_DONE) << got.error;
          EXPECT_TRUE(got.output == want);
          EXPECT_EQ(converter.n_calls, n_records - stored.n_free);
          EXPECT_EQ(got.counts.n_inactive, stored.n_inactive);
          EXPECT_EQ(got.counts.stream_bytes_after, want.size());
          EXPECT_EQ(convert_stream(stored.stream, conversion, 1).output, "") << "a dry run wrote output";

          const load_result_t from = load(stored.stream);
          DynamicArray_t to = nullptr;
          ASSERT_EQ(array_convert(from.array.get(), &conversion, MPOOL_TYPE_DRAM, "ctx", 12, &to, nullptr, 0),
                    RECOVERY_DONE);
          EXPECT_TRUE(stream_of(array_t(to).get()) == want);
          EXPECT_TRUE(stream_of(from.array.get()) == stored.stream) << "the source was changed";
        }
      }
    }
  }
}

// A sweep of the library must find the policy where it was stored.
TEST(ArrayConvert, KeepsTheReusePolicy) {
  const array_t from = slot_array(0, OLD_BYTES, 3, TSLB_DA_DAFLAG_INLL, 20);
  static_cast<DynHdr_t *>(from->arr_base)->rec_version = 7;
  tsdb_mem_pressure_config_t policy = {};
  memset(&policy, 3, sizeof(policy));
  tslb_da_register_reuse_policy(from.get(), &policy);
  converter_t converter;
  const array_conversion_t conversion = conversion_to(20, &converter);
  DynamicArray_t to = nullptr;
  ASSERT_EQ(array_convert(from.get(), &conversion, MPOOL_TYPE_DRAM, nullptr, 0, &to, nullptr, 0), RECOVERY_DONE);
  const array_t owner(to);
  EXPECT_EQ(memcmp(tslb_da_get_lli(to), tslb_da_get_lli(from.get()), sizeof(DynArrLLI_t)), 0);
}

TEST(ArrayConvert, Refusals) {
  const std::string slots = store(OLD_BYTES, TSLB_DA_DAFLAG_INLL, 7, 20).stream;
  const struct {
    const char *fault;
    std::string stream;
    uint32_t to_bytes, fails_at;
    recovery_result_t result;
    const char *line;
  } rows[] = {
      {"another version", edited(slots, 1, 6), 20, UINT32_MAX, RECOVERY_DOES_NOT_FIT,
       "rec_version 6, but the conversion is from version 7"},
      {"another size", store(16, 0, 7, 5).stream, 20, UINT32_MAX, RECOVERY_DOES_NOT_FIT,
       "record_size 16, but the conversion is from 12 bytes"},
      {"no room for the gatekeeper word", slots, 3, UINT32_MAX, RECOVERY_DOES_NOT_FIT,
       "the conversion is to 3 bytes, too few for a record"},
      {"records without bytes", store(OLD_BYTES, 0, 7, 5).stream, 0, UINT32_MAX, RECOVERY_DOES_NOT_FIT,
       "the conversion is to 0 bytes, too few for a record"},
      {"a record that cannot be converted, written", slots, 20, 2, RECOVERY_DOES_NOT_FIT,
       "record 3 cannot be converted from version 7 to 9: the converter returned -5"},
      {"a cut stream", slots.substr(0, slots.size() - 1), 20, UINT32_MAX, RECOVERY_BAD_STREAM,
       "byte 643: ends 27 bytes into slot 19 of 28 bytes"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    converter_t converter = {row.fails_at};
    const converted_t got = convert_stream(row.stream, conversion_to(row.to_bytes, &converter));
    EXPECT_EQ(got.result, row.result);
    EXPECT_EQ(got.error, row.line);
    EXPECT_EQ(got.output, "");
    EXPECT_EQ(got.counts.n_records, 0u);
  }
}

TEST(ArrayConvert, BlockFilesAreNotOverwritten) {
  const base_path_t folder;
  const array_t from = slot_array(0, OLD_BYTES, 3, TSLB_DA_DAFLAG_LL, 20);
  static_cast<DynHdr_t *>(from->arr_base)->rec_version = 7;
  converter_t converter;
  const array_conversion_t conversion = conversion_to(20, &converter);
  DynamicArray_t to = nullptr;
  char error[256];
  ASSERT_EQ(array_convert(from.get(), &conversion, MPOOL_TYPE_SHM, "ctx", 5, &to, error, sizeof(error)), RECOVERY_DONE)
      << error;
  const std::string want = stream_of(to);
  destroy_dyn_arr(to);
  EXPECT_EQ(array_convert(from.get(), &conversion, MPOOL_TYPE_SHM, "ctx", 5, &to, error, sizeof(error)),
            RECOVERY_FAILED);
  EXPECT_EQ(to, nullptr);
  EXPECT_STREQ(error, "block files of table 5 exist");
  array_load_options_t options = ANY;
  options.tbl_id = 5;
  const load_result_t stored = loaded_by(
      [&](char *text, size_t size) { return array_load_block_files(folder.path.c_str(), &options, text, size); });
  ASSERT_NE(stored.array, nullptr) << stored.error;
  EXPECT_TRUE(stream_of(stored.array.get()) == want);
}

// First the converter fails, then each allocation. Files of a failed call would load as an array with fewer records.
TEST(ArrayConvert, FailureLeavesNoBlockFiles) {
  const base_path_t folder;
  const std::string name(40, 'c');  // data blocks are in another folder than block 0
  const load_result_t from = load(store(OLD_BYTES, TSLB_DA_DAFLAG_INLL, 7, 60).stream);
  recovery_result_t result = RECOVERY_FAILED;
  for (int nth = 0; result != RECOVERY_DONE; ++nth) {
    converter_t converter = {nth == 0 ? 5u : UINT32_MAX};
    const array_conversion_t conversion = conversion_to(20, &converter);
    DynamicArray_t to = nullptr;
    stderr_of([&] {
      const fault_t fault(nth == 0 ? INT_MAX : nth);
      result = array_convert(from.array.get(), &conversion, MPOOL_TYPE_SHM, name.c_str(), 5, &to, nullptr, 0);
    });
    const array_t owner(to);
    ASSERT_EQ(block_files_exist(folder.path.c_str(), name.c_str(), 5), result == RECOVERY_DONE ? 1 : 0) << nth;
    ASSERT_TRUE(result != RECOVERY_DONE || nth > 3) << "headers, levels and blocks are allocated";
  }
}

// Block 0 has at most INT_MAX bytes, in memory and in what is written. The records stay zero, which takes no memory.
TEST(ArrayConvert, RecordsThatDoNotFitBlock0AnyMore) {
#ifndef TSLB_SANITIZES_ADDRESS
  converter_t unused;
  array_conversion_t conversion = conversion_to(4 << 20, &unused);
  conversion.convert = [](void *, uint8_t, const void *, uint32_t, void *, uint32_t) { return 0; };
  const converted_t many = convert_stream(store(OLD_BYTES, 0, 7, 600).stream, conversion, 1);
  EXPECT_EQ(many.result, RECOVERY_DONE) << many.error;
  EXPECT_EQ(many.counts.stream_bytes_after, 24 + (uint64_t{600 * 4} << 20));

  std::string wide = store(OLD_BYTES, 0, 7, 3).stream;
  write_at(wide.data(), 8 + 0, uint32_t{12'000'000});  // n_alloc
  write_at(wide.data(), 8 + 8, uint32_t{12'000'000});  // n_direct
  conversion.to_bytes = 200;
  const converted_t few = convert_stream(wide, conversion);
  ASSERT_EQ(few.result, RECOVERY_DONE) << few.error;
  const load_result_t loaded = load(few.output);
  ASSERT_NE(loaded.array, nullptr) << loaded.error;
  EXPECT_EQ(tslb_da_get_size(loaded.array.get()), 3u);
#endif
}

TEST(ArrayConvert, RefusedMemoryLeavesNothing) {
  const load_result_t from = load(store(OLD_BYTES, TSLB_DA_DAFLAG_INLL, 7, 60).stream);
  converter_t converter;
  const array_conversion_t conversion = conversion_to(20, &converter);
  bool struck = true;
  int n_failed = 0;
  for (int nth = 1; struck; ++nth) {
    DynamicArray_t to = nullptr;
    recovery_result_t result = RECOVERY_DONE;
    stderr_of([&] {
      const fault_t fault(nth);
      result = array_convert(from.array.get(), &conversion, MPOOL_TYPE_DRAM, "ctx", 12, &to, nullptr, 0);
      struck = fault.struck();
    });
    ASSERT_EQ(result, struck ? RECOVERY_FAILED : RECOVERY_DONE) << "allocation " << nth;
    ASSERT_EQ(to == nullptr, struck);
    n_failed += struck ? 1 : 0;
    if (to != nullptr) destroy_dyn_arr(to);
  }
  EXPECT_GE(n_failed, 3) << "headers, levels and blocks are allocated";
}

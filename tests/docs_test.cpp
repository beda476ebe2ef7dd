// Tests of documents. docs/formats.md must show what the library stores: dumps, tables of offsets, redo records.
// Sources and tests that documents name must exist.
#include <functional>
#include <map>
#include <regex>
#include <sstream>

#include "array_support.h"
#include "document.h"
#include "own_time.h"  // nodes contain it
#include "redo_recorder.h"
#include "stored_image.h"

constexpr time_t START = 1700000000;
static std::string dump_of(std::string_view bytes) {
  std::string text;
  char piece[24];
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (i % 8 == 0) {
      snprintf(piece, sizeof(piece), "\n%04zx ", i);
      text += piece;
    }
    snprintf(piece, sizeof(piece), " %02x", static_cast<unsigned char>(bytes[i]));
    text += piece;
  }
  return text;
}

static void take_reading(DynArrHandle_t *array, float celsius) {
  uint32_t idx;
  write_at(tslb_da_get_newptr(array, &idx), 4, celsius);
  ++now;
}

// Three direct slots and one in a data block: active, inactive, free, active.
static array_t readings() {
  now = START;
  array_t array(tslb_da_init_ver(8, 3, MPOOL_TYPE_DRAM, "metrics", 12, TSLB_DA_DAFLAG_INLL, 1));
  for (const float celsius : {20.0f, 21.5f, 22.0f, 23.5f}) take_reading(array.get(), celsius);
  tslb_da_inactivate_idx(array.get(), 1, START + 100);
  tslb_da_free_idx(array.get(), 2);
  return array;
}

static maddr_t take_chunk(dynmem_t *pool, std::string_view data, srcaddr_t source) {
  maddr_t address;
  char *const chunk = bytes_of(tslb_dynmem_get_mchunk(pool, &address, static_cast<int>(data.size()), source));
  memcpy(chunk + sizeof(compat_t), data.data(), data.size());
  return address;
}

// Two chunks in the current slot, the first of them deleted.
static array_t keys() {
  array_t pool(tslb_init_dynmem_ex1(56, 1, MPOOL_FLAG_COMPAT, MPOOL_TYPE_DRAM, 0, "metrics", BBP_TBLID,
                                    TSLB_DA_DAFLAG_LL, 0, 0, 0));
  now = START;
  const maddr_t first = take_chunk(pool.get(), "host=web", {12, 0, 4, {}});
  take_chunk(pool.get(), "load=1", {12, 1, 4, {}});
  tslb_dynmem_del_mchunk(pool.get(), first);
  return pool;
}

// Returns the addresses of the second chunk of 24 bytes in slot 200 of a big-buffer pool, and in slot 300 of bit-vector
// pools with 32-bit and 64-bit addresses.
static std::string addresses() {
  const array_t small(tslb_init_dynmem(48, 1, 0, MPOOL_TYPE_DRAM, 0, nullptr, 0, 0));
  const array_t large(tslb_init_dynmem(48, 1, 0, MPOOL_TYPE_DRAM, MPOOL_FLAG_BV, nullptr, 0, 0));
  const array_t wide(tslb_init_dynmem(48, 1, 0, MPOOL_TYPE_DRAM, MPOOL_FLAG_BV, nullptr, 0, 0));
  maddr_t bigbuffer, bitvector;
  maddr64_t address64;
  for (int i = 0; i < 2 * 201; ++i) tslb_dynmem_get_mchunk(small.get(), &bigbuffer, 24, {});
  const std::string warning = stderr_of([&] {
    for (int i = 0; i < 2 * 301; ++i) tslb_dynmem_get_mchunk(large.get(), &bitvector, 24, {});
  });
  EXPECT_NE(warning.find("has already used 255 slot index"), std::string::npos) << warning;
  for (int i = 0; i < 2 * 301; ++i) tslb_dynmem_get_mchunk64(wide.get(), &address64, 24, {});
  std::string bytes(sizeof(bigbuffer) + sizeof(bitvector) + sizeof(address64), '\0');
  write_at(bytes.data(), 0, bigbuffer);
  write_at(bytes.data(), sizeof(bigbuffer), bitvector);
  write_at(bytes.data(), sizeof(bigbuffer) + sizeof(bitvector), address64);
  return bytes;
}

TEST(FormatsDocument, DumpsShowTheStoredBytes) {
  const struct {
    const char *name;
    std::string bytes;
  } dumps[] = {
      {"dump readings", stream_of(readings().get())},
      {"dump keys", stream_of(keys().get())},
      {"dump addresses", addresses()},
  };
  for (const auto &dump : dumps) {
    SCOPED_TRACE(dump.name);
    EXPECT_TRUE(bytes_of_dump(block_of(dump.name)) == dump.bytes) << "stored is" << dump_of(dump.bytes);
  }
  // The last ten bytes of the pool's slot hold no chunk.
  const std::string whole = bytes_of_dump(block_of("dump keys"));
  const std::string cut = cut_stream_of(keys().get());
  EXPECT_TRUE(cut == whole.substr(0, whole.size() - 10)) << dump_of(cut);
}

TEST(FormatsDocument, RedoRecordsMatchTheWrittenOnes) {
  now = START;
  redo_recorder_t log;
  std::string list;
  // Adds a line: the label in its own column, then type, offset and size of each record that `work` causes.
  const auto add = [&](const char *label, const std::function<void()> &work) {
    work();
    const std::vector<redo_record_t> records = log.take();
    char piece[64];
    snprintf(piece, sizeof(piece), "%-34s%s", label, records.empty() ? " nothing" : "");
    list += piece;
    for (const redo_record_t &record : records) {
      snprintf(piece, sizeof(piece), " %d:%llu+%zu", record.rec_type, static_cast<unsigned long long>(record.data_off),
               record.bytes.size());
      list += piece;
    }
    list += "\n";
  };

  array_t slots;
  add("create, 5 direct slots",
      [&] { slots.reset(tslb_da_init_ll(8, 5, MPOOL_TYPE_DRAM, "metrics", 12, TSLB_DA_DAFLAG_INLL)); });
  DynArrHandle_t *const array = slots.get();
  uint32_t idx, last_ts;
  uint8_t last_status;
  add("register a reuse policy", [&] {
    tsdb_mem_pressure_config_t policy = {1, {}, {}, {}};
    tslb_da_register_reuse_policy(array, &policy);
  });
  add("take slot 0", [&] { tslb_da_get_newptr(array, &idx); });
  add("take slots 1 and 2 as a range", [&] { tslb_da_get_range(array, 2); });
  add("take slot 3 by get_newptr_inll", [&] { tslb_da_get_newptr_inll(array, &idx, &last_ts, &last_status); });
  add("inactivate slot 0", [&] { tslb_da_inactivate_idx(array, 0, START); });
  add("inactivate slot 1", [&] { tslb_da_inactivate_idx(array, 1, START); });
  add("inactivate slot 2", [&] { tslb_da_inactivate_idx(array, 2, START); });
  add("activate slot 1, between the two", [&] { tslb_da_activate_idx(array, 1); });
  add("free slot 3", [&] { tslb_da_free_idx(array, 3); });
  add("free slot 1, after slot 3", [&] { tslb_da_free_idx(array, 1); });
  add("free slot 0, which is inactive", [&] { tslb_da_free_idx(array, 0); });
  add("log slot 2", [&] { tslb_redo_log_da(array, 2, 1, 0); });
  add("log bytes 4 to 7 of record 2", [&] { tslb_redo_log_da_field(array, 2, 1, 9, 4, 4); });
  add("log the headers", [&] { tslb_redo_log_da_hdr(array, 0, 1, 9); });

  array_t pool;
  add("create a pool, 1 direct slot", [&] {
    pool.reset(
        tslb_init_dynmem_ex1(56, 1, MPOOL_FLAG_COMPAT, MPOOL_TYPE_DRAM, 0, "keys", 13, TSLB_DA_DAFLAG_LL, 0, 1, 0));
  });
  maddr_t first = {};
  add("take a chunk, in slot 0", [&] { first = take_chunk(pool.get(), "host=web", {}); });
  add("take a chunk, in slot 0 still", [&] { take_chunk(pool.get(), "load=1", {}); });
  add("take a chunk, in slot 1", [&] { take_chunk(pool.get(), "load=2", {}); });
  add("delete a chunk of slot 0", [&] { tslb_dynmem_del_mchunk(pool.get(), first); });
  const maddr_t second = {0, 24};
  add("delete the other: slot 0 is free", [&] { tslb_dynmem_del_mchunk(pool.get(), second); });
  EXPECT_EQ(block_of("redo"), list);
}

using numbers_t = std::map<std::string, std::string>;  // the key is "type" or "type, field"

static numbers_t numbers_in(const std::string &text, const char *pattern) {
  numbers_t numbers;
  const std::regex number(pattern);
  for (std::sregex_iterator it(text.begin(), text.end(), number), end; it != end; ++it) numbers[(*it)[1]] = (*it)[2];
  return numbers;
}

// The rows "| offset | size | `field` |" below each heading "### `type`, n bytes". Addresses have fields of bits, and
// no offsets in the headers.
TEST(FormatsDocument, TablesMatchTheHeaders) {
  numbers_t stored, documented;
  for (const char *const header :
       {"utils/dynarr/src/dynamic_array.h", "utils/dynarr/src/tslb_dynarr.h", "utils/dynmem/src/tslb_dynmem.h"})
    stored.merge(numbers_in(content_of(ROOT / header), R"(\nTSLB_STORED_(?:SIZE|AT)\((\w+(?:, \w+)?), (\d+)\))"));
  static const std::regex heading(R"(^### `(\w+)`, (\d+) bytes$)"), row(R"(^\| (\d+) \|(?: (\d+))? \| `(\w+)` \|.*)");
  std::string type;
  size_t end = 0;
  std::istringstream lines(content_of(ROOT / "docs/formats.md") + "\n## End\n");
  for (std::string line; std::getline(lines, line);) {
    std::smatch found;
    if (line.starts_with("##")) {
      EXPECT_TRUE(end == 0 || std::to_string(end) == documented[type]) << type << ": the rows end at " << end;
      type.clear();
      end = 0;
    }
    if (std::regex_match(line, found, heading)) {
      type = found[1];
      documented[type] = found[2];
    } else if (!type.empty() && std::regex_match(line, found, row)) {
      documented[type + ", " + found[3].str()] = found[1];
      EXPECT_EQ(found[1], std::to_string(end)) << type << ": " << line;
      end += found[2].length() != 0 ? std::stoul(found[2]) : 0;
    }
  }
  EXPECT_EQ(documented, stored);
}

// The rows "| `layout` | bytes |" of the catalogue's records: every versioned layout once.
TEST(FormatsDocument, SizesOfRecordsMatchTheHeader) {
  const numbers_t stored =
      numbers_in(content_of(ROOT / "catalog/src/tsdb_recovery_schema.h"), R"(TSLB_STORED_SIZE\((\w+_v\d), (\d+)\))");
  EXPECT_FALSE(stored.empty());
  EXPECT_EQ(numbers_in(content_of(ROOT / "docs/formats.md"), R"(\n\| `(\w+_v\d)` \| (\d+) \|)"), stored);
}

// A source refers to a reason as: docs/performance.md, "Section".
TEST(Documents, SectionsThatSourcesReferToExist) {
  static const std::regex reference(R"re((docs/\w+\.md),(?:\s|//)+"([^"\n]+)")re");
  int n_references = 0;
  for (const char *const folder : {"utils", "catalog", "host", "recovery", "durable", "replica", "metricdb", "tools"})
    for (const auto &file : fs::recursive_directory_iterator(ROOT / folder)) {
      if (file.path().extension() != ".h" && file.path().extension() != ".cpp") continue;
      const std::string text = content_of(file.path());
      for (std::sregex_iterator it(text.begin(), text.end(), reference), end; it != end; ++it) {
        ++n_references;
        EXPECT_NE(content_of(ROOT / (*it)[1].str()).find("\n## " + (*it)[2].str() + "\n"), std::string::npos)
            << file.path() << ": " << it->str();
      }
    }
  EXPECT_GT(n_references, 0) << "no reference was found";
}

TEST(Documents, NamedFilesAndTestsExist) {
  std::string paths, tests;
  for (const char *const folder : {"utils", "catalog", "host", "recovery", "durable", "replica", "metricdb", "tools",
                                   "fuzz", "tests", "docs", "bench"})
    for (const auto &file : fs::recursive_directory_iterator(ROOT / folder)) paths += file.path().string() + "\n";
  for (const auto &file : fs::directory_iterator(ROOT)) paths += file.path().string() + "\n";
  for (const auto &file : fs::recursive_directory_iterator(ROOT / "tests"))
    if (file.path().extension() == ".cpp") tests += content_of(file.path());
  static const std::regex quoted("`([^`\n]+)`"), file(R"(([\w-]+/)*\w+\.(h|cpp|c|md))"),
      test(R"((?:\w+_test\.)?([A-Z]\w+)\.([A-Z]\w+))");
  for (const char *const document : {"docs/durable.md", "docs/formats.md", "docs/hosting.md", "docs/reliability.md",
                                     "docs/scale.md", "CONTRIBUTING.md"}) {
    const std::string text = content_of(ROOT / document);
    int n_names = 0;
    for (std::sregex_iterator it(text.begin(), text.end(), quoted), end; it != end; ++it) {
      const std::string name = (*it)[1];
      const bool is_file = std::regex_match(name, file);
      std::smatch found;
      if (!is_file && !std::regex_match(name, found, test)) continue;
      ++n_names;
      // A file is named by its name or by the end of its path.
      EXPECT_NE(is_file ? paths.find("/" + name + "\n") : tests.find(found.format("($1, $2)")), std::string::npos)
          << document << ": " << name;
    }
    EXPECT_GT(n_names, 0) << document << ": no name was found";
  }
}

// Tests of the inspector on arrays that the library stored: facts, and each inconsistency with its byte.

#include <functional>
#include <nlohmann/json.hpp>

#include <gmock/gmock.h>
#include "inspect_support.h"

using json_t = nlohmann::json;
using namespace nlohmann::literals;
using testing::HasSubstr;

class Inspect : public ToolTest {
 protected:
  Inspect() : ToolTest(TSLB_INSPECT) {}
  ~Inspect() override { tslb_set_base_path(""); }

  // Returns the only array of the output.
  json_t inspect(const std::string &arguments, int exit_code) const {
    const run_t ran = run("--json " + arguments);
    EXPECT_EQ(ran.exit_code, exit_code) << ran.err;
    EXPECT_EQ(ran.err, "");
    const json_t output = json_t::parse(ran.out, nullptr, false);
    EXPECT_EQ(output["arrays"].size(), 1u);
    return output["arrays"][0];
  }

  // Writes files 0 to 2 of the array with two lists.
  void write_block_files(const std::string &ctx_name = "ctx") const {
    tslb_set_base_path(folder_.path.c_str());
    const array_t array = two_lists(MPOOL_TYPE_SHM, ctx_name.c_str());
  }
};

// Returns the faults as text, such as "in: byte 8: ...".
static std::vector<std::string> faults_of(const json_t &array) {
  std::vector<std::string> faults;
  for (const json_t &found : array["findings"])
    if (found["severity"] == "fault")
      faults.push_back(std::string(found["file"]) + ": byte " + found["offset"].dump() + ": " +
                       std::string(found["text"]));
  return faults;
}

static json_t field_of(const json_t &array, const std::string &header, const std::string &name) {
  for (const json_t &candidate : array["headers"])
    for (const json_t &field : candidate["fields"])
      if (candidate["name"] == header && field["name"] == name) return field;
  ADD_FAILURE() << header << " has no " << name;
  return {};
}

static void expect_two_lists(const json_t &array) {
  EXPECT_EQ(array["findings"].size(), 0u) << array["findings"];
  EXPECT_EQ(array["slots"], R"({"active": 15, "free": 3, "inactive": 2, "not_ready": 0, "unset": 0, "other": 0,
                                "not_on_their_list": []})"_json);
  EXPECT_EQ(array["lists"], R"([
    {"name": "free list", "counter": 3, "head": 4, "tail": 9, "length": 3, "last": 9, "complete": true},
    {"name": "inactive list", "counter": 2, "head": 7, "tail": 5, "length": 2, "last": 5, "complete": true}])"_json);
  EXPECT_EQ(field_of(array, "DynArrLLI_t", "n_inact")["value"], 2);
  EXPECT_EQ(field_of(array, "DynArrLLI_t", "n_inact")["offset"], 24);
  EXPECT_EQ(field_of(array, "DynArrHdr_t", "record_size")["value"], 12);
  EXPECT_EQ(field_of(array, "DynHdr_t", "rec_version")["value"], 5);
}

TEST_F(Inspect, SlotArraysOfBothForms) {
  write("in", stream_of(two_lists().get()));
  const json_t stream = inspect("in", 0);
  expect_two_lists(stream);
  EXPECT_EQ(stream["form"], "stream");
  EXPECT_EQ(stream["geometry"]["stored_bytes"], slot(20));
  // The files are one array, whichever of them are named.
  for (const std::string &ctx_name : {std::string("ctx"), std::string(40, 'c')}) {
    write_block_files(ctx_name);
    const json_t blocks = inspect(ctx_name + "/12.0.darr " + ctx_name + "/12.0.darr", 0);
    expect_two_lists(blocks);
    EXPECT_EQ(blocks["files"].size(), 3u);
    EXPECT_EQ(blocks["geometry"]["stored_bytes"], slot(3 + 32));
    expect_two_lists(inspect(ctx_name + "/./12.0.darr", 0));
  }
  EXPECT_EQ(inspect("ctx/12.2.darr ctx/12.1.darr", 0)["name"], "ctx/12.0.darr");
}

#ifdef TSLB_DURABLE_IMAGE
TEST_F(Inspect, DigestsOfCopiesAreEqual) {
  tslb_set_base_path(folder_.path.c_str());
  array_t array = two_lists(MPOOL_TYPE_SHM, "ctx");
  const std::string stream = stream_of(array.get());
  array.reset();
  const auto digest_of = [this](const std::string &file) {
    const run_t ran = run("--digest " + file);
    EXPECT_EQ(ran.exit_code, 0) << ran.err;
    EXPECT_TRUE(ran.out.ends_with(" " + file + "\n")) << ran.out;
    return ran.out.substr(0, ran.out.find(' ', 9 + 12));
  };
  write("in", stream);
  const std::string digest = digest_of("in");
  EXPECT_THAT(digest, HasSubstr(" " + std::to_string(slot(20))));
  EXPECT_EQ(digest_of("ctx/12.1.darr"), digest);
  const struct {
    const char *what;
    size_t at;
    bool differs;
  } rows[] = {
      {"n_alloc", HEADER_BYTES - 16, false},
      {"rec_version", offsetof(DynHdr_t, rec_version), true},
      {"the time of a node", slot(7) + 24, true},
      {"the last byte of a record", slot(19) + 19, true},
  };
  for (const auto &row : rows) {
    std::string changed = stream;
    changed[row.at] = static_cast<char>(changed[row.at] ^ 1);
    write("in", changed);
    EXPECT_EQ(digest_of("in") != digest, row.differs) << row.what;
  }
  write("in", stream.substr(0, slot(20) - 1));
  const run_t refused = run("--digest in ctx/12.0.darr");
  EXPECT_EQ(refused.exit_code, 2);
  EXPECT_THAT(refused.err, HasSubstr("tslb-inspect: in: byte "));
  EXPECT_EQ(refused.out.find(digest), 0u) << "the other array was left out";
}
#endif

TEST_F(Inspect, LevelsBlocksAndTables) {
  const array_t array(tslb_da_init_v5(8, 4, MPOOL_TYPE_DRAM, nullptr, 1));
  for (uint32_t i = 0; i < 4 + 256 + 5 * 16 + 1; ++i) tslb_da_get_newidx(array.get());
  write("in", stream_of(array.get()));
  const json_t geometry = inspect("in", 0)["geometry"];
  EXPECT_EQ(geometry["data_blocks"], 16 + 6);
  EXPECT_EQ(geometry["capacity"], 4u + 286331136u);
  EXPECT_EQ(geometry["table_bytes"], 128 * (1 + 1 + 2)) << "the root table, one of level 1, two of level 2";
  EXPECT_EQ(geometry["levels"].size(), 2u);
  EXPECT_EQ(geometry["levels"][1], R"({"level": 2, "ids": 4096, "first_id": 260, "first_block": 17, "used": 81,
                                      "blocks": 6, "block_bytes": 768, "tables": 2, "table_bytes": 256})"_json);
}

TEST_F(Inspect, PoolsSlotBySlot) {
  const std::string whole = stream_of(chunk_pool().get());
  for (const bool is_cut : {false, true}) {
    SCOPED_TRACE(is_cut);
    const size_t cut_bytes = 8 + 8 + 24;  // node, counters, chunks
    write("in", is_cut ? whole.substr(0, POOL_HEADER_BYTES + 2 * POOL_SLOT_BYTES + cut_bytes) : whole);
    const json_t array = inspect("in", 0);
    EXPECT_EQ(array["pool"], R"({"kind": "big-buffer", "slot_capacity": 64,
                                 "used": 80, "deleted": 32, "tail_lost": 8, "tail_open": 40, "slots": [
      {"state": "free", "used": 0, "deleted": 0, "tail": 0},
      {"state": "filled", "used": 56, "deleted": 32, "tail": 8},
      {"state": "current", "used": 24, "deleted": 0, "tail": 40}]})"_json);
    EXPECT_EQ(field_of(array, "DynMemHdr_t", "cur_slot_addr.byte_off")["value"], 24);
  }
  // Another user header of that size is not examined.
  EXPECT_FALSE(inspect("--kind array in", 1).contains("pool")) << "a cut slot was accepted as a pool's";
}

TEST_F(Inspect, RecordsById) {
  write("in", stream_of(two_lists().get()));
  const json_t record = inspect("--record 6 in", 0)["record"];
  EXPECT_EQ(record["offset"], slot(6));
  EXPECT_EQ(record["hex"].get<std::string>().substr(0, 24), "02000000ffffffff06000000");
  EXPECT_THAT(
      run("--record 6 in").out,
      HasSubstr("  record 6, slot at byte 252 of in\n    status 2 (active), next none\n           260  06 00 00 00"));
  EXPECT_THAT(run("--record 7 in").out, HasSubstr("    status 3 (inactive), next 5\n"));
  EXPECT_THAT(run("--record 5 in").out, HasSubstr("    the last 8 bytes are the back node: prev 7, ts 1000\n"));
  write_block_files();
  EXPECT_EQ(inspect("--record 19 ctx/12.0.darr", 0)["record"]["file"], "ctx/12.2.darr");
  const run_t none = run("--record 20 in");
  EXPECT_EQ(none.exit_code, 2);
  EXPECT_EQ(none.err, "tslb-inspect: in: no record 20, n_used is 20\n");
}

TEST_F(Inspect, UserHeadersAsText) {
  std::string pool = stream_of(chunk_pool().get());
  write_at(pool.data(), sizeof(DynHdr_t) + offsetof(DynMemHdr_t, total_mavail), int64_t{-3864});
  write("pool", pool);
  const array_t array(get_default_dyn_array_ex(2000, 4, 1, MPOOL_TYPE_DRAM, 1, nullptr, 0));
  write("array", stream_of(array.get()));
  EXPECT_THAT(run("pool").out, HasSubstr("  (-3864, negative)\n"));
  EXPECT_THAT(run("array").out, HasSubstr("\n    and 976 more bytes; --json has them all\n"));
}

struct contradiction_t {
  const char *fault;
  std::function<void(std::string *)> damage;
  const char *findings;  // one line each, after "in: byte "
};

template <class Value>
static std::function<void(std::string *)> put(size_t offset, Value value) {
  return [=](std::string *bytes) { write_at(bytes->data(), offset, value); };
}
static std::function<void(std::string *)> cut(size_t bytes) {
  return [=](std::string *stream) { stream->resize(bytes); };
}

class Contradictions : public Inspect {
 protected:
  void expect_told(const std::string &sound, const std::vector<contradiction_t> &rows) const {
    for (const contradiction_t &row : rows) {
      SCOPED_TRACE(row.fault);
      std::string damaged = sound;
      row.damage(&damaged);
      write("in", damaged);
      std::vector<std::string> wanted;
      std::istringstream findings(row.findings);
      for (std::string finding; std::getline(findings, finding);) wanted.push_back("in: byte " + finding);
      EXPECT_EQ(faults_of(inspect("in", 1)), wanted);
      const run_t text = run("in");
      EXPECT_EQ(text.exit_code, 1);
      for (const std::string &finding : wanted) EXPECT_NE(text.out.find("\n  " + finding + "\n"), std::string::npos);
    }
  }
};

TEST_F(Contradictions, OfHeadersAndSizes) {
  const std::string sound = stream_of(two_lists().get());
  const auto with_longer = [](std::string *stream) { *stream += "xyz"; };
  expect_told(sound, {
                         {"half a first header", cut(5), "5: ends 5 bytes into DynHdr_t of 8"},
                         {"another layout", put<uint8_t>(0, 3), "0: lib_version 3, expected 2"},
                         {"a longer stream", with_longer, "644: 3 more bytes after the last slot"},
                         {"a slot that is cut", cut(slot(19) + 9), "625: ends 9 bytes into slot 19 of 20"},
                         {"a list whose rest is cut away", cut(slot(9)),
                          "336: ends 0 bytes into slot 9 of 20\n"
                          "144: the free list continues with slot 9, which is missing"},
                         {"more ids than there can be", put<uint32_t>(72, 0xFFFFFFF0),
                          "72: n_used 4294967280 is more than an array with n_direct 3 can have\n"
                          "644: ends 0 bytes into slot 20 of 4294967280"},
                         {"nodes without a list", put<uint8_t>(36, 4),
                          "36: lltype 0x04 has no list flag, but lli_sz is not 0\n"
                          "324: 320 more bytes after the last slot"},
                     });
}

TEST_F(Contradictions, OfLists) {
  const std::string sound = stream_of(two_lists().get());
  const size_t next = 4, prev = 20;
  expect_told(
      sound,
      {
          {"a head out of the array", put<uint32_t>(8, 20),
           "8: the free list names slot 20 of 20\n"
           "140: slot 2 has the status free, but is not on that list\n"
           "196: slot 4 has the status free, but is not on that list\n"
           "336: slot 9 has the status free, but is not on that list"},
          {"a ring", put<uint32_t>(slot(9) + next, 2), "340: the free list returns to slot 2"},
          {"a list that runs on into the other one", put<uint32_t>(slot(9) + next, 7),
           "280: status 3 on the free list, slot 7\n"
           "224: status 3 on the free list, slot 5\n"
           "32: the free list counts 3 slots, but has 5\n"
           "12: tail 9 of the free list, but its last slot is 5"},
          {"a list that ends early", put<uint32_t>(slot(2) + next, 0xFFFFFFFF),
           "32: the free list counts 3 slots, but has 2\n"
           "12: tail 9 of the free list, but its last slot is 2\n"
           "336: slot 9 has the status free, but is not on that list"},
          {"a counter beyond the array", put<uint32_t>(24, 21), "24: the inactive list counts 21 slots of 20"},
          {"on no list", put<uint32_t>(slot(0), 3), "84: slot 0 has the status inactive, but is not on that list"},
          {"a status that does not exist", put<uint32_t>(slot(0), 9), "84: status 9 of slot 0 does not exist"},
          {"a back link", put<uint32_t>(slot(5) + prev, 3), "244: prev 3 of slot 5 on the inactive list, expected 7"},
      });
}

TEST_F(Contradictions, OfPools) {
  const size_t slot1 = POOL_HEADER_BYTES + POOL_SLOT_BYTES, slot2 = slot1 + POOL_SLOT_BYTES;
  expect_told(stream_of(chunk_pool().get()),
              {
                  {"a slot's capacity", put<uint32_t>(12, 60), "12: mslot_sz 60 does not match record_size 72"},
                  {"a cursor beyond the slots", put<uint32_t>(16, 3), "16: cur_slot_addr names slot 3 of 3"},
                  {"a cursor after its slot", put<uint32_t>(20, 65), "20: cur_slot_addr is at byte 65 of a slot of 64"},
                  {"a current slot that is free", put<uint32_t>(16, 0), "140: status 1 of the current slot, 0"},
                  {"more deleted", put<uint32_t>(slot1 + 12, 57), "232: bytes_del 57 of slot 1, but bytes_used is 56"},
                  {"a last slot cut too early", cut(slot2 + 39), "339: ends 39 bytes into slot 2 of 3"},
                  {"a last slot cut after its cursor", cut(slot2 + 41), "341: ends 41 bytes into slot 2 of 3"},
              });
}

TEST_F(Contradictions, OfBlockFiles) {
  static const struct {
    const char *fault;
    std::function<void(const fs::path &)> damage;
    const char *finding;
  } rows[] = {
      {"a missing block", [](const fs::path &dir) { fs::remove(dir / "12.1.darr"); },
       "ctx/12.1.darr: byte 0: 1 of 2 data blocks are missing, starting with this one"},
      {"a short block", [](const fs::path &dir) { fs::resize_file(dir / "12.2.darr", 30); },
       "ctx/12.2.darr: byte 30: 30 bytes long, but its block has 448"},
      {"a long file 0", [](const fs::path &dir) { fs::resize_file(dir / "12.0.darr", 200); },
       "ctx/12.0.darr: byte 168: 200 bytes long, but its block has 168"},
      {"a status in a data block", [](const fs::path &dir) { patch_file(dir / "12.1.darr", 3 * SLOT_BYTES, 9); },
       "ctx/12.1.darr: byte 84: status 9 of slot 6 does not exist"},
      {"millions of blocks claimed", [](const fs::path &dir) { patch_file(dir / "12.0.darr", 72, 0x10000003); },
       "ctx/12.3.darr: byte 0: 16777214 of 16777216 data blocks are missing, starting with this one"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    write_block_files();
    row.damage(folder_.path / "ctx");
    EXPECT_EQ(faults_of(inspect("ctx/12.0.darr", 1)).front(), row.finding);
    fs::remove_all(folder_.path / "ctx");
  }
}

TEST_F(Inspect, UnusualStatesAreNotFaults) {
  write_block_files();
  write("ctx/12.3.darr", "left by an earlier run");
  write("ctx/12.x.darr", "not a block");
  const json_t array = inspect("ctx/12.0.darr", 0);
  ASSERT_EQ(array["findings"].size(), 1u);
  EXPECT_EQ(array["findings"][0]["severity"], "remark");
  EXPECT_EQ(array["findings"][0]["file"], "ctx/12.3.darr");
}

TEST_F(Inspect, UnusualStatesOfPools) {
  static const struct {
    const char *fault;
    size_t at;
    uint64_t bytes;
    uint64_t value;
    const char *finding;  // after "in: byte "
  } rows[] = {
      {"a host's own bits refused", 8, 1, 0x0D, "8: flag 0x0d has unknown bits"},
      {"reserved byte", 9, 1, 3, "9: pad_byte 3, but the field is reserved"},
      {"size", 24, 8, 139, "24: total_msz 139 is less than the 140 bytes of headers"},
      {"sum", 32, 8, 79, "32: total_mused 79, but the slots have 80"},
      {"total that nothing counts", 48, 8, 1, "48: total_mdel 1, but the library never sets it"},
      {"a killed process' counter", POOL_HEADER_BYTES + 2 * POOL_SLOT_BYTES + 8, 4, 16,
       "308: bytes_used 16 of the current slot, 2, is less than the cursor's 24"},
      {"a killed process' slot", POOL_HEADER_BYTES + POOL_SLOT_BYTES + 8, 4, 0xFFFFFFFF,
       "228: slot 1 was taken and never became current"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    std::string changed = stream_of(chunk_pool().get());
    changed.replace(row.at, row.bytes, reinterpret_cast<const char *>(&row.value), row.bytes);
    write("in", changed);
    const run_t ran = run("in");
    EXPECT_EQ(ran.exit_code, 0);
    EXPECT_THAT(ran.out, HasSubstr(std::string("\n  remark: in: byte ") + row.finding + "\n"));
  }
}

TEST_F(Inspect, NamesDoNotControlTheTerminal) {
  const std::string name = "a\x1b[2J\nb\\x0a";
  std::string damaged = stream_of(two_lists().get());
  write_at(damaged.data(), slot(0), uint32_t{9});
  write(name, damaged);
  const std::string shown = "a\\x1b[2J\\x0ab\\\\x0a";
  const run_t text = run(arguments_t{"--record", "1", name});
#ifdef TSLB_DURABLE_IMAGE
  constexpr size_t N_SHOWN = 4;  // with the name of its sidecar
#else
  constexpr size_t N_SHOWN = 3;
#endif
  EXPECT_EQ(count_of(text.out, shown), N_SHOWN) << text.out;
  EXPECT_EQ(text.out.find('\x1b'), std::string::npos);
  EXPECT_EQ(run(arguments_t{name + "1"}).err,
            "tslb-inspect: " + shown + "1: cannot be read: No such file or directory\n");
  // JSON output contains the unchanged name.
  EXPECT_EQ(json_t::parse(run(arguments_t{"--json", name}).out)["arrays"][0]["name"], name);
}

// 120,000 slots in 3 MB. A third of them are free.
TEST_F(Inspect, JsonOfManySlotsTakesLittleMemory) {
#ifdef TSLB_SANITIZES_ADDRESS
  constexpr uint32_t N_SLOTS = 12000;  // the sanitizer's own memory hides that of the program
#else
  constexpr uint32_t N_SLOTS = 120000;
#endif
  const array_t pool(tslb_init_dynmem_ex1(8, N_SLOTS, 0, MPOOL_TYPE_DRAM, 0, nullptr, 1, TSLB_DA_DAFLAG_LL, 0, 0, 0));
  maddr64_t address;
  for (uint32_t i = 0; i < N_SLOTS; ++i) tslb_dynmem_get_mchunk64(pool.get(), &address, 8, srcaddr64_t{});
  for (uint32_t i = 0; i < N_SLOTS; i += 3) tslb_da_free_idx(pool.get(), i);
  write("in", stream_of(pool.get()));
  const run_t ran = run("--json in");
  EXPECT_EQ(ran.exit_code, 0) << ran.err;
#ifndef TSLB_SANITIZES_ADDRESS
  EXPECT_LT(ran.max_kilobytes, 64 * 1024);
#endif
  const json_t slots = json_t::parse(ran.out)["arrays"][0]["pool"]["slots"];
  ASSERT_EQ(slots.size(), N_SLOTS);
  EXPECT_EQ(slots[3], R"({"state": "free", "used": 0, "deleted": 0, "tail": 0})"_json);
  EXPECT_EQ(slots[N_SLOTS - 1], R"({"state": "current", "used": 8, "deleted": 0, "tail": 0})"_json);
}

TEST_F(Inspect, FilesThatCannotBeRead) {
  write("in", stream_of(two_lists().get()));
  fs::create_directory(folder_.path / "dir");
  static const struct {
    const char *file, *line;
  } rows[] = {{"none", "none: cannot be read: No such file or directory"},
              {"dir", "dir: not a regular file"},
              {"dir/12.1.darr", "dir/12.0.darr: cannot be read: No such file or directory"}};
  for (const auto &row : rows) {
    SCOPED_TRACE(row.file);
    const run_t ran = run(row.file + std::string(" in"));
    EXPECT_EQ(ran.exit_code, 2);
    EXPECT_EQ(ran.err, std::string("tslb-inspect: ") + row.line + "\n");
    EXPECT_EQ(ran.out.find("in: snapshot stream, slot array: sound\n"), 0u) << "the other files were not inspected";
  }
  EXPECT_EQ(run("").exit_code, 2);
  EXPECT_EQ(run("--kind list in").exit_code, 2);
}

TEST_F(Inspect, OutputsReplaceFilesOnlyWithForce) {
  const std::string sound = stream_of(two_lists().get());
  write("in", sound);
  write("old", "old");
  EXPECT_EQ(run("--svg old in").err, "tslb-inspect: old: exists; --force replaces it\n");
  EXPECT_EQ(read("old"), "old");
  EXPECT_EQ(run("--force --html in in").err, "tslb-inspect: in: is one of the inspected files\n");
  EXPECT_EQ(read("in"), sound);
  EXPECT_EQ(run("--force --svg old in").exit_code, 0);
  EXPECT_EQ(read("old").find("<?xml"), 0u);
}

TEST_F(Inspect, ManySlotsShareCells) {
  const array_t array(tslb_da_init_ll(4, 100000, MPOOL_TYPE_DRAM, nullptr, 1, TSLB_DA_DAFLAG_LL));
  tslb_da_get_range(array.get(), 50000);
  for (uint32_t idx = 0; idx < 256; ++idx) tslb_da_free_idx(array.get(), idx);
  write("in", stream_of(array.get()));
  ASSERT_EQ(run("--svg out.svg in").exit_code, 0);
  const std::string picture = read("out.svg");
  EXPECT_EQ(count_of(picture, "<title>slots "), 391u) << "256 slots to a cell";
  EXPECT_NE(picture.find("slots 0 to 255: 256 free<"), std::string::npos);
  EXPECT_NE(picture.find("slots 49920 to 50175: 80 active, 176 not issued<"), std::string::npos);
}

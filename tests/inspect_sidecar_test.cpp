// Tests of sidecars and of layouts: what is sealed is verified, each change of the files and of the sidecar is named, and
// records are shown by field.
#include <gmock/gmock.h>

#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <sstream>

#include "document.h"
#include "inspect_support.h"

using json_t = nlohmann::json;
using testing::HasSubstr;

class Sidecar : public ToolTest {
 protected:
  Sidecar() : ToolTest(TSLB_INSPECT) {
    write("in", stream_of(two_lists().get()));
    write("pair.layout", "# Two halves.\nlayout pair bytes 12\n\nfield  low 0 u32\nfield rest 4 bytes[8]\n");
  }
  ~Sidecar() override { tslb_set_base_path(""); }

  void write_block_files() const {
    tslb_set_base_path(folder_.path.c_str());
    const array_t array = two_lists(MPOOL_TYPE_SHM, "ctx");
  }
  void seal(const std::string &arguments, const std::string &sidecar) const {
    const run_t ran = run("--seal " + arguments);
    EXPECT_EQ(ran.exit_code, 0) << ran.err;
    EXPECT_EQ(ran.out, "sealed " + sidecar + "\n");
  }
};

// Without the version of the program, the time, and the checksum over them.
static std::string without_time(const std::string &text) {
  return std::regex_replace(text, std::regex("writer .*\ntime .*\ncrc32c .*\n$"), "");
}

TEST_F(Sidecar, SecondSealingKeepsTextAndFacts) {
  seal("--layout pair.layout --table -7 --context a\xC3\xA4\x20 in", "in.tslb");
  const std::string text = read("in.tslb");
  EXPECT_THAT(text, HasSubstr("\nform stream\nbyte_order little\nclock factor 1 origin 0 offset 0\n"
                              "versions library 2 records 5\ntable -7\ncontext a\xC3\xA4\naddress none\n"
                              "geometry header_bytes 84 daflag 2 record_bytes 12 slot_bytes 28 direct 3 slots 20\n"
                              "layout pair bytes 12 fields 2\nfield low 0 u32\nfield rest 4 bytes[8]\n"
                              "files 1\nfile 0 bytes 644 crc32c "));
  seal("in", "in.tslb");
  EXPECT_EQ(without_time(read("in.tslb")), without_time(text));
  seal("--clock 60 1700000000 -3600 in", "in.tslb");
  EXPECT_THAT(read("in.tslb"), HasSubstr("clock factor 60 origin 1700000000 offset -3600\n"));
  EXPECT_EQ(names(), (std::vector<std::string>{"in", "in.tslb", "pair.layout"})) << "a temporary file is left";

  const run_t ran = run("--record 6 in");
  EXPECT_EQ(ran.exit_code, 0);
  EXPECT_THAT(ran.out,
              testing::ContainsRegex("\n  in.tslb: contents verified, sealed 20.*Z by tslb-inspect [0-9.]+\n"));
  EXPECT_THAT(ran.out, testing::ContainsRegex("fields of pair\n +0  low +6\n +4  rest +0000000000000000\n"));
  const json_t array = json_t::parse(run("--json --record 6 in").out)["arrays"][0];
  EXPECT_EQ(array["sidecar"]["state"], "verified");
  EXPECT_EQ(array["record"]["fields"][0], json_t::parse(R"({"name":"low","offset":0,"type":"u32","value":"6"})"));
}

TEST_F(Sidecar, DocumentShowsWhatIsWritten) {
  const std::string documented = block_of("sidecar");
  write("readings", bytes_of_dump(block_of("dump readings")));
  write("reading.layout", block_of("layout"));
  seal("--layout reading.layout --table 12 --context metrics readings", "readings.tslb");
  EXPECT_EQ(without_time(read("readings.tslb")), without_time(documented));
  write("readings.tslb", documented);
  EXPECT_THAT(run("readings").out, HasSubstr("contents verified"));
}

TEST_F(Sidecar, WithoutOneContentsAreUnverified) {
  EXPECT_THAT(run("in").out, HasSubstr("\n  in.tslb: contents unverified, since there is no sidecar\n"));
  EXPECT_EQ(json_t::parse(run("--json in").out)["arrays"][0]["sidecar"]["state"], "absent");
}

TEST_F(Sidecar, AddressesAndFormsOfPools) {
  const std::string whole = stream_of(chunk_pool().get());
  const struct {
    const char *what;
    std::string stream, options, form, address;
  } rows[] = {
      {"a pool", whole, "", "stream", "big_buffer"},
      {"a cut pool", whole.substr(0, POOL_HEADER_BYTES + 2 * POOL_SLOT_BYTES + 40), "", "cut_stream", "big_buffer"},
      {"64-bit addresses", whole, "--wide-addresses ", "stream", "wide"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.what);
    write("pool", row.stream);
    seal("--force " + row.options + "pool", "pool.tslb");
    EXPECT_THAT(read("pool.tslb"), HasSubstr("\nform " + row.form + "\n"));
    EXPECT_THAT(read("pool.tslb"), HasSubstr("\naddress " + row.address + "\n"));
    EXPECT_EQ(run("pool").exit_code, 0);
    EXPECT_THAT(run("--kind array pool").out, HasSubstr("contents verified")) << "addresses and cursor are not known";
  }
}

TEST_F(Sidecar, ChangedFilesAreNamed) {
  static const struct {
    const char *change;
    std::function<void(const fs::path &)> damage;
    const char *fault;
  } rows[] = {
      {"a byte of a record", [](const fs::path &dir) { patch_file(dir / "12.1.darr", 8, 77); },
       "ctx/12.1.darr: has the CRC-32C "},
      {"a longer file", [](const fs::path &dir) { fs::resize_file(dir / "12.2.darr", 449); },
       "ctx/12.2.darr: has 449 bytes, but 448 were sealed"},
      {"a shorter file", [](const fs::path &dir) { fs::resize_file(dir / "12.0.darr", 100); },
       "ctx/12.0.darr: has 100 bytes, but 168 were sealed"},
      {"a missing file", [](const fs::path &dir) { fs::remove(dir / "12.1.darr"); }, "ctx/12.1.darr: is missing"},
      {"another array", [](const fs::path &dir) { patch_file(dir / "12.0.darr", 72, 50); },
       "ctx/12.3.darr: is not sealed"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.change);
    fs::remove_all(folder_.path / "ctx");
    write_block_files();
    write("ctx/12.3.darr", std::string(448, '\0'));  // its slots are not in use
    seal("ctx/12.2.darr", "ctx/12.darr.tslb");
    EXPECT_THAT(read("ctx/12.darr.tslb"), HasSubstr("\ntable 12\ncontext ctx\n"));
    EXPECT_EQ(run("ctx/12.0.darr").exit_code, 0);
    row.damage(folder_.path / "ctx");
    const run_t ran = run("ctx/12.0.darr");
    EXPECT_EQ(ran.exit_code, 3);
    EXPECT_THAT(ran.out, HasSubstr("\n    " + std::string(row.fault))) << ran.out;
    run("--html page.html ctx/12.0.darr");
    EXPECT_THAT(read("page.html"), Not(HasSubstr("badge good")));
    EXPECT_THAT(ran.out.substr(0, ran.out.find('\n')), HasSubstr(", but not as sealed"));
    EXPECT_THAT(ran.out, HasSubstr("  ctx/12.darr.tslb: the contents are not those that were sealed"));
  }
}

TEST_F(Sidecar, WrongSidecarsAreNamed) {
  seal("in", "in.tslb");
  const std::string sound = read("in.tslb");
  const auto with = [&sound](const std::string &from, const std::string &to) {
    return std::regex_replace(sound, std::regex(from), to);
  };
  const struct {
    const char *change;
    std::string text, fault;
  } rows[] = {
      {"another version", with("sidecar 1\n", "sidecar 2\n"), "in.tslb: has version 2; this program reads 1\n"},
      {"another text", "tslb-store 1\n", "in.tslb: is not a sidecar\n"},
      {"an empty text", "", "in.tslb: is not a sidecar\n"},
      {"a changed line", with("slots 20\n", "slots 21\n"), "in.tslb: wrong checksum, or unexpected end\n"},
      {"half of it", sound.substr(0, 200), "in.tslb: wrong checksum, or unexpected end\n"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.change);
    write("in.tslb", row.text);
    const run_t ran = run("in");
    EXPECT_EQ(ran.exit_code, 3);
    EXPECT_THAT(ran.out, HasSubstr(": sound, but its sidecar cannot be read"));
    EXPECT_THAT(ran.out, HasSubstr("\n    " + row.fault));
    EXPECT_EQ(run("--seal in").err,
              "tslb-inspect: " + row.fault.substr(0, row.fault.size() - 1) + "; --force replaces it\n");
  }
  seal("--force in", "in.tslb");
  EXPECT_EQ(without_time(read("in.tslb")), without_time(sound));
  EXPECT_EQ(run("in.tslb").err, "tslb-inspect: in.tslb: is a sidecar, which is read with the array beside it\n");
  fs::remove(path("in.tslb"));
  fs::create_symlink("nowhere", path("in.tslb"));
  const run_t unread = run("in");
  EXPECT_EQ(unread.exit_code, 2) << "is not known to be damaged";
  EXPECT_THAT(unread.out, testing::StartsWith("in: snapshot stream, slot array: sound\n"));
  EXPECT_THAT(unread.err, testing::StartsWith("tslb-inspect: in.tslb: cannot be "));
}

TEST_F(Sidecar, Refusals) {
  seal("in", "in.tslb");
  const std::string sealed = read("in.tslb");
  std::string other = stream_of(two_lists().get());
  write_at(other.data(), slot(0) + 8, uint32_t{1});
  write("in", other);
  write_at(other.data(), slot(0), uint32_t{9});
  write("damaged", other);
  write("pool", stream_of(chunk_pool().get()));
  write("long.layout", "layout long bytes 13\n");
  write_block_files();
  static const struct {
    const char *arguments;
    int exit_code;
    const char *line;
  } rows[] = {
      {"--seal in", 1, "in.tslb: seals other contents; --force replaces it"},
      {"--seal damaged", 1,
       "damaged: is not sealed, since it has faults; the first: damaged: byte 84: status 9 of slot 0 does not exist"},
      {"--seal --layout pair.layout pool", 1, "pool: is a pool, whose records have no fields"},
      {"--seal --force --layout long.layout in", 1, "in: a record has 12 bytes, but 13 in the layout \"long\""},
      {"--layout long.layout in", 2, "in: a record has 12 bytes, but 13 in the layout \"long\""},
      {"--seal --wide-addresses --force in", 1, "in: is no pool, so it has no addresses of chunks"},
      {"--seal --table 3 ctx/12.0.darr", 1, "ctx/12.0.darr: the names of block files say table and context"},
      {"--seal --clock 0 0 0 in", 2, "--clock: the factor is not above 0"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.arguments);
    expect_says(run(row.arguments), row.exit_code, std::string("tslb-inspect: ") + row.line);
  }
  EXPECT_EQ(read("in.tslb"), sealed);
  EXPECT_FALSE(fs::exists(path("damaged.tslb")));
  // The sidecar is written as a whole or not at all.
  const limits_t no_room = {nullptr, 100};
  EXPECT_EQ(run("--seal --force in", no_room).exit_code, 2);
  EXPECT_EQ(read("in.tslb"), sealed);
}

// ---- Layouts -------------------------------------------------------------------------------------------------------

TEST_F(Sidecar, DescriptionsWithFaultsAreRefused) {
  static const struct {
    const char *text, *fault;
  } rows[] = {
      {"", "line 0: no line \"layout NAME bytes COUNT\""},
      {"field a 0 u8\n", "line 1: expected \"layout NAME bytes COUNT\""},
      {"layout a bytes 012\n", "line 1: \"012\" is not a number"},
      {"layout a bytes 12\nlayout b bytes 12\n", "line 2: expected \"field NAME OFFSET TYPE\""},
      {"layout a bytes 12\nfield a 0 u24\n", "line 2: unknown type \"u24\""},
      {"layout a bytes 12\nfield a 0 u8[0]\n", "line 2: unknown type \"u8[0]\""},
      {"layout a bytes 12\nfield a 0 char\n", "line 2: unknown type \"char\""},
      {"layout a bytes 12\nfield a 0 u8:3-8\n", "line 2: unknown type \"u8:3-8\""},
      {"layout a bytes 12\nfield a 0 i8:0-1\n", "line 2: unknown type \"i8:0-1\""},
      {"layout a bytes 12\nfield a 9 u32\n", "field \"a\" ends at byte 13 of 12"},
      {"layout a bytes 12\nfield a 4294967295 u64[4294967295]\n", "field \"a\" ends at byte 38654705655 of 12"},
      {"layout a bytes 12\nfield a 0 u8\nfield a 1 u8\n", "two fields \"a\""},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.text);
    write("a.layout", row.text);
    expect_says(run("--layout a.layout in"), 2, std::string("tslb-inspect: a.layout: ") + row.fault);
  }
  EXPECT_THAT(run("--layout g_mt in").err,
              HasSubstr("no description \"g_mt\" is installed; there are: derived_metric_t_v0, "));
}

TEST_F(Sidecar, ValuesOfAllTypes) {
  std::string stream = stream_of(two_lists().get());
  const char record[] =
      "\xF4\xFF\x01\x80\0\0\0\x3F"
      "a\x1b\0b";
  stream.replace(slot(0) + 8, 12, record, 12);
  write("in", stream);
  const struct {
    const char *place, *value;
  } rows[] = {
      {"0 u8", "244"},
      {"0 i8", "-12"},
      {"0 u16", "65524"},
      {"0 i16[2]", "-12 -32767"},
      {"0 i32", "-2147352588"},
      {"0 u8:2-7", "61"},
      {"0 u64:63-63", "0"},
      {"0 u64:0-63", "4539628426537074676"},
      {"4 f32", "0.5"},
      {"8 char[4]", "a\\x1b"},
      {"8 bytes[4]", "611b0062"},
      {"4 f64", "1.159420660392443e+164"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.place);
    write("a.layout", std::string("layout a bytes 12\nfield value ") + row.place + "\n");
    const json_t array = json_t::parse(run("--json --layout a.layout --record 0 in").out)["arrays"][0];
    EXPECT_THAT(array["record"]["fields"][0]["value"], testing::StartsWith(row.value));
  }
}

// Returns the bytes of a type such as "u8[64]".
static size_t bytes_of_type(const std::string &type) {
  std::smatch parts;
  EXPECT_TRUE(std::regex_match(type, parts, std::regex(R"((u|i|f|char|bytes)(\d*)(?:\[(\d+)\])?(:.*)?)"))) << type;
  return (parts[2].length() == 0 ? 1 : std::stoul(parts[2]) / 8) * (parts[3].length() == 0 ? 1 : std::stoul(parts[3]));
}

// Members of a structure and their offsets, as the header asserts them. Parts of structures in it have names with a dot.
static std::map<std::string, size_t> members_of(const std::string &header, const std::string &type, size_t *size) {
  std::smatch found;
  EXPECT_TRUE(std::regex_search(header, found, std::regex("TSLB_STORED_SIZE\\(" + type + ", (\\d+)\\)"))) << type;
  *size = std::stoul(found[1]);
  std::map<std::string, size_t> members;
  const std::regex asserted("TSLB_STORED_AT\\(" + type + ", (\\w+), (\\d+)\\)");
  for (std::sregex_iterator at(header.begin(), header.end(), asserted), end; at != end; ++at) {
    const std::string name = (*at)[1];
    const size_t begin = std::stoul((*at)[2]);
    const std::string part("\\n  (rsb_t_v\\d|subject_t|measure_t|reco_agg_type_t) " + name + "(?:\\[(\\d)\\])?;");
    const std::string body = header.substr(header.find("typedef struct " + type + " {"));
    std::smatch nested;
    const std::string own = body.substr(0, body.find("} " + type + ";"));
    if (!std::regex_search(own, nested, std::regex(part))) {
      members[name] = begin;
      continue;
    }
    const size_t count = nested[2].length() == 0 ? 1 : std::stoul(nested[2]);
    for (size_t i = 0; i < count; ++i) {
      size_t nested_bytes = 0;
      for (const auto &[inner, offset] : members_of(header, nested[1], &nested_bytes))
        members[name + (count == 1 ? "" : "[" + std::to_string(i) + "]") + "." + inner] =
            begin + i * nested_bytes + offset;
    }
  }
  return members;
}

// Each field begins where the header says, and ends where the next member or gap begins.
TEST(Layouts, AreThoseOfTheCatalogue) {
  const std::string header = content_of(ROOT / "catalog/src/tsdb_recovery_schema.h");
  size_t n_layouts = 0;
  for (const auto &entry : fs::directory_iterator(ROOT / "tools/layouts")) {
    SCOPED_TRACE(entry.path());
    ++n_layouts;
    const std::string name = entry.path().stem(), text = content_of(entry.path());
    size_t size = 0;
    std::map<std::string, size_t> members = members_of(header, name, &size);
    EXPECT_THAT(text, HasSubstr("\nlayout " + name + " bytes " + std::to_string(size) + "\n"));
    std::set<size_t> begins = {size};
    for (const auto &[member, offset] : members) begins.insert(offset);
    std::istringstream lines(text.substr(text.find("\nfield") + 1));
    std::map<std::string, std::pair<size_t, std::string>> fields;
    std::string word, field, type;
    for (size_t offset; lines >> word >> field >> offset >> type; begins.insert(offset)) fields[field] = {offset, type};
    for (const auto &[member, offset] : members) {
      if (member.find("gap") != std::string::npos) continue;
      ASSERT_TRUE(fields.contains(member)) << member;
      EXPECT_EQ(fields[member].first, offset) << member;
    }
    for (const auto &[described, place] : fields)
      EXPECT_EQ(place.first + bytes_of_type(place.second), *begins.upper_bound(place.first)) << described;
  }
  EXPECT_EQ(n_layouts, 13u);
}

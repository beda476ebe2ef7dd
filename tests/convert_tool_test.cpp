// Tests of the conversion tool: the arguments that it passes to the driver, and its treatment of existing files.
#include <sys/stat.h>

#include <map>

#include "convert_support.h"
#include "tool_support.h"

class Tool : public ToolTest {
 protected:
  Tool() : ToolTest(TSLB_CONVERT) {}
  static void expect_refused(const run_t &ran, const std::string &line) {
    expect_says(ran, 1, "tslb-convert: " + line);
  }
};

TEST_F(Tool, EveryRouteOfTheLibrary) {
  const std::string slots = store(12, TSLB_DA_DAFLAG_INLL, 5, 60).stream;
  const std::string big_buffer = stream_of(chunk_pool(BIG_BUFFER, 41).get());
  const std::string bit_vector = stream_of(chunk_pool(BIT_VECTOR, 41).get());
  const struct {
    const char *fault, *arguments;
    std::string in, out;
    bool says_word;
  } rows[] = {
      {"headers", "--to 1 --rec-type lib", slots, edited(slots, 0, 1), false},
      {"number read as a row of the catalogue", "--to 1 --rec-type 0 --lib", slots, edited(slots, 0, 1), false},
      {"name refused beside --lib", "--to 0 --rec-type lib_bb --lib", big_buffer, big_buffer, true},
      {"a version that only the user states reported as checked", "--to 0 --rec-type lib_bb", big_buffer, big_buffer,
       true},
      {"bit-vector pool", "--to 0 --rec-type 2 --lib", bit_vector, bit_vector, true},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    write("in", row.in);
    const run_t ran = run(std::string(row.arguments) + " in out");
    EXPECT_EQ(ran.exit_code, 0) << ran.err;
    EXPECT_TRUE(read("out") == row.out);
    EXPECT_EQ(ran.out.find("is assumed") != std::string::npos, row.says_word) << ran.out;
    fs::remove(path("out"));
  }
}

const std::string TO_OLDEST = "--rec-type g_mg --to 0 ";

TEST_F(Tool, DoesNotReplaceOtherFiles) {
  const std::string groups = store(44, 0, 2, 20).stream;
  write("in", groups);
  write("old", "old");
  fs::create_symlink("in", path("link_to_in"));
  fs::create_symlink("old", path("to_old"));
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
      {"replaced without --force", "in", "old", false, "old: exists; --force replaces it"},
      {"a link followed or replaced without --force", "in", "dangling", false, "dangling: exists; --force replaces it"},
      {"input replaced", "in", "in", true, "in: is the input file"},
      {"input replaced through a link", "in", "link_to_in", true, "link_to_in: is the input file"},
      {"input read through a link, replaced", "link_to_in", "in", true, "in: is the input file"},
      {"input's second name replaced", "in", "second_in", true, "second_in: is the input file"},
      {"a link replaced", "in", "to_old", true,
       "to_old: exists and is not a regular file; --force does not replace it"},
      {"a directory replaced", "in", "dir", true, "dir: exists and is not a regular file; --force does not replace it"},
      {"a pipe replaced", "in", "pipe", true, "pipe: exists and is not a regular file; --force does not replace it"},
      {"no directory", "in", "none/out", false,
       "none/out: no temporary file can be created in its folder: No such file or directory"},
      {"missing input", "none", "out", false, "none: cannot be read: No such file or directory"},
      {"a directory read", "dir", "out", false, "dir: not a regular file"},
      {"waits for a pipe", "pipe", "out", false, "pipe: not a regular file"},
  };
  for (const auto &row : rows) {
    for (const bool dry : {false, true}) {
      if (dry && strcmp(row.out, "none/out") == 0) continue;  // a dry run creates no file there
      SCOPED_TRACE(testing::Message() << row.fault << (dry ? ", dry" : ""));
      const std::string files = row.in + std::string(" ") + row.out;
      expect_refused(run(TO_OLDEST + files + (row.force ? " --force" : "") + (dry ? " --dry-run" : "")), row.line);
      EXPECT_EQ(names(), before);
      EXPECT_EQ(read("in"), groups);
      EXPECT_EQ(read("old"), "old");
    }
  }
}

// Names the type by its row number; other tests use the type's name.
TEST_F(Tool, ForceReplacesAFile) {
  const stored_array_t groups = store(44, 0, 2, 20);
  write("in", groups.stream);
  write("out", std::string(100000, 'x'));
  ASSERT_EQ(chmod(path("in").c_str(), 0640), 0);
  EXPECT_EQ(run("--rec-type 2 --to 1 --force in out").exit_code, 0);
  EXPECT_TRUE(read("out") == expected_stream(kRoutes[2], groups, 0));
  EXPECT_EQ(fs::status(path("out")).permissions(), fs::perms{0640}) << "the output does not have the input's mode";
  EXPECT_EQ(names(), (std::vector<std::string>{"in", "out"}));
}

TEST_F(Tool, FailedOutputLeavesNoFile) {
  write("in", store(44, 0, 2, 60).stream);
  const struct {
    const char *fault;
    std::string arguments;
    limits_t limits;
    const char *last_line;
  } rows[] = {
      {"a refusal is not reported", "--rec-type g_mg --to 2 ", {}, "in: g_mg is already in version 2"},
      {"a cut output is kept", TO_OLDEST, {nullptr, 2000}, "out: the converted array could not be written completely"},
      {"a lost report", TO_OLDEST, {"/dev/full"}, "stdout: cannot be written: No space left on device"},
  };
  for (const auto &row : rows) {
    for (const bool over_old : {false, true}) {
      SCOPED_TRACE(testing::Message() << row.fault << (over_old ? ", over an old file" : ""));
      if (over_old) write("out", "old");
      const run_t ran = run(row.arguments + "in out" + (over_old ? " --force" : ""), row.limits);
      EXPECT_EQ(ran.exit_code, 1);
      const std::string end = std::string("tslb-convert: ") + row.last_line + "\n";
      EXPECT_EQ(ran.err.substr(ran.err.size() - std::min(ran.err.size(), end.size())), end);
      EXPECT_EQ(names().size(), over_old ? 2u : 1u) << "a file was left over";
      if (over_old) {
        EXPECT_EQ(read("out"), "old");
      }
    }
    fs::remove(path("out"));
  }
}

TEST_F(Tool, DryRunCountsAndWritesNothing) {
  const stored_array_t types = store(100, TSLB_DA_DAFLAG_INLL, 1, 60);
  write("in", types.stream);
  for (const char *files : {"in", "in out"}) {
    const run_t ran = run(std::string("--dry-run --rec-type type --to 0 ") + files);
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

// Row, name, version, nodes, target versions, and record bytes by version. Rows that are missing here have version 0
// and no conversion.
TEST_F(Tool, ListHasEveryRow) {
  const std::map<std::string, std::string> rows = {
      {"0 subject", "0 INLL - -"},
      {"1 type", "1 INLL 0 0:80 1:100"},
      {"2 g_mg", "2 plain 0 1 0:36 1:40 2:44"},
      {"3 g_mt", "1 plain 0 0:24 1:28"},
      {"10 local_root_subject", "1 INLL 0 0:80 1:100"},
      {"14 g_dmt_info", "1 plain 0 0:112 1:112"},
      {"16 g_dmg", "2 plain 0 1 0:36 1:40 2:44"},
      {"19 dmt_member", "1 plain 0 0:512 1:536"},
      {"20 dmt_subject", "1 plain 0 0:392 1:4232"},
      {"0 lib", "2 any 1 -"},
      {"1 lib_bb", "1 LL 0 -"},
      {"2 lib_bv", "1 LL 0 -"},
  };
  const run_t ran = run("--list");
  EXPECT_EQ(ran.exit_code, 0);
  EXPECT_EQ(ran.err, "");
  std::istringstream lines(ran.out);
  size_t n_rows = 0, n_known = 0;
  for (std::string line; std::getline(lines, line);) {
    std::istringstream items(line);
    std::string row, name, rest;
    if (!(items >> row >> name) || isdigit(static_cast<unsigned char>(row[0])) == 0) continue;
    for (std::string item; items >> item;) rest += (rest.empty() ? "" : " ") + item;
    const auto known = rows.find(row + " " + name);
    EXPECT_EQ(rest, known != rows.end() ? known->second : "0 plain - -") << line;
    n_known += known != rows.end() ? 1 : 0;
    ++n_rows;
  }
  EXPECT_EQ(n_known, rows.size());
  EXPECT_EQ(n_rows, 33u + 5u);
  EXPECT_EQ(run("--list", {.out_path = "/dev/full"}).exit_code, 1) << "an unwritten list counts as success";
}

TEST_F(Tool, Usage) {
  write("in", store(44, 0, 2, 5).stream);
  const std::string in_neither = ": no such record type of the catalogue or the library; --list shows them";
  const std::string not_in_library = ": no such record type of the library; --list shows them";
  const struct {
    const char *fault, *arguments;
    std::string line;
  } rows[] = {
      {"no arguments accepted", "", "--rec-type is missing"},
      {"version 0 assumed", "--rec-type g_mg in out", "--to is missing"},
      {"no files", "--rec-type g_mg --to 0", "IN is missing"},
      {"no output", "--rec-type g_mg --to 0 in", "OUT is missing"},
      {"an unknown type", "--rec-type G_MG --to 0 in out", "--rec-type G_MG" + in_neither},
      {"the start of a number", "--rec-type 2x --to 0 in out", "--rec-type 2x" + in_neither},
      {"a row after the end of the catalogue", "--rec-type 33 --to 0 in out", "--rec-type 33" + in_neither},
      {"a number cut to 16 bits", "--rec-type 65538 --to 0 in out", "--rec-type 65538" + in_neither},
      {"a row after the end of the library's map", "--lib --rec-type 5 --to 0 in out", "--rec-type 5" + not_in_library},
      {"a catalogue type of the library", "--lib --rec-type g_mg --to 0 in out", "--rec-type g_mg" + not_in_library},
      {"a version cut to 8 bits", "--rec-type g_mg --to 256 in out", "--to: Value 256 not in range 0 to 255"},
      {"a list with a conversion", "--list in", "--list takes no other arguments than --converters"},
      {"a row of the library's map with a host's conversions", "--rec-type readings --to 8 --lib --converters x in out",
       "--lib and --converters exclude each other"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    expect_says(run(row.arguments), 2, "tslb-convert: " + row.line);
    EXPECT_EQ(names(), std::vector<std::string>{"in"});
  }
  const run_t help = run("--help");
  EXPECT_EQ(help.exit_code, 0);
  EXPECT_NE(help.out.find("Exit: 0 done\n      1 refused"), std::string::npos) << help.out;
  EXPECT_NE(help.out.find("\n      2 wrong usage"), std::string::npos);
}

TEST_F(Tool, ConvertsTheRecordsOfAHost) {
  const stored_array_t stored = store(8, TSLB_DA_DAFLAG_INLL, 1, 60);
  write("in", stored.stream);
  fs::create_symlink(HOST_CONVERTERS, path("host.so"));
  const std::string arguments = "--converters host.so --rec-type readings --to 2 in out";
  const run_t ran = run(arguments);
  ASSERT_EQ(ran.exit_code, 0) << ran.err;
  EXPECT_EQ(ran.out.substr(0, ran.out.find('\n')), "readings: version 1 to 2");
  EXPECT_EQ(ran.out.find("become active"), std::string::npos) << ran.out;
  const load_result_t converted = load(read("out"));
  ASSERT_NE(converted.array, nullptr) << converted.error;
  for (uint32_t idx = 0; idx < 60; ++idx) {
    if (status_at(converted.array.get(), idx) == TSLB_DA_SLOT_FREE) continue;
    const std::string &old_record = stored.records[idx];
    EXPECT_EQ(std::string(bytes_of(tslb_da_get_ptr(converted.array.get(), idx)), 16),
              old_record.substr(0, 4) + words({0}) + old_record.substr(4, 4) + words({0}))
        << idx;
  }
  EXPECT_EQ(run("--list --converters host.so").out,
            "host.so\nname                from    to  record bytes\nreadings               1     2  8 to 16\n"
            "readings               2     1  16 to 8\n");
}

TEST_F(Tool, RefusesConvertersThatDoNotFit) {
  const std::string stream = store(8, 0, 1, 5).stream;
  write("in", stream);
  write("in2", store(16, 0, 2, 5).stream);
  write("in9", store(16, 0, 9, 5).stream);
  write("short", "x");
  write("text.so", "not an object");
  fs::create_symlink(HOST_CONVERTERS, path("host.so"));
  fs::create_symlink(INVALID_CONVERTERS, path("invalid.so"));
  const std::vector<std::string> before = names();
  static const struct {
    const char *fault, *converters, *type, *to, *in, *line;
  } rows[] = {
      {"missing", "none.so", "readings", "2", "in", "./none.so: cannot open shared object file"},
      {"not an object", "text.so", "readings", "2", "in", "./text.so: "},
      {"one of two conversions chosen", "invalid.so", "readings", "2", "in",
       "invalid.so: conversions 0 and 1 are both from version 7 of readings to 8"},
      {"another type", "host.so", "g_mg", "2", "in", "host.so: has no conversion of g_mg; --list shows them"},
      {"another target", "host.so", "readings", "9", "in",
       "in: has version 1, and host.so has no conversion of readings from version 1 to 9"},
      {"another source", "host.so", "readings", "2", "in9",
       "in9: has version 9, and host.so has no conversion of readings from version 9 to 2"},
      {"no headers", "host.so", "readings", "2", "short", "short: shorter than the headers of an array"},
      {"a failed record", "host.so", "readings", "1", "in2",
       "in2: record 0 cannot be converted from version 2 to 1: the converter returned -1"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    const run_t ran = run({"--converters", row.converters, "--rec-type", row.type, "--to", row.to, row.in, "out"});
    EXPECT_EQ(ran.exit_code, 1);
    EXPECT_EQ(ran.err.find(std::string("tslb-convert: ") + row.line), 0u) << ran.err;
    EXPECT_EQ(names(), before);
  }
}

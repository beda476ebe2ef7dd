// Tests of the inspector on the folder of a durable store.
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "tool_support.h"

namespace fs = std::filesystem;
using json_t = nlohmann::json;
using testing::HasSubstr;

class InspectStore : public ToolTest {
 protected:
  InspectStore() : ToolTest(TSLB_INSPECT) {
    fs::copy(TSLB_DURABLE_IMAGE, path("store"), fs::copy_options::recursive);
    fs::permissions(path("store"), fs::perms::owner_all);
    for (const auto &entry : fs::recursive_directory_iterator(path("store")))
      fs::permissions(entry.path(), fs::perms::owner_all);
  }
};

TEST_F(InspectStore, ShowsArraysWithTheBatchesOfTheJournal) {
  const run_t ran = run("--store store --json");
  EXPECT_EQ(ran.exit_code, 0) << ran.err;
  const json_t json = json_t::parse(ran.out, nullptr, false);
  EXPECT_EQ(json["sound"], true);
  EXPECT_EQ(json["closed"], true);
  EXPECT_EQ(json["batches_in_journals"], 2);
  ASSERT_EQ(json["arrays"].size(), 4u);
  EXPECT_EQ(json["arrays"][1]["name"], "slots");
  EXPECT_EQ(json["arrays"][1]["slots_in_generation"], 2);
  EXPECT_EQ(json["arrays"][1]["slots"], 4) << "the journal was not applied";
  EXPECT_EQ(json["arrays"][2]["record_bytes"], 512) << "not as in the declaration";
  const run_t text = run("--store store");
  EXPECT_EQ(text.exit_code, 0);
  EXPECT_THAT(text.out, HasSubstr("4bc6d52237dab1cde7a4156d47c8ceab"));
}

TEST_F(InspectStore, DigestsHaveTheJournalAndNoNamesOfFolders) {
  fs::copy(path("store"), path("other"), fs::copy_options::recursive);
  const run_t ran = run("--digest --store store"), other = run("--digest --store other");
  EXPECT_EQ(ran.exit_code, 0) << ran.err;
  EXPECT_EQ(ran.out, other.out);
  EXPECT_THAT(ran.out, HasSubstr(" (payload)\n"));
  EXPECT_EQ(std::count(ran.out.begin(), ran.out.end(), '\n'), 5);
  // The journal has changes of this array.
  const run_t generation = run("--digest store/generation.2/slots.stream");
  EXPECT_EQ(ran.out.find(generation.out.substr(0, 8)), std::string::npos);
  const std::string journal = read("store/journal.2");
  write("store/journal.2", journal.substr(0, journal.size() / 2));
  EXPECT_NE(run("--digest --store store").out, other.out);
}

TEST_F(InspectStore, ReportsDamageWithItsPlace) {
  std::string journal = read("store/journal.2");
  journal[70] = static_cast<char>(journal[70] ^ 1);
  write("store/journal.2", journal);
  const run_t ran = run("--store store --json");
  EXPECT_EQ(ran.exit_code, 1);
  const json_t json = json_t::parse(ran.out, nullptr, false);
  EXPECT_EQ(json["sound"], false);
  EXPECT_EQ(json["file"], "store/journal.2");
  EXPECT_EQ(json["byte"], 40);
  EXPECT_EQ(run("--store store").out.find("damaged: store/journal.2: byte 40: "), 0u);
}

TEST_F(InspectStore, FilesOfAStoreAreNotReadAsArrays) {
  const struct {
    const char *arguments, *line;
  } rows[] = {
      {"store", "store: is a folder; --store FOLDER shows a durable store"},
      {"store/journal.2", "store/journal.2: is a journal; --store FOLDER shows a durable store"},
      {"store/store", "store/store: is a text file of a durable store; --store FOLDER shows a durable store"},
      {"--store store/generation.2", "store/generation.2: is not a store"},
      {"--store store --record 1", "--record excludes --store"},
      {"--digest --json --store store", "--json excludes --digest"},
      {"", "FILE is required"},
  };
  for (const auto &row : rows) {
    const run_t ran = run(row.arguments);
    EXPECT_EQ(ran.exit_code, 2);
    EXPECT_EQ(ran.out, "");
    EXPECT_EQ(ran.err, std::string("tslb-inspect: ") + row.line + "\n");
  }
  EXPECT_EQ(run("store/generation.2/slots.stream").exit_code, 0);
}

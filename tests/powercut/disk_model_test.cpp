// The model of the disk gives exactly the states that a power cut can leave.
#include "disk_model.h"

#include <gtest/gtest.h>

#include <set>

namespace powercut {
namespace {

constexpr uint32_t FOLDER = 1, FILE_1 = 2;

Op open_op(uint32_t number, const std::string &path, bool is_folder = false) {
  return {.kind = OpKind::open, .file = number, .path = path, .is_folder = is_folder};
}
Op write_op(uint32_t file, uint64_t at, const std::string &text) {
  return {.kind = OpKind::write, .file = file, .at = at, .text = text};
}
Op truncate_op(uint32_t file, uint64_t size) {
  return {.kind = OpKind::truncate, .file = file, .at = size};
}
Op sync_op(uint32_t file, OpKind kind = OpKind::sync) {
  return {.kind = kind, .file = file};
}
Op path_op(OpKind kind, const std::string &path, const std::string &to = "") {
  return {.kind = kind, .path = path, .text = to};
}

// A state as one line: "a=x folder/", with each run of equal characters once.
std::string text_of(const DiskState &state) {
  std::string text;
  for (const auto &[path, file] : state) {
    text += (text.empty() ? "" : " ") + path + (file.is_folder ? "/" : "=");
    std::string bytes = file.bytes;
    bytes.resize(file.size, '0');
    for (size_t i = 0; i < bytes.size(); ++i)
      if (i % 512 == 0 || bytes[i] != bytes[i - 1]) text += bytes[i] == '\0' ? '0' : bytes[i];
  }
  return text;
}

using Texts = std::set<std::string>;

// All states after these changes of an empty folder, whose first opening is the folder itself.
Texts states_after(const std::vector<Op> &ops) {
  DiskModel model;
  model.apply(open_op(FOLDER, "", true));
  for (const Op &op : ops) model.apply(op);
  Texts states;
  Choices choices;
  do {
    const std::string text = text_of(model.after_cut(choices));
    // A state can be found again by its choices.
    Choices again(choices.text());
    EXPECT_EQ(text_of(model.after_cut(again)), text);
    states.insert(text);
  } while (choices.next());
  EXPECT_TRUE(states.contains(text_of(model.now()))) << "the newest state is one of them";
  return states;
}

std::string sectors(const std::string &letters) {
  std::string bytes;
  for (const char letter : letters) bytes.append(512, letter);
  return bytes;
}

// A file "f" with synced bytes and name, then other changes.
std::vector<Op> with_synced_file(const std::string &bytes, const std::vector<Op> &more) {
  std::vector<Op> ops = {open_op(FILE_1, "f"), write_op(FILE_1, 0, bytes), sync_op(FILE_1), sync_op(FOLDER)};
  ops.insert(ops.end(), more.begin(), more.end());
  return ops;
}

TEST(DiskModel, FileHasItsSyncedBytes) {
  EXPECT_EQ(states_after(with_synced_file(sectors("ab"), {})), (Texts{"f=ab"}));
}

TEST(DiskModel, NameNeedsASyncOfTheFolder) {
  EXPECT_EQ(states_after({open_op(FILE_1, "f"), write_op(FILE_1, 0, "x"), sync_op(FILE_1)}), (Texts{"", "f=x"}));
  EXPECT_EQ(states_after({open_op(FILE_1, "f"), write_op(FILE_1, 0, "x"), sync_op(FOLDER)}),
            (Texts{"f=", "f=0", "f=x"}));
}

TEST(DiskModel, SectorsOfAWriteAreMissingInAnyCombination) {
  EXPECT_EQ(states_after(with_synced_file(sectors("aaa"), {write_op(FILE_1, 0, sectors("bcd"))})),
            (Texts{"f=aaa", "f=aad", "f=aca", "f=acd", "f=baa", "f=bad", "f=bca", "f=bcd"}));
}

TEST(DiskModel, SectorHasAnyContentSinceTheLastSync) {
  const std::vector<Op> twice = {write_op(FILE_1, 0, sectors("b")), write_op(FILE_1, 0, sectors("c"))};
  EXPECT_EQ(states_after(with_synced_file(sectors("a"), twice)), (Texts{"f=a", "f=b", "f=c"}));
  const std::vector<Op> synced = {write_op(FILE_1, 0, sectors("b")), sync_op(FILE_1),
                                  write_op(FILE_1, 0, sectors("c"))};
  EXPECT_EQ(states_after(with_synced_file(sectors("a"), synced)), (Texts{"f=b", "f=c"}));
}

TEST(DiskModel, LongerFileEndsAtAnyBorderAndHasZerosForMissingBytes) {
  EXPECT_EQ(states_after(with_synced_file("a", {write_op(FILE_1, 1, "x"), write_op(FILE_1, 512, sectors("bc"))})),
            (Texts{"f=a",                                 // the old size
                   "f=a0", "f=ax",                        // the size after the first write
                   "f=a00", "f=ax00", "f=a0b", "f=ax0b",  // a border in the second write
                   "f=a000", "f=ax000", "f=a0b0", "f=ax0b0", "f=a00c", "f=ax00c", "f=a0bc", "f=ax0bc"}));
}

TEST(DiskModel, TruncationIsBytesAndSize) {
  EXPECT_EQ(states_after(with_synced_file(sectors("ab"), {truncate_op(FILE_1, 512)})), (Texts{"f=a", "f=ab", "f=a0"}));
  EXPECT_EQ(states_after(with_synced_file(sectors("ab"), {truncate_op(FILE_1, 512), sync_op(FILE_1)})), (Texts{"f=a"}));
}

TEST(DiskModel, RenameIsWholeAndReplaces) {
  const std::vector<Op> replaced = {open_op(3, "f.new"), write_op(3, 0, "y"), sync_op(3),
                                    path_op(OpKind::rename, "f.new", "f")};
  EXPECT_EQ(states_after(with_synced_file("x", replaced)), (Texts{"f=x", "f=x f.new=y", "f=y"}));
  std::vector<Op> synced = replaced;
  synced.push_back(sync_op(FOLDER));
  EXPECT_EQ(states_after(with_synced_file("x", synced)), (Texts{"f=y"}));
}

TEST(DiskModel, ChangesOfNamesHappenInAnyCombination) {
  const std::vector<Op> changes = {path_op(OpKind::remove, "f"), path_op(OpKind::make_folder, "g")};
  EXPECT_EQ(states_after(with_synced_file("x", changes)), (Texts{"", "f=x", "g/", "f=x g/"}));
}

TEST(DiskModel, FolderHasNamesOfItsOwn) {
  const std::vector<Op> ops = {path_op(OpKind::make_folder, "g"), open_op(2, "g", true), open_op(3, "g/f")};
  EXPECT_EQ(states_after(ops), (Texts{"", "g/", "g/ g/f="}));
  std::vector<Op> inner = ops;
  inner.push_back(sync_op(2));
  EXPECT_EQ(states_after(inner), (Texts{"", "g/ g/f="}));
  std::vector<Op> outer = ops;
  outer.push_back(sync_op(FOLDER));
  EXPECT_EQ(states_after(outer), (Texts{"g/", "g/ g/f="}));
}

TEST(DiskModel, RemovedFolderComesBackWithAnyOfItsNames) {
  const std::vector<Op> ops = {path_op(OpKind::make_folder, "g"),
                               open_op(2, "g", true),
                               open_op(3, "g/f"),
                               sync_op(2),
                               sync_op(FOLDER),
                               path_op(OpKind::remove, "g/f"),
                               path_op(OpKind::remove_folder, "g")};
  EXPECT_EQ(states_after(ops), (Texts{"", "g/", "g/ g/f="}));
}

TEST(DiskModel, FailedSyncLosesBytesForGood) {
  const std::vector<Op> ops = {write_op(FILE_1, 0, sectors("bc")), sync_op(FILE_1, OpKind::failed_sync),
                               write_op(FILE_1, 512, sectors("d")), sync_op(FILE_1)};
  EXPECT_EQ(states_after(with_synced_file(sectors("aa"), ops)), (Texts{"f=ad", "f=bd"}));
}

TEST(DiskModel, BeginsWithAState) {
  const DiskState state = {{"g", {true}}, {"g/f", {false, 3, "x"}}};
  DiskModel model(state);
  EXPECT_EQ(model.now(), state);
  model.apply(open_op(1, "g/f"));
  model.apply(write_op(1, 0, "y"));
  std::mt19937_64 random(1);
  Choices choices(random);
  Texts states;
  for (int i = 0; i < 100; ++i, choices.next()) states.insert(text_of(model.after_cut(choices)));
  EXPECT_EQ(states, (Texts{"g/ g/f=x0", "g/ g/f=y0"}));
}

TEST(DiskModelDeathTest, RecordThatLacksSomethingEndsTheProcess) {
  DiskModel model;
  EXPECT_DEATH(model.apply(path_op(OpKind::remove, "f")), "does not fit");
  EXPECT_DEATH(model.apply(open_op(1, "g/f")), "no such folder");
}

}  // namespace
}  // namespace powercut

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

TEST(DiskModel, HasExactlyTheStatesThatACutCanLeave) {
  const Op write_b = write_op(FILE_1, 0, sectors("b")), write_c = write_op(FILE_1, 0, sectors("c"));
  const std::vector<Op> replaced = {open_op(3, "f.new"), write_op(3, 0, "y"), sync_op(3),
                                    path_op(OpKind::rename, "f.new", "f")};
  const std::vector<Op> folder = {path_op(OpKind::make_folder, "g"), open_op(2, "g", true), open_op(3, "g/f")};
  const auto and_then = [](std::vector<Op> ops, const std::vector<Op> &more) {
    ops.insert(ops.end(), more.begin(), more.end());
    return ops;
  };
  const struct {
    const char *what;
    std::vector<Op> ops;
    Texts states;
  } rows[] = {
      {"a file has its synced bytes", with_synced_file(sectors("ab"), {}), {"f=ab"}},
      {"a name needs a sync of the folder",
       {open_op(FILE_1, "f"), write_op(FILE_1, 0, "x"), sync_op(FILE_1)},
       {"", "f=x"}},
      {"bytes need a sync of the file",
       {open_op(FILE_1, "f"), write_op(FILE_1, 0, "x"), sync_op(FOLDER)},
       {"f=", "f=0", "f=x"}},
      {"sectors of a write are missing in any combination",
       with_synced_file(sectors("aaa"), {write_op(FILE_1, 0, sectors("bcd"))}),
       {"f=aaa", "f=aad", "f=aca", "f=acd", "f=baa", "f=bad", "f=bca", "f=bcd"}},
      {"a sector has any content", with_synced_file(sectors("a"), {write_b, write_c}), {"f=a", "f=b", "f=c"}},
      {"since the last sync", with_synced_file(sectors("a"), {write_b, sync_op(FILE_1), write_c}), {"f=b", "f=c"}},
      {"a longer file ends at any border and has zeros for missing bytes",
       with_synced_file("a", {write_op(FILE_1, 1, "x"), write_op(FILE_1, 512, sectors("bc"))}),
       {"f=a",                                 // the old size
        "f=a0", "f=ax",                        // the size after the first write
        "f=a00", "f=ax00", "f=a0b", "f=ax0b",  // a border in the second write
        "f=a000", "f=ax000", "f=a0b0", "f=ax0b0", "f=a00c", "f=ax00c", "f=a0bc", "f=ax0bc"}},
      {"a truncation is bytes and size",
       with_synced_file(sectors("ab"), {truncate_op(FILE_1, 512)}),
       {"f=a", "f=ab", "f=a0"}},
      {"a synced one", with_synced_file(sectors("ab"), {truncate_op(FILE_1, 512), sync_op(FILE_1)}), {"f=a"}},
      {"a rename is whole and replaces", with_synced_file("x", replaced), {"f=x", "f=x f.new=y", "f=y"}},
      {"a synced rename", with_synced_file("x", and_then(replaced, {sync_op(FOLDER)})), {"f=y"}},
      {"changes of names happen in any combination",
       with_synced_file("x", {path_op(OpKind::remove, "f"), path_op(OpKind::make_folder, "g")}),
       {"", "f=x", "g/", "f=x g/"}},
      {"a folder has names of its own", folder, {"", "g/", "g/ g/f="}},
      {"whose sync is not that of the folder", and_then(folder, {sync_op(2)}), {"", "g/ g/f="}},
      {"nor the other way round", and_then(folder, {sync_op(FOLDER)}), {"g/", "g/ g/f="}},
      {"a removed folder comes back with any of its names",
       and_then(folder,
                {sync_op(2), sync_op(FOLDER), path_op(OpKind::remove, "g/f"), path_op(OpKind::remove_folder, "g")}),
       {"", "g/", "g/ g/f="}},
      {"a failed sync loses bytes for good",
       with_synced_file(sectors("aa"), {write_op(FILE_1, 0, sectors("bc")), sync_op(FILE_1, OpKind::failed_sync),
                                        write_op(FILE_1, 512, sectors("d")), sync_op(FILE_1)}),
       {"f=ad", "f=bd"}},
  };
  for (const auto &row : rows) EXPECT_EQ(states_after(row.ops), row.states) << row.what;
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

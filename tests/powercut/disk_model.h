// A model of a file system and its disk. It follows the recorded changes of a process, and gives the states in which a
// power cut can leave the disk.
//
// What a sync covered is on the disk. Of the rest, the model allows what POSIX allows:
//   - a sector of 512 bytes of a file has any of the contents that it had since the last sync of the file. So writes are
//     whole, torn, missing, or in another order. Pages of 4 KiB are made of sectors.
//   - a file has any of the sizes that it had since then, or ends at a sector's border in a write that made it longer. Bytes
//     that a larger size uncovers are zeros. A border within zeros that were written is the same as the first such border.
//   - each change of names in a folder since the last sync of the folder happened or not, whole: a rename replaces the
//     target and removes the source, or does neither.
//   - after a sync that failed, what it should have covered stays possible until it is written again and synced.
// A file's sync does not sync its name.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "syscalls.h"

namespace powercut {

// A sequence of choices that leads to one state: the next of all, a random one, or a given one.
class Choices {
 public:
  Choices() = default;                                             // all, beginning with the oldest state
  explicit Choices(std::mt19937_64 &random) : random_(&random) {}  // without an end
  explicit Choices(const std::string &text);                       // as text() returns it

  // Returns a number below n: 0 is the oldest state, n - 1 the newest.
  uint32_t choose(size_t n);
  // Begins the next sequence. Returns false after the last one.
  bool next();
  std::string text() const;

 private:
  std::mt19937_64 *random_ = nullptr;
  uint32_t old_percent_ = 0;     // of the random choices
  std::vector<uint32_t> made_;   // of this sequence, and those to repeat after `at_`
  std::vector<size_t> numbers_;  // of the alternatives
  size_t at_ = 0;
};

struct DiskFile {
  bool is_folder = false;
  uint64_t size = 0;
  std::string bytes = {};  // without zeros at the end
  bool operator==(const DiskFile &) const = default;
};

// By path, relative to the root.
using DiskState = std::map<std::string, DiskFile>;

class DiskModel {
 public:
  explicit DiskModel(const DiskState &synced = {});

  // Ignores marks. Ends the process if a change does not fit the state: then the record lacks something.
  void apply(const Op &op);
  // As the running process sees it.
  DiskState now() const;
  // One of the states of the disk after a power cut.
  DiskState after_cut(Choices &choices) const;

 private:
  static constexpr uint64_t SECTOR = 512;
  static constexpr uint32_t NONE = UINT32_MAX;
  using Names = std::map<std::string, uint32_t>;

  struct Sector {
    std::vector<std::string> contents = {};  // since the last sync, the oldest first
    bool is_lost = false;                    // a sync of it failed, and it was not written since
  };
  struct Node {
    bool is_folder = false;
    std::string bytes = {};                                                   // file
    std::map<uint64_t, Sector> sectors = {};                                  // that changed since the last sync
    std::vector<uint64_t> sizes = {0};                                        // since the last sync, the oldest first
    Names names = {}, synced = {};                                            // folder
    std::vector<std::vector<std::pair<std::string, uint32_t>>> changes = {};  // since its last sync; NONE: removed
  };

  uint32_t add_node(bool is_folder);
  uint32_t node_at(const std::string &path) const;  // NONE if there is none
  Node &folder_of(const std::string &path);
  static std::string name_of(const std::string &path);
  static void change_names(Node &folder, std::vector<std::pair<std::string, uint32_t>> change);
  static void put(Node &file, uint64_t at, const std::string &text, uint64_t size);
  static void sync(Node &node);
  static DiskFile file_of(const Node &node, Choices *choices);
  void visit(uint32_t node, const std::string &path, Choices *choices, DiskState &state) const;

  std::deque<Node> nodes_;        // the root first
  std::vector<uint32_t> opened_;  // nodes of openings
};

}  // namespace powercut

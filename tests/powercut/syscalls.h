// The system calls of the durable store. A program that is linked with the options of powercut_wrap (CMakeLists.txt) calls
// them through syscalls.cpp, which records what changes the disk, and can make one call fail.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace powercut {

enum class OpKind : uint8_t {
  open,           // of a file or folder; gives it the next number
  write,          // at a position
  truncate,       // to a size
  sync,           // fsync or fdatasync of a file or folder
  failed_sync,    // the system may have dropped what was not on the disk
  make_folder,    //
  rename,         // replaces an existing file
  remove,         // a file
  remove_folder,  //
  mark            // of the scenario
};

enum class MarkKind : uint8_t { begun, acknowledged, refused, logged };

struct Op {
  OpKind kind = OpKind::mark;
  uint32_t file = 0;      // of open, write, truncate and sync: the number of the opening
  uint64_t at = 0;        // position, size, or number of a mark
  std::string path = {};  // relative to the root
  std::string text = {};  // written bytes, or the new path
  bool is_folder = false;
  MarkKind mark = MarkKind::begun;
};

// Records changes below `root`, until the end. A forked child of this process is recorded too: its parent waits for its
// end at the fork, so that equal runs give equal records.
void begin_recording(const std::string &root);
std::vector<Op> end_recording();
void record_mark(MarkKind mark, uint32_t number);

// Random bytes are the same after each call. 0 ends this.
void repeat_random_bytes(uint64_t seed);

// Called before each rename from now on, if it is set. Not at the same time by two threads.
void call_before_renames(std::function<void()> call);

// The n-th wrapped call from now on fails, once; 0 means none. Each call has a list of errors that it can have; `which` is
// an index into it. With a name only calls of that name count.
void fail_call(uint64_t n, unsigned which, std::string_view name = {});
enum class Struck { no, fault, no_such_error };
// Returns what became of the fault, and the name of the call.
Struck fault_struck();
std::string struck_call();

}  // namespace powercut

#include "report.h"

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "machine.h"

namespace {

struct place_t {
  std::string line;      // file:line of the operation
  std::string function;  // that was called
};

// Helpers whose callers say more.
bool is_helper(const std::string &line) {
  return line.starts_with("shared_words.h") || line.starts_with("dynarr_lock.h") || line.starts_with("dynarr_layout.h");
}

std::string base_name(const std::string &path) {
  const size_t slash = path.rfind('/');
  const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  return name.substr(0, name.find(' '));
}

// Asks addr2line, which prints the address, and then for the place and each inlined caller a function and a line.
std::map<const void *, place_t> places_of(const std::vector<event_t> &events) {
  char self[4096];
  const ssize_t len = readlink("/proc/self/exe", self, sizeof(self) - 1);
  std::map<const void *, place_t> places;
  if (len <= 0) return places;
  std::string command = "addr2line -a -f -i -C -e '" + std::string(self, static_cast<size_t>(len)) + "'";
  std::vector<const void *> asked;
  for (const event_t &event : events) {
    if (!places.emplace(event.op.caller, place_t{"?", "?"}).second) continue;
    asked.push_back(event.op.caller);
    char address[32];
    snprintf(address, sizeof(address), " %p",
             static_cast<const void *>(static_cast<const char *>(event.op.caller) - 1));
    command += address;
  }
  FILE *const pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return places;
  char text[4096];
  place_t *place = nullptr;
  size_t n_asked = 0;
  for (bool is_function = true; fgets(text, sizeof(text), pipe) != nullptr;) {
    text[strcspn(text, "\n")] = '\0';
    if (strncmp(text, "0x", 2) == 0) {
      if (n_asked == asked.size()) break;
      place = &places[asked[n_asked++]];
      is_function = true;
    } else if (place != nullptr) {
      if (is_function)
        place->function = text;
      else if (place->line == "?" || is_helper(place->line))
        place->line = base_name(text);
      is_function = !is_function;
    }
  }
  pclose(pipe);
  return places;
}

}  // namespace

void print_steps() {
  static const char *const KINDS[] = {"load", "awaited load", "store", "swap", "add", "lock", "unlock", "redo record"};
  const std::vector<event_t> &events = machine.events();
  const std::map<const void *, place_t> places = places_of(events);
  int last = -1;
  for (const event_t &event : events) {
    if (event.thread != last) printf("  thread %c\n", 'a' + event.thread);
    last = event.thread;
    const place_t &place = places.at(event.op.caller);
    const bool failed = event.op.kind == OP_SWAP && !event.op.writes;
    printf("    %-30s %-28.28s %s%s +%#zx = %#lx\n", place.line.c_str(), place.function.c_str(), KINDS[event.op.kind],
           failed ? " fails" : "", machine.arena.contains(event.op.at) ? machine.arena.offset_of(event.op.at) : 0,
           static_cast<unsigned long>(event.value));
  }
}

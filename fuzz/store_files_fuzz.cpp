// Reads any text as the state of a durable store, and as the manifest of a generation. Half of the inputs get a valid
// checksum, because random ones have none.
#include <store_error.h>
#include <store_files.h>
#include <text_lines.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

using namespace tslb_durable;

static std::string folder;

static void need(bool holds, const char *what) {
  if (holds) return;
  fprintf(stderr, "does not hold: %s\n", what);
  abort();
}

static void remove_folder() {
  remove_tree(folder);
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  folder = std::string(access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") + "/tslb_fuzz_XXXXXX";
  need(mkdtemp(folder.data()) != nullptr, "a folder for the files");
  atexit(remove_folder);
  return 0;
}

static void put(const std::string &path, const std::string &text) {
  remove_file(path);
  File::create(path).write(text);
}

// An accepted state is written and read as the same.
static void read_as_state(const std::string &text) {
  put(state_path(folder), text);
  const StoreState state = read_state(folder);
  write_state(folder, state);
  const StoreState again = read_state(folder);
  need(again.identity == state.identity && again.generation == state.generation &&
           again.journals.size() == state.journals.size(),
       "a state is written as it was read");
  for (size_t i = 0; i < state.journals.size(); ++i)
    need(again.journals[i].number == state.journals[i].number && again.journals[i].bytes == state.journals[i].bytes &&
             again.journals[i].crc32c == state.journals[i].crc32c,
         "a journal is written as it was read");
}

static void read_as_manifest(const std::string &text) {
  put(folder + "/" + MANIFEST, text);
  need(manifest_text(read_manifest(folder)) == text, "an accepted manifest is the text that is written");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  std::string text(reinterpret_cast<const char *>(data) + 1, size - 1);
  if (data[0] % 2 == 0) append_checksum(text);
  for (const auto read : {read_as_state, read_as_manifest}) {
    try {
      read(text);
    } catch (const StoreError &error) {
      need(error.code() == TSLB_DURABLE_DAMAGED, "a text is refused as damaged");
    }
  }
  return 0;
}

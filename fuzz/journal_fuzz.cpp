// Scans any bytes as the journal of a durable store, and applies its groups to arrays. The input is a file, or a list of
// frames that get valid checksums here and are then changed by the input, because random inputs have no valid checksums.
#include <changes.h>
#include <fcntl.h>
#include <journal_reader.h>
#include <stdio.h>
#include <stdlib.h>
#include <store_error.h>
#include <sys/mman.h>
#include <tslb/tslb_rd_api.h>
#include <tslb/tslb_stored.h>
#include <unistd.h>

#include <algorithm>
#include <string>

using namespace tslb_durable;

static const JournalName NAME = {{1, 2, 3}, 7};

static void need(bool holds, const char *what) {
  if (holds) return;
  fprintf(stderr, "does not hold: %s\n", what);
  abort();
}

// Reads the input from its front; 0 at the end.
struct input_t {
  const uint8_t *data;
  size_t size;

  uint8_t byte() { return size != 0 ? (--size, *data++) : 0; }
  uint16_t word() { return static_cast<uint16_t>(byte() | byte() << 8); }
  std::string_view text(size_t max_bytes) {
    const size_t count = std::min(size, max_bytes);
    data += count;
    size -= count;
    return {reinterpret_cast<const char *>(data - count), count};
  }
};

static void add_frame(std::string &file, JournalPlace &place, input_t &input) {
  const uint8_t choice = input.byte();
  if ((choice & 0x80) != 0) place.next_sequence += choice & 0x7F;  // a gap
  const std::string_view body = choice % 8 < 6 ? input.text(input.byte()) : "";
  Frame frame = {body.empty() ? (choice % 2 == 0 ? FrameKind::opened : FrameKind::sealed) : FrameKind::group,
                 (choice & 0x40) != 0 && !body.empty() ? Compression::zstd : Compression::none,
                 static_cast<uint32_t>(body.size()), body.empty() ? 0u : 1u};
  const FrameHead head = make_frame_head(NAME, place, frame, input.word(), body);
  file.append(reinterpret_cast<const char *>(&head), sizeof head).append(body);
  place.position = file.size();
  ++place.next_sequence;
}

static std::string make_file(input_t input) {
  const JournalHead head = make_head(NAME);
  std::string file(reinterpret_cast<const char *>(&head), sizeof head);
  JournalPlace place = {file.size(), 1, 0};
  for (uint8_t left = input.byte() % 32; left != 0; --left) add_frame(file, place, input);
  while (input.size > 2) {
    const size_t at = input.word();
    const char changed = static_cast<char>(input.byte());
    if (at < file.size()) file[at] = static_cast<char>(file[at] ^ changed);
  }
  return file;
}

// Arrays of each shape, to which groups are applied.
class Arrays {
 public:
  Arrays()
      : slots_(tslb_da_init_ver(12, 3, MPOOL_TYPE_DRAM, "slots", 5, TSLB_DA_DAFLAG_INLL, 0)),
        pool_(tslb_init_dynmem_ex(64, 0, MPOOL_FLAG_COMPAT, MPOOL_TYPE_DRAM, 0, "pool", 6, TSLB_DA_DAFLAG_LL, 0)),
        targets_{{slots_.get(), TSLB_ARRAY_SLOTS}, {pool_.get(), TSLB_POOL_BIG_BUFFER}} {}

  std::string apply(std::string_view body) {
    std::string payload;
    bool has_payload = false;
    LogPosition position = {};
    constexpr uint32_t MAX_SLOTS = 1000;  // a few bytes can name many
    return apply_body(body, targets_, payload, has_payload, position, MAX_SLOTS);
  }

 private:
  const Array slots_, pool_;
  const std::vector<ReplayTarget> targets_;
};

static ScanResult read_whole(const std::string &path) {
  Arrays arrays;
  uint64_t n_groups = 0, end = 0;
  const ScanResult result = scan_journal(File::open(path), NAME, [&](std::string_view body, uint64_t position) {
    need(position > end, "groups are in order");
    end = position;
    std::string why = arrays.apply(body);
    n_groups += why.empty() ? 1 : 0;
    return why;
  });
  need(result.n_groups == n_groups, "the count is that of the callbacks");
  need(result.place.position > end || result.end == JournalEnd::damaged, "the place is after the last group");
  need((result.end == JournalEnd::clean) == result.fault.empty(), "a fault unless the end is clean");
  need(result.end != JournalEnd::clean || result.bytes_cut == 0, "a clean end is the end");
  return result;
}

// Cuts the file after its last valid frame. It must have the same content and be clean.
static void expect_clean_when_cut(int fd, const std::string &path, const ScanResult &before) {
  need(ftruncate(fd, static_cast<off_t>(before.place.position)) == 0, "a file can be cut");
  const ScanResult after = read_whole(path);
  need(after.end == JournalEnd::clean && after.n_groups == before.n_groups && after.place.crc32c == before.place.crc32c,
       "a journal that is cut at its place is clean");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  const std::string file =
      data[0] == static_cast<uint8_t>(JOURNAL_MAGIC[0]) ? std::string(data, data + size) : make_file({data, size});
  const int fd = memfd_create("journal", MFD_CLOEXEC);
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  if (fd < 0 || write(fd, file.data(), file.size()) != static_cast<ssize_t>(file.size())) return -1;
  try {
    expect_clean_when_cut(fd, path, read_whole(path));
  } catch (const StoreError &error) {
    need(error.code() == TSLB_DURABLE_DAMAGED, "a file without a valid head is refused as damaged");
  }
  close(fd);
  return 0;
}

#include "snapshot_archive.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "files.h"

using namespace tslb_durable;

namespace tslb_replica {
namespace {

constexpr size_t LENGTHS_BYTES = sizeof(uint32_t) + sizeof(uint64_t);
constexpr size_t MAX_NAME_BYTES = 512;
constexpr size_t MESSAGES_AT_ONCE = 8;

// Returns the files below a folder, as paths in it.
void list_files(const std::string &folder, const std::string &prefix, std::vector<std::string> &names) {
  for_each_name(folder + "/" + prefix, [&](const std::string &name) {
    struct stat status = {};
    if (stat((folder + "/" + prefix + name).c_str(), &status) == 0 && S_ISDIR(status.st_mode))
      list_files(folder, prefix + name + "/", names);
    else if (name != "lock")
      names.push_back(prefix + name);
  });
}

std::string start_of(const std::string &name, uint64_t bytes) {
  const auto name_bytes = static_cast<uint32_t>(name.size());
  std::string start(LENGTHS_BYTES, '\0');
  std::memcpy(start.data(), &name_bytes, sizeof name_bytes);
  std::memcpy(start.data() + sizeof name_bytes, &bytes, sizeof bytes);
  return start + name;
}

// Collects bytes to chunks, and publishes these.
class ArchiveWriter {
 public:
  ArchiveWriter(NatsStream &stream, const MessageHead &head, uint64_t last, size_t chunk_bytes)
      : stream_(stream), head_(head), last_(last), chunk_bytes_(chunk_bytes) {}

  void write(std::string_view bytes) {
    while (!bytes.empty()) {
      const std::string_view taken = bytes.substr(0, chunk_bytes_ - chunk_.size());
      chunk_ += taken;
      bytes.remove_prefix(taken.size());
      if (chunk_.size() == chunk_bytes_) end_chunk();
    }
  }
  void end() {
    if (head_.chunk < head_.n_chunks) end_chunk();
    publish();
  }

 private:
  void end_chunk() {
    messages_.push_back(seal_message(head_, chunk_));
    ++head_.chunk;
    chunk_.clear();
    if (messages_.size() == MESSAGES_AT_ONCE) publish();
  }
  void publish() {
    stream_.publish(messages_, last_);
    last_ += messages_.size();
    messages_.clear();
  }

  NatsStream &stream_;
  MessageHead head_;
  uint64_t last_;
  const size_t chunk_bytes_;
  std::string chunk_;
  std::vector<std::string> messages_;
};

// Writes the files of an archive whose bytes come in parts.
class ArchiveReader {
 public:
  explicit ArchiveReader(std::string folder) : folder_(std::move(folder)) {}

  void read(std::string_view bytes, const std::string &place) {
    while (!bytes.empty()) {
      if (!file_) {
        const size_t wanted = start_.size() < LENGTHS_BYTES ? LENGTHS_BYTES : LENGTHS_BYTES + name_bytes();
        const std::string_view taken = bytes.substr(0, wanted - start_.size());
        start_ += taken;
        bytes.remove_prefix(taken.size());
        if (start_.size() < LENGTHS_BYTES) continue;
        if (name_bytes() > MAX_NAME_BYTES) throw StoreError(TSLB_DURABLE_DAMAGED, place + ": a name that is too long");
        if (start_.size() == LENGTHS_BYTES + name_bytes()) begin_file(place);
      } else {
        const std::string_view taken = bytes.substr(0, left_);
        file_->write(taken);
        bytes.remove_prefix(taken.size());
        left_ -= taken.size();
      }
      if (file_ && left_ == 0) end_file();
    }
  }
  bool is_between_files() const { return !file_ && start_.empty(); }

 private:
  uint32_t name_bytes() const {
    uint32_t bytes;
    std::memcpy(&bytes, start_.data(), sizeof bytes);
    return bytes;
  }
  void begin_file(const std::string &place) {
    const std::string name = start_.substr(LENGTHS_BYTES);
    std::memcpy(&left_, start_.data() + sizeof(uint32_t), sizeof left_);
    if (name.empty() || name[0] == '/' || name.find("..") != name.npos || name.find('\0') != name.npos)
      throw StoreError(TSLB_DURABLE_DAMAGED, fmt::format("{}: a file with the name \"{}\"", place, name));
    if (const size_t slash = name.rfind('/'); slash != name.npos)
      make_folder_if_missing(folder_ + "/" + name.substr(0, slash));
    file_.emplace(File::create(folder_ + "/" + name));
  }
  void end_file() {
    file_.reset();
    start_.clear();
  }

  const std::string folder_;
  std::string start_;
  std::optional<File> file_;
  uint64_t left_ = 0;
};

Message expect_chunk(const std::string &bytes, const std::string &place) {
  const Message message = read_message(bytes, place);
  if (message.head.kind != MessageKind::snapshot)
    throw StoreError(TSLB_DURABLE_DAMAGED, place + ": no chunk of a snapshot");
  return message;
}

// Returns the sequence of the first chunk of the last complete snapshot; 0 if there is none.
uint64_t first_of_last_snapshot(NatsStream &stream) {
  const Span span = stream.span();
  for (uint64_t at = span.last; at >= span.first && at != 0;) {
    const auto bytes = stream.read(at);
    if (!bytes) return 0;
    const Message message = expect_chunk(*bytes, stream.place(at));
    if (message.head.chunk >= at) return 0;
    const uint64_t first = at - message.head.chunk;
    if (message.is_last_chunk()) return first >= span.first ? first : 0;
    at = first - 1;  // its publisher ended, or is still at it
  }
  return 0;
}

// A leader that does not know yet that it was deposed, or a slow follower, could replace a snapshot where the log was cut by
// one before. Then no new follower could begin.
void expect_none_newer(NatsStream &stream, const MessageHead &own) {
  const uint64_t first = first_of_last_snapshot(stream);
  const auto bytes = first != 0 ? stream.read(first) : std::nullopt;
  if (!bytes) return;
  const MessageHead there = expect_chunk(*bytes, stream.place(first)).head;
  if (std::memcmp(there.identity, own.identity, sizeof own.identity) != 0) return;  // of a log that was not founded
  const uint64_t epoch = there.epoch, number = there.number;
  if (std::pair(epoch, number) > std::pair<uint64_t, uint64_t>(own.epoch, own.number))
    throw StoreError(TSLB_DURABLE_REFUSED,
                     fmt::format("{}: has a newer snapshot, of group {} of epoch {}", stream.name(), number, epoch));
}

}  // namespace

void publish_archive(NatsStream &stream, const MessageHead &head, const std::string &folder, size_t chunk_bytes) {
  std::vector<std::string> names;
  list_files(folder, "", names);
  std::sort(names.begin(), names.end());
  MessageHead first = head;
  for (const std::string &name : names)
    first.body_bytes += start_of(name, 0).size() + File::open(folder + "/" + name).bytes();
  first.n_chunks = static_cast<uint32_t>(std::max<uint64_t>(1, (first.body_bytes + chunk_bytes - 1) / chunk_bytes));
  const uint64_t last = stream.span().last;  // what another publishes from here on is refused, or this is
  expect_none_newer(stream, head);
  ArchiveWriter writer(stream, first, last, chunk_bytes);
  std::string part(chunk_bytes, '\0');
  for (const std::string &name : names) {
    const File file = File::open(folder + "/" + name);
    writer.write(start_of(name, file.bytes()));
    for (uint64_t at = 0; at < file.bytes();) {
      const size_t got = file.read_at(at, part.data(), part.size());
      writer.write(std::string_view(part).substr(0, got));
      at += got;
    }
  }
  writer.end();
  stream.purge_before(last + 1);
}

std::optional<MessageHead> fetch_archive(NatsStream &stream, const std::string &folder) {
  const uint64_t first = first_of_last_snapshot(stream);
  if (first == 0) return std::nullopt;
  remove_tree(folder);
  make_folder(folder);
  ArchiveReader reader(folder);
  std::optional<MessageHead> head;
  for (uint64_t at = first; !head || head->chunk + 1 < head->n_chunks; ++at) {
    const auto bytes = stream.read(at);
    if (!bytes) throw Unreachable(stream.place(at) + ": was removed meanwhile");
    const Message message = expect_chunk(*bytes, stream.place(at));
    if (head ? message.head.chunk != head->chunk + 1 || message.head.made_ns != head->made_ns : message.head.chunk != 0)
      throw StoreError(TSLB_DURABLE_DAMAGED, stream.place(at) + ": a chunk of another snapshot");
    reader.read(message.chunk, stream.place(at));
    head = message.head;
  }
  if (!reader.is_between_files())
    throw StoreError(TSLB_DURABLE_DAMAGED, stream.place(first) + ": the snapshot ends within a file");
  return head;
}

}  // namespace tslb_replica

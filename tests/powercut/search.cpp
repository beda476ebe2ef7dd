#include "search.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace powercut {
namespace {

size_t hash_of(const DiskState &state, const Bounds &bounds) {
  std::string text = fmt::format("{} {}", bounds.acknowledged, bounds.logged);
  for (const int batch : bounds.refused) text += ',' + std::to_string(batch);
  for (const auto &[path, file] : state)
    text += fmt::format("\n{} {:d} {} {} ", path, file.is_folder, file.size, file.bytes.size()) + file.bytes;
  return std::hash<std::string>()(text);
}

size_t hash_of(const std::vector<Op> &ops, const DiskState &before, const Bounds &bounds) {
  std::string text;
  DiskState touched;
  for (const Op &op : ops) {
    text += fmt::format("{} {} {} {} ", static_cast<int>(op.kind), op.file, op.at, op.path.size()) + op.path + op.text;
    for (const std::string &path : {op.path, op.text})
      if (const auto found = before.find(path); found != before.end()) touched.insert(*found);
  }
  return hash_of(touched, bounds) * 31 + std::hash<std::string>()(text);
}

// As a model sees it.
DiskState state_of(const std::string &root) {
  DiskState state;
  for (const auto &entry : fs::recursive_directory_iterator(root)) {
    DiskFile &file = state[entry.path().string().substr(root.size() + 1)];
    file.is_folder = entry.is_directory();
    if (file.is_folder) continue;
    std::ifstream in(entry.path(), std::ios::binary);
    file.bytes.assign(std::istreambuf_iterator<char>(in), {});
    file.size = file.bytes.size();
    file.bytes.resize(file.bytes.find_last_not_of('\0') + 1);
  }
  return state;
}

void put_file(const std::string &path, const DiskFile &file) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  const bool is_written =
      ::pwrite(fd, file.bytes.data(), file.bytes.size(), 0) == static_cast<ssize_t>(file.bytes.size());
  if (!is_written || ::ftruncate(fd, static_cast<off_t>(file.size)) != 0 || ::close(fd) != 0)
    throw std::runtime_error(path + " cannot be written");
}

void print(const Op &op) {
  static const char *const NAMES[] = {"open",        "write",  "truncate", "sync",          "failed sync",
                                      "make folder", "rename", "remove",   "remove folder", "mark"};
  static const char *const MARKS[] = {"begun", "acknowledged", "refused", "logged"};
  const char *const what =
      op.kind == OpKind::mark ? MARKS[static_cast<int>(op.mark)] : NAMES[static_cast<int>(op.kind)];
  std::printf("%-13s %3u %8llu %6zu bytes %s\n", what, op.file, static_cast<unsigned long long>(op.at), op.text.size(),
              op.path.c_str());
}

void print(const DiskState &state) {
  for (const auto &[path, file] : state)
    std::printf("  %s%s, %llu bytes, %zu before zeros\n", path.c_str(), file.is_folder ? "/" : "",
                static_cast<unsigned long long>(file.size), file.bytes.size());
}

std::vector<std::string> parts_of(const std::string &text) {
  std::vector<std::string> parts(1);
  for (const char c : text)
    if (c == ':')
      parts.emplace_back();
    else
      parts.back() += c;
  return parts;
}

}  // namespace

// A sync makes states impossible, and nothing else does. So the states just before each sync, and those at the end, are
// all states.
std::vector<Search::Cut> Search::cuts_of(const std::vector<Op> &ops, DiskModel disk, Bounds bounds) {
  std::vector<Cut> cuts;
  size_t n_ops = 0;
  for (const Op &op : ops) {
    if (op.kind == OpKind::sync) cuts.push_back({n_ops, disk, bounds});
    if (op.kind == OpKind::mark)
      bounds.apply(op);
    else
      disk.apply(op);
    ++n_ops;
  }
  cuts.push_back({n_ops, std::move(disk), bounds});
  return cuts;
}

Search::Search(const Scenario &scenario, uint64_t seed, std::string scratch, Visited &visited)
    : scenario_(scenario), seed_(seed), scratch_(std::move(scratch)), root_(scratch_ + "/cut"), visited_(visited) {
  const std::string root = scratch_ + "/run";
  fs::create_directories(root);
  run_.emplace(scenario.arrays, seed, root);
  repeat_random_bytes(seed + 1);
  begin_recording(root);
  scenario.run(*run_);
  ops_ = end_recording();
  repeat_random_bytes(0);
  cuts_ = cuts_of(ops_, DiskModel(), Bounds());
  counts_.n_cuts = cuts_.size();
  if (cuts_.back().disk.now() != state_of(root))
    throw Failure{scenario.name + ": the record lacks a change of the disk"};
  fs::remove_all(root);
}

bool Search::is_new(const DiskState &state, const Bounds &bounds) {
  const bool is_first = visited_.states.insert(hash_of(state, bounds)).second;
  ++(is_first ? counts_.n_states : counts_.n_repeated);
  return is_first;
}

std::vector<Search::Cut> Search::visit(const Cut &cut, const DiskState &state, const std::string &name, bool is_first) {
  fs::remove_all(root_);
  fs::create_directory(root_);
  for (const auto &[path, file] : state) {
    const std::string full_path = root_ + "/" + path;
    if (file.is_folder)
      fs::create_directory(full_path);
    else
      put_file(full_path, file);
  }
  begin_recording(root_);
  try {
    run_->recover(root_ + (run_->marks_backup_only ? "/backup" : "/store"), cut.bounds, is_first);
  } catch (const Failure &failure) {
    end_recording();
    throw Failure{fmt::format("{}\n  state {}", failure.what, name)};
  }
  // The recovery ends with the first mark.
  std::vector<Op> ops = end_recording();
  const auto mark = std::find_if(ops.begin(), ops.end(), [](const Op &op) { return op.kind == OpKind::mark; });
  if (mark != ops.end()) ops.erase(mark + 1, ops.end());
  recovery_ops_ = ops;
  if (!is_first || !visited_.recoveries.insert(hash_of(ops, state, cut.bounds)).second) return {};
  return cuts_of(ops, DiskModel(state), cut.bounds);
}

void Search::visit_all_of(const Cut &cut, const std::string &prefix, bool is_first, uint64_t max_states,
                          const std::function<bool()> &is_time_over) {
  std::mt19937_64 random(seed_);
  Choices choices;
  for (uint64_t left = max_states;; --left) {
    if (left == 0 || is_time_over()) {
      counts_.is_complete = false;
      return;
    }
    const DiskState state = cut.disk.after_cut(choices);
    if (is_new(state, cut.bounds)) {
      const std::string name = prefix + ":" + choices.text();
      const std::vector<Cut> inner = visit(cut, state, name, is_first);
      counts_.n_recovery += is_first ? 0 : 1;
      for (size_t i = 0; i < inner.size(); ++i)
        visit_all_of(inner[i], fmt::format("{}:{}", name, i), false, max_states, is_time_over);
    }
    if (!choices.next()) return;
  }
}

void Search::visit_all(uint64_t max_states, const std::function<bool()> &is_time_over) {
  size_t beginning = 0, n_ops = 0;
  for (size_t i = 0; i < cuts_.size(); ++i) {
    for (; n_ops < cuts_[i].n_ops; ++n_ops) beginning = beginning * 31 + hash_of({ops_[n_ops]}, {}, {});
    if (!visited_.beginnings.insert(beginning).second) continue;
    visit_all_of(cuts_[i], fmt::format("{}:{}:{}", scenario_.name, seed_, i), true, max_states, is_time_over);
  }
}

void Search::visit_random(std::mt19937_64 &random) {
  counts_.is_complete = false;
  const size_t number = random() % cuts_.size();
  Choices choices(random);
  const DiskState state = cuts_[number].disk.after_cut(choices);
  if (!is_new(state, cuts_[number].bounds)) return;
  const std::string name = fmt::format("{}:{}:{}:{}", scenario_.name, seed_, number, choices.text());
  const std::vector<Cut> inner = visit(cuts_[number], state, name, true);
  if (inner.empty()) return;
  const size_t inner_number = random() % inner.size();
  Choices inner_choices(random);
  const DiskState inner_state = inner[inner_number].disk.after_cut(inner_choices);
  if (!is_new(inner_state, inner[inner_number].bounds)) return;
  ++counts_.n_recovery;
  visit(inner[inner_number], inner_state, fmt::format("{}:{}:{}", name, inner_number, inner_choices.text()), false);
}

void Search::replay(const std::string &name) {
  const std::vector<std::string> parts = parts_of(name);
  std::vector<Cut> cuts = cuts_;
  for (size_t i = 2; i + 1 < parts.size(); i += 2) {
    const Cut cut = cuts.at(std::stoul(parts[i]));
    Choices choices(parts[i + 1]);
    const DiskState state = cut.disk.after_cut(choices);
    for (size_t at = 0; at < cut.n_ops; ++at) print(i == 2 ? ops_[at] : recovery_ops_[at]);
    std::puts("cut; the disk has:");
    print(state);
    std::fflush(stdout);
    cuts = visit(cut, state, name, i == 2);
  }
}

}  // namespace powercut

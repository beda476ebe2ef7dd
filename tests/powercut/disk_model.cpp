#include "disk_model.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace powercut {
namespace {

void expect(bool holds, const Op &op, const char *what) {
  if (holds) return;
  std::fprintf(stderr, "the record does not fit the state of the disk: %s (kind %d, \"%s\", \"%.60s\")\n", what,
               static_cast<int>(op.kind), op.path.c_str(), op.text.c_str());
  std::abort();
}

template <class Value>
void put_last(std::vector<Value> &values, const Value &value) {
  values.erase(std::remove(values.begin(), values.end(), value), values.end());
  values.push_back(value);
}

}  // namespace

// ---- Choices -------------------------------------------------------------------------------------------------------

Choices::Choices(const std::string &text) {
  std::istringstream in(text);
  for (uint32_t number; in >> number; in.ignore()) made_.push_back(number);
  numbers_.assign(made_.size(), 0);
}

uint32_t Choices::choose(size_t n) {
  if (n == 1) return 0;
  if (at_ == made_.size()) {
    uint32_t made = 0;
    if (random_ != nullptr) {
      if (at_ == 0) old_percent_ = static_cast<uint32_t>(5 + (*random_)() % 3 * 45);
      const bool is_extreme = n > 2 && (*random_)() % 2 == 0;
      made = is_extreme                          ? static_cast<uint32_t>((*random_)() % n)
             : (*random_)() % 100 < old_percent_ ? 0
                                                 : static_cast<uint32_t>(n - 1);
    }
    made_.push_back(made);
    numbers_.push_back(n);
  }
  numbers_[at_] = n;
  return std::min(made_[at_++], static_cast<uint32_t>(n - 1));
}

bool Choices::next() {
  made_.resize(at_);
  numbers_.resize(at_);
  at_ = 0;
  if (random_ != nullptr) {
    made_.clear();
    numbers_.clear();
    return true;
  }
  while (!made_.empty() && made_.back() + 1 == numbers_.back()) {
    made_.pop_back();
    numbers_.pop_back();
  }
  if (made_.empty()) return false;
  ++made_.back();
  return true;
}

std::string Choices::text() const {
  std::string text;
  for (size_t i = 0; i < at_; ++i) text.append(i != 0 ? 1 : 0, '.').append(std::to_string(made_[i]));
  return text;
}

// ---- Changes -------------------------------------------------------------------------------------------------------

DiskModel::DiskModel(const DiskState &synced) {
  add_node(true);
  for (const auto &[path, file] : synced) {
    const uint32_t number = add_node(file.is_folder);
    nodes_[number].bytes = file.bytes;
    nodes_[number].bytes.resize(file.size);
    folder_of(path).names[name_of(path)] = number;
  }
  for (Node &node : nodes_) sync(node);
}

uint32_t DiskModel::add_node(bool is_folder) {
  nodes_.emplace_back().is_folder = is_folder;
  return static_cast<uint32_t>(nodes_.size() - 1);
}

uint32_t DiskModel::node_at(const std::string &path) const {
  uint32_t node = 0;
  std::istringstream in(path);
  for (std::string name; std::getline(in, name, '/');) {
    const auto found = nodes_[node].names.find(name);
    if (found == nodes_[node].names.end()) return NONE;
    node = found->second;
  }
  return node;
}

std::string DiskModel::name_of(const std::string &path) {
  return path.substr(path.rfind('/') + 1);
}

DiskModel::Node &DiskModel::folder_of(const std::string &path) {
  const size_t slash = path.rfind('/');
  const uint32_t folder = node_at(slash == path.npos ? "" : path.substr(0, slash));
  expect(folder != NONE, {.path = path}, "no such folder");
  return nodes_[folder];
}

void DiskModel::change_names(Node &folder, std::vector<std::pair<std::string, uint32_t>> change) {
  for (const auto &[name, node] : change)
    if (node == NONE)
      folder.names.erase(name);
    else
      folder.names[name] = node;
  folder.changes.push_back(std::move(change));
}

// Replaces bytes, and changes the size.
void DiskModel::put(Node &file, uint64_t at, const std::string &text, uint64_t size) {
  const uint64_t old_size = file.bytes.size(), end = at + text.size();
  const uint64_t longest = std::max({old_size, size, end}), first = std::min(at, size) / SECTOR;
  const auto sector_of = [&file](uint64_t number) {
    std::string bytes = file.bytes.substr(std::min<uint64_t>(number * SECTOR, file.bytes.size()), SECTOR);
    bytes.resize(SECTOR);
    return bytes;
  };
  std::vector<std::string> before;
  for (uint64_t number = first; number * SECTOR < longest; ++number) before.push_back(sector_of(number));
  file.bytes.resize(longest);
  file.bytes.replace(at, text.size(), text);
  file.bytes.resize(size);
  for (uint64_t number = first; number * SECTOR < longest; ++number) {
    std::string after = sector_of(number);
    const auto old = file.sectors.find(number);
    const bool is_changed = after != before[number - first];
    // A lost sector that is written is written again by the next sync, also with the same bytes.
    if (old != file.sectors.end() && number * SECTOR < end) old->second.is_lost = false;
    if (!is_changed) continue;
    Sector &sector = file.sectors[number];
    if (sector.contents.empty()) sector.contents.push_back(before[number - first]);
    put_last(sector.contents, after);
    sector.is_lost = false;
    const uint64_t border = (number + 1) * SECTOR;
    if (border > old_size && border < size) put_last(file.sizes, border);
  }
  put_last(file.sizes, size);
}

void DiskModel::sync(Node &node) {
  std::erase_if(node.sectors, [](const auto &sector) { return !sector.second.is_lost; });
  node.sizes = {node.bytes.size()};
  node.synced = node.names;
  node.changes.clear();
}

void DiskModel::apply(const Op &op) {
  switch (op.kind) {
    case OpKind::open: {
      uint32_t node = node_at(op.path);
      if (node == NONE) {
        node = add_node(false);
        change_names(folder_of(op.path), {{name_of(op.path), node}});
      }
      expect(nodes_[node].is_folder == op.is_folder && op.file == opened_.size() + 1, op, "open");
      opened_.push_back(node);
      break;
    }
    case OpKind::write: {
      Node &file = nodes_[opened_.at(op.file - 1)];
      put(file, op.at, op.text, std::max<uint64_t>(file.bytes.size(), op.at + op.text.size()));
      break;
    }
    case OpKind::truncate:
      put(nodes_[opened_.at(op.file - 1)], op.at, "", op.at);
      break;
    case OpKind::sync:
      sync(nodes_[opened_.at(op.file - 1)]);
      break;
    case OpKind::failed_sync:
      for (auto &[number, sector] : nodes_[opened_.at(op.file - 1)].sectors) sector.is_lost = true;
      break;
    case OpKind::make_folder:
      expect(node_at(op.path) == NONE, op, "the folder exists");
      change_names(folder_of(op.path), {{name_of(op.path), add_node(true)}});
      break;
    case OpKind::rename: {
      Node &folder = folder_of(op.path);
      expect(&folder == &folder_of(op.text) && node_at(op.path) != NONE, op, "a rename within one folder");
      change_names(folder, {{name_of(op.path), NONE}, {name_of(op.text), node_at(op.path)}});
      break;
    }
    case OpKind::remove:
    case OpKind::remove_folder: {
      const uint32_t node = node_at(op.path);
      expect(node != NONE && nodes_[node].names.empty(), op, "remove");
      change_names(folder_of(op.path), {{name_of(op.path), NONE}});
      break;
    }
    case OpKind::mark:
      break;
  }
}

// ---- States --------------------------------------------------------------------------------------------------------

DiskFile DiskModel::file_of(const Node &node, Choices *choices) {
  DiskFile file = {false, node.bytes.size(), node.bytes};
  if (choices != nullptr) {
    file.size = node.sizes[choices->choose(node.sizes.size())];
    file.bytes.resize(file.size);
    for (const auto &[number, sector] : node.sectors) {
      const uint64_t at = number * SECTOR;
      if (at >= file.size) break;
      const std::string &content = sector.contents[choices->choose(sector.contents.size())];
      file.bytes.replace(at, std::min(SECTOR, file.size - at), content, 0, std::min(SECTOR, file.size - at));
    }
  }
  file.bytes.resize(file.bytes.find_last_not_of('\0') + 1);
  return file;
}

void DiskModel::visit(uint32_t number, const std::string &path, Choices *choices, DiskState &state) const {
  const Node &node = nodes_[number];
  if (!node.is_folder) {
    state[path] = file_of(node, choices);
    return;
  }
  Names names = choices != nullptr ? node.synced : node.names;
  if (choices != nullptr)
    for (const auto &change : node.changes)
      if (choices->choose(2) == 1)
        for (const auto &[name, changed] : change) names[name] = changed;
  if (!path.empty()) state[path] = {true};
  for (const auto &[name, child] : names)
    if (child != NONE) visit(child, path.empty() ? name : path + "/" + name, choices, state);
}

DiskState DiskModel::now() const {
  DiskState state;
  visit(0, "", nullptr, state);
  return state;
}

DiskState DiskModel::after_cut(Choices &choices) const {
  DiskState state;
  visit(0, "", &choices, state);
  return state;
}

}  // namespace powercut

// Finds the files of descriptions.
#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "layout.h"

namespace inspect {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view LAYOUT_SUFFIX = ".layout";
constexpr size_t MAX_LAYOUT_BYTES = 1 << 20;

// Relative to the program, so that an installation can be moved.
fs::path installed_folder() {
  std::error_code ignored;
  return (fs::read_symlink("/proc/self/exe", ignored).parent_path() / TSLB_LAYOUTS_FROM_PROGRAM).lexically_normal();
}

std::string installed_names() {
  std::vector<std::string> names;
  std::error_code ignored;
  for (const auto &entry : fs::directory_iterator(installed_folder(), ignored))
    if (entry.path().extension() == LAYOUT_SUFFIX) names.push_back(entry.path().stem());
  std::sort(names.begin(), names.end());
  std::string text;
  for (const std::string &name : names) text += (text.empty() ? "" : ", ") + name;
  return text.empty() ? "none" : text;
}

}  // namespace

layout_t load_layout(const std::string &name) {
  const bool is_path = name.find('/') != name.npos || name.ends_with(LAYOUT_SUFFIX);
  const std::string path = is_path ? name : (installed_folder() / (name + std::string(LAYOUT_SUFFIX))).string();
  std::error_code ignored;
  if (!is_path && !fs::exists(path, ignored))
    throw layout_error_t(fmt::format("no description \"{}\" is installed; there are: {}", name, installed_names()));
  // A folder or a pipe is not read.
  std::ifstream file(fs::is_regular_file(path, ignored) ? path : "", std::ios::binary);
  std::string text(MAX_LAYOUT_BYTES + 1, '\0');
  if (file) file.read(text.data(), static_cast<std::streamsize>(text.size()));
  if (!file.eof()) throw layout_error_t(path + ": cannot be read, or is not a description");
  text.resize(static_cast<size_t>(file.gcount()));
  return parse_layout(text, path);
}

}  // namespace inspect

// Documents name sources and tests: what they name is in the tree.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

namespace fs = std::filesystem;

static const fs::path ROOT = TSLB_SOURCE_DIR;

static std::string text_of(const fs::path &path) {
  std::ifstream in(path);
  EXPECT_TRUE(in.good()) << path;
  return {std::istreambuf_iterator<char>(in), {}};
}

class tree_t {
 public:
  tree_t() {
    for (const char *const folder : {"utils", "catalog", "host", "examples", "tools", "fuzz", "tests", "docs", "bench"})
      for (const auto &file : fs::recursive_directory_iterator(ROOT / folder)) paths_.push_back(file.path().string());
    for (const auto &file : fs::directory_iterator(ROOT)) paths_.push_back(file.path().string());
    for (const auto &file : fs::directory_iterator(ROOT / "tests"))
      if (file.path().extension() == ".cpp") tests_ += text_of(file.path());
  }

  // By its name, or by the end of its path.
  bool has_file(const std::string &name) const {
    return std::any_of(paths_.begin(), paths_.end(), [&](const std::string &path) {
      return path.ends_with(name) && path[path.size() - name.size() - 1] == '/';
    });
  }
  bool has_test(const std::string &suite, const std::string &name) const {
    return tests_.find('(' + suite + ", " + name + ')') != std::string::npos;
  }

 private:
  std::vector<std::string> paths_;
  std::string tests_;
};

TEST(Documents, FilesAndTestsThatTheyNameAreThere) {
  const tree_t tree;
  static const std::regex quoted("`([^`\n]+)`"), file(R"(([\w-]+/)*\w+\.(h|cpp|c|md))"),
      test(R"((?:\w+_test\.)?([A-Z]\w+)\.([A-Z]\w+))");
  for (const char *const document : {"docs/formats.md", "docs/hosting.md", "docs/reliability.md", "CONTRIBUTING.md"}) {
    const std::string text = text_of(ROOT / document);
    int n_names = 0;
    for (std::sregex_iterator it(text.begin(), text.end(), quoted), end; it != end; ++it) {
      const std::string name = (*it)[1];
      std::smatch found;
      if (std::regex_match(name, file)) {
        ++n_names;
        EXPECT_TRUE(tree.has_file(name)) << document << ": " << name;
      } else if (std::regex_match(name, found, test)) {
        ++n_names;
        EXPECT_TRUE(tree.has_test(found[1], found[2])) << document << ": " << name;
      }
    }
    EXPECT_GT(n_names, 0) << document << ": no name was found";
  }
}

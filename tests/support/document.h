// Readers of docs/formats.md.
#ifndef TSLB_TESTS_DOCUMENT_H
#define TSLB_TESTS_DOCUMENT_H

#include <sstream>
#include <string>

#include "system_support.h"

static const fs::path ROOT = TSLB_SOURCE_DIR;

// Returns the text between "```dump name" and "```".
inline std::string block_of(const std::string &name) {
  const std::string document = content_of(ROOT / "docs/formats.md");
  const std::string begin = "\n```" + name + "\n";
  const size_t at = document.find(begin);
  if (at == std::string::npos) {
    ADD_FAILURE() << "no block \"" << name << "\"";
    return "";
  }
  return document.substr(at + begin.size(), document.find("```", at + begin.size()) - at - begin.size());
}

// Parses lines such as "0008  ff ff ff ff  ; no slot is free", which begin with their offset.
inline std::string bytes_of_dump(const std::string &dump) {
  std::string bytes;
  std::istringstream lines(dump);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line.substr(0, line.find(';')));
    size_t offset = 0;
    EXPECT_TRUE(words >> std::hex >> offset) << line;
    EXPECT_EQ(offset, bytes.size()) << line;
    for (unsigned byte; words >> std::hex >> byte;) bytes += static_cast<char>(byte);
    EXPECT_TRUE(words.eof()) << line;
  }
  return bytes;
}

#endif

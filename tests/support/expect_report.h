// Reports of the library that begin with their place.
#ifndef TSLB_TESTS_EXPECT_REPORT_H
#define TSLB_TESTS_EXPECT_REPORT_H

#include <gtest/gtest.h>

#include <string>

// That a report is `file`, a line's number and `text`, with colons between them.
inline void expect_report(const std::string &report, const std::string &file, const std::string &text) {
  ASSERT_EQ(report.rfind(file + ':', 0), 0u) << report;
  const size_t number = file.size() + 1, end = report.find_first_not_of("0123456789", number);
  ASSERT_GT(end, number) << report;
  EXPECT_EQ(report.substr(end), ':' + text);
}

#endif

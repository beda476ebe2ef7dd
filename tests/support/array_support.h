// Helpers for tests of arrays: an owner of handles, captured output, and readers of stored bytes.
#ifndef TSLB_TESTS_ARRAY_SUPPORT_H
#define TSLB_TESTS_ARRAY_SUPPORT_H

#include <gtest/gtest.h>
#include <string.h>

#include <memory>
#include <string>
#include <vector>

#include <tslb/tslb_dynarr.h>
#include <tslb/tslb_dynmem.h>

struct array_release_t {
  void operator()(DynArrHandle_t *array) const { destroy_dyn_arr(array); }
};
using array_t = std::unique_ptr<DynArrHandle_t, array_release_t>;

// Returns the text that `work` writes to the standard error stream.
template <class Work>
std::string stderr_of(Work work) {
  testing::internal::CaptureStderr();
  work();
  return testing::internal::GetCapturedStderr();
}

template <class Work>
std::string stdout_of(Work work) {
  fflush(stdout);
  testing::internal::CaptureStdout();
  work();
  fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

// Expects a report of the form `file`, line number and `text`, separated by colons.
inline void expect_report(const std::string &report, const std::string &file, const std::string &text) {
  ASSERT_EQ(report.rfind(file + ':', 0), 0u) << report;
  const size_t number = file.size() + 1, end = report.find_first_not_of("0123456789", number);
  ASSERT_GT(end, number) << report;
  EXPECT_EQ(report.substr(end), ':' + text);
}

inline char *bytes_of(void *at) {
  return static_cast<char *>(at);
}

template <class T>
T read_at(const void *base, size_t offset) {
  T value;
  memcpy(&value, static_cast<const char *>(base) + offset, sizeof(value));
  return value;
}

template <class T>
void write_at(void *base, size_t offset, T value) {
  memcpy(static_cast<char *>(base) + offset, &value, sizeof(value));
}

// Sets the number of issued ids to `count` without allocating their memory. The next lookups create only their own
// paths.
inline void pretend_issued(DynArrHandle_t *array, uint32_t count) {
  get_dyn_hdr(array)->n_used = count;
}

inline node_fw &forward_node(void *slot_ptr) {
  return *reinterpret_cast<node_fw *>(bytes_of(slot_ptr) - 8);
}
inline node_bw &backward_node(DynArrHandle_t *array, void *slot_ptr) {
  return *reinterpret_cast<node_bw *>(bytes_of(slot_ptr) + get_dyn_arr_record_sz(array));
}
inline DynArrLLI_t &list_roots(DynArrHandle_t *array) {
  return *static_cast<DynArrLLI_t *>(tslb_da_get_lli(array));
}

inline uint32_t as_word(maddr_t address) {
  uint32_t word;
  memcpy(&word, &address, sizeof(word));
  return word;
}

#endif

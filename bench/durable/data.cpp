#include "data.h"

#include <fmt/format.h>

#include <bit>
#include <cstring>

namespace {

constexpr uint64_t START_US = 1'700'000'000'000'000;
constexpr uint64_t STEP_US = 1000;
constexpr uint32_t MAX_VALUE = 1'000'000;
constexpr double VALUE_STEP = 0.01;

}  // namespace

data_t::data_t(uint32_t n_records, bool is_random) : is_random_(is_random) {
  records_.reserve(n_records);
  for (uint32_t id = 0; id < n_records; ++id) records_.push_back(make_record(id));
}

record_t data_t::make_record(uint32_t id) {
  record_t record;
  ++n_made_;
  if (is_random_) {
    for (uint64_t &word : record.words) word = random_.next();
    return record;
  }
  const uint64_t time_us = START_US + n_made_ * STEP_US + random_.below(STEP_US);
  const double value = random_.below(MAX_VALUE) * VALUE_STEP;
  char name[16] = {};
  fmt::format_to_n(name, sizeof name, "sensor-{}", id);
  record = {{id, time_us, std::bit_cast<uint64_t>(value), n_made_, 0, 0, random_.next(), random_.next()}};
  std::memcpy(&record.words[4], name, sizeof name);
  return record;
}

std::vector<update_t> data_t::make_updates(size_t count, unsigned writer, unsigned n_writers) {
  const auto n_own = static_cast<uint32_t>((records_.size() - writer + n_writers - 1) / n_writers);
  std::vector<update_t> updates(count);
  for (update_t &update : updates) {
    update.id = random_.below(n_own) * n_writers + writer;
    update.record = records_[update.id] = make_record(update.id);
  }
  return updates;
}

std::vector<uint32_t> data_t::random_ids(size_t count) {
  std::vector<uint32_t> ids(count);
  for (uint32_t &id : ids) id = random_.below(static_cast<uint32_t>(records_.size()));
  return ids;
}

// Readers without a lock, which compare a version (metricdb/store/optimistic.h).
#include <new>

#include "access.h"
#include "machine.h"
#include "optimistic.h"
#include "scenario.h"

namespace {

using metricdb::Version;

// Two words that are equal except while they are changed.
struct data_t {
  Version version;
  uint64_t words[2];
};
data_t *data;

void write_twice() {
  for (uint64_t value = 1; value <= 2; ++value) {
    data->version.begin_change();
    for (uint64_t &word : data->words) explore_store(&word, value, __ATOMIC_RELAXED);
    data->version.end_change();
  }
}

void read(int thread) {
  for (int attempt = 0; attempt < 2; ++attempt) {
    const uint32_t seen = data->version.begin_read();
    const uint64_t first = explore_load(&data->words[0], __ATOMIC_RELAXED);
    const uint64_t second = explore_load(&data->words[1], __ATOMIC_RELAXED);
    if (!data->version.is_unchanged(seen)) continue;
    if (first != second) machine.violation("a reader uses words of two moments: %lu and %lu", first, second);
    scene.result[thread] = 1;
    return;
  }
}

void setup() {
  data = new (machine.arena.allocate(0, sizeof(data_t))) data_t();
}
void check() {
  EXPECT_THAT_AT_END(data->words[0] == 2 && data->words[1] == 2 && !Version::is_changing(data->version.begin_read()));
}

const scenario_t SCENARIOS[] = {
    {"readers_of_a_version", "two words are changed twice; two readers try twice to copy them", 3, setup,
     [](int t) { t == 0 ? write_twice() : read(t); }, check},
};

}  // namespace
const std::span<const scenario_t> READER_SCENARIOS(SCENARIOS);

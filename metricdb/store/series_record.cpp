#include "store/series_record.h"

#include <algorithm>
#include <iterator>

namespace metricdb {

void SeriesRecord::copy_fields(const SeriesRecord &from) const {
  set_key(from.key());
  set_flags(from.flags());
  set_open(from.open());
  set_n_open(from.n_open());
  set_n_sealed(from.n_sealed());
  set_first_sealed(from.first_sealed());
  set_last_sealed(from.last_sealed());
  set_n_points(from.n_points());
  set_written_at_ns(from.written_at_ns());
  set_newest_ns(from.newest_ns());
  set_interval_ms(from.interval_ms());
}

bool SeriesRecord::is_clean() const {
  char rest[sizeof(ty_sub_t_v1)];
  const size_t bytes = series_record_bytes(layout_);
  std::memcpy(rest, at_, bytes);
  const auto clear = [&rest](size_t offset, size_t length) { std::fill_n(rest + offset, length, '\0'); };
  clear(KEY_REFERENCE, sizeof(maddr_t));
  clear(N_SEALED, sizeof(uint32_t));
  clear(FLAGS, sizeof(uint8_t));
  clear(OPEN_REFERENCE, sizeof(maddr_t));
  clear(N_OPEN, sizeof(uint32_t));
  for (size_t number = 0; number < 4; ++number) clear(rsb(number), 2 * sizeof(uint32_t));
  if (layout_ == NEWEST_LAYOUT) clear(INTERVAL, sizeof(uint32_t));
  return rest[0] == '\0' && std::memcmp(rest, rest + 1, bytes - 1) == 0;
}

}  // namespace metricdb

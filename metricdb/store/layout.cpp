#include "store/layout.h"

#include <fmt/format.h>
#include <tslb/tsdb_recovery_version_compatibility.h>

#include <new>
#include <stdexcept>

#include "store/store_internal.h"

namespace metricdb {
namespace {

using Routine = void (*)(void *);

constexpr int EMPTY_DIRECT_SLOTS = 64;

// The routine makes every record active, and does not convert the lists.
void restore_free_list(DynArrHandle_t *catalogue, uint8_t layout) {
  for (uint32_t index = 0; index < tslb_da_get_size(catalogue); ++index) {
    const SeriesRecord record(static_cast<char *>(tslb_da_get_ptr(catalogue, index)), layout);
    if ((record.flags() & SERIES_READY) == 0) tslb_da_free_idx(catalogue, index);
  }
}

}  // namespace

Array convert_catalogue(DynArrHandle_t *catalogue, uint8_t layout) {
  const auto routine = reinterpret_cast<Routine>(tsdb_recovery_version_get_downgrade_fn_ptr(RECTYPE_TYPE, layout, 0));
  if (routine == nullptr)
    throw std::runtime_error(fmt::format("the library cannot convert the catalogue to layout {}", layout));
  // The routine fills direct slots only.
  const uint32_t n_records = tslb_da_get_size(catalogue);
  Array older(tslb_da_init_ver(static_cast<int>(series_record_bytes(layout)),
                               n_records != 0 ? static_cast<int>(n_records) : EMPTY_DIRECT_SLOTS, MPOOL_TYPE_DRAM,
                               CONTEXT, CATALOGUE_TABLE, TSLB_DA_DAFLAG_INLL, layout));
  if (!older) throw std::bad_alloc();
  if (n_records == 0) return older;
  TSDBVerCBArgs_t arguments = {RECTYPE_TYPE, catalogue, older.get()};
  routine(&arguments);
  if (tslb_da_get_size(older.get()) != n_records)
    throw std::runtime_error(fmt::format("only {} of {} series could be converted to layout {} of the catalogue",
                                         tslb_da_get_size(older.get()), n_records, layout));
  restore_free_list(older.get(), layout);
  return older;
}

}  // namespace metricdb

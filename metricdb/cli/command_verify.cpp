// `metricdb verify`: opens a database, which checks everything, and prints a summary.
#include <fmt/format.h>
#include <tslb/array_check.h>
#include <tslb/array_loader.h>

#include "cli/commands.h"
#include "cli/output.h"
#include "cli/write_options.h"
#include "store/database.h"
#include "store/store_internal.h"

namespace metricdb {
namespace {

// Checks the lists of the final arrays, and the chunks of the pools. Opening checked the lists before the store was
// restored.
void expect_sound(const char *name, DynArrHandle_t *array, bool is_pool) {
  char why[256];
  const int result = is_pool ? pool_check(array, why, sizeof why) : array_check(array, ARRAY_LOAD_ANY, why, sizeof why);
  if (result != 0) throw DatabaseError(fmt::format("{}: {}", name, why));
}

// Checks that the look-up of each key returns its series. Returns the number of keys.
uint64_t count_keys(const Store &store) {
  uint64_t n_keys = 0;
  for (uint32_t series = 0; series < store.n_slots(); ++series) {
    if (!store.holds_series(series)) continue;
    if (store.find(store.key(series)) != series)
      throw DatabaseError(fmt::format("series {}: the look-up of its key \"{}\" fails", series, store.key(series)));
    ++n_keys;
  }
  return n_keys;
}

// Walks all chains. Returns the number of points.
uint64_t count_points(const Store &store) {
  uint64_t n_points = 0;
  for (uint32_t series = 0; series < store.n_slots(); ++series) {
    if (!store.holds_series(series)) continue;
    PointCursor cursor(store, series);
    for (Point point; cursor.next(point);) {
    }
    if (cursor.n_passed() != store.record(series).n_points())
      throw DatabaseError(fmt::format("series {}: its chunks hold {} points, but its record counts {}", series,
                                      cursor.n_passed(), store.record(series).n_points()));
    n_points += cursor.n_passed();
  }
  return n_points;
}

std::string pool_line(const char *name, dynmem_t *pool, const PoolBytes &bytes) {
  return fmt::format("{:<17}{} memory slots, {} of them free; {} bytes of chunks, {} of them deleted\n", name,
                     tslb_da_get_size(pool), uint32_t{lists_of(pool)->n_free}, bytes.used, bytes.deleted);
}

}  // namespace

int verify(const VerifyArguments &arguments) {
  const OpenDatabase opened = open_to_read(arguments.db, arguments.salvage);
  const Store &store = opened.store();
  expect_sound("catalogue", store.catalogue(), false);
  expect_sound("keys", store.keys(), true);
  expect_sound("points", store.points(), true);
  const uint64_t n_keys = count_keys(store);
  const uint64_t n_points = count_points(store);
  print(fmt::format("verified         {}: generation {}, layout {} of the catalogue; {} batches in its journal\n"
                    "series           {} in {} slots, {} inactive, {} free; every key leads to its series\n"
                    "points           {}, in chains that contain each chunk once\n",
<<<<<<< HEAD
                    arguments.db, opened.generation(), store.config().layout, opened.n_batches(), n_keys,
=======
                    arguments.db, opened.generation().number, store.config().layout, opened.n_batches(), n_keys,
>>>>>>> 849eaa61c1ff322441a9fbfeece636806ef785c7
                    store.n_slots(), store.n_inactive(), uint32_t{lists_of(store.catalogue())->n_free}, n_points) +
        pool_line("keys", store.keys(), store.key_bytes()) + pool_line("points", store.points(), store.point_bytes()));
  return EXIT_GOOD;
}

}  // namespace metricdb

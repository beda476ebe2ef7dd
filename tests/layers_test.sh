#!/usr/bin/env bash
# Checks that the sources include only files that their layer allows, and that scripts/layers reports each kind of
# forbidden include.
#   layers_test.sh SOURCE_FOLDER
set -euo pipefail
source=$1
"$source/scripts/layers"

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
for folder in utils catalog host recovery durable cpp python examples tools bench fuzz metricdb tests cmake; do
  (cd "$source" && find "$folder" \( -name '*.h' -o -name '*.hpp' -o -name '*.cpp' -o -name '*.c' -o -name headers.cmake \) -print0 |
    xargs -0 cp --parents -t "$scratch")
done
"$source/scripts/layers" "$scratch"

# expect_report FILE INCLUDE: adds a forbidden include to a file
expect_report() {
  cp "$scratch/$1" "$scratch/kept"
  echo "#include $2" >>"$scratch/$1"
  if "$source/scripts/layers" "$scratch" 2>"$scratch/log" || ! grep -q "^$1: " "$scratch/log"; then
    echo "$1 includes $2, which is not reported" >&2
    exit 1
  fi
  mv "$scratch/kept" "$scratch/$1"
}
expect_report utils/common/src/tslb_util.cpp '"tslb_dynarr.h"'                 # common does not use arrays
expect_report utils/dynarr/src/dynamic_array.cpp '"tslb_dynmem.h"'             # an upward include other than the two allowed
expect_report utils/dynarr/src/dynarr_lookup.h '"dynmem_internal.h"'
expect_report utils/dynmem/src/tslb_dynmem.cpp '"tsdb_recovery_schema.h"'
expect_report utils/dynmem/src/tslb_dynmem.cpp '<tslb/tslb_dynarr.h>'          # a staged header in the library
expect_report tests/pool_test.cpp '"dynarr_lookup.h"'                          # a private header outside the library
expect_report recovery/array_loader.cpp '<tslb/dynarr_lookup.h>'
expect_report recovery/array_loader.cpp '<tslb/durable.h>'                     # an installed header of a higher folder
expect_report durable/durable.cpp '<tslb/durable.hpp>'                         # the typed layer is above all others
expect_report tools/tslb_convert.cpp '"journal_writer.h"'
expect_report metricdb/codec/point_codec.cpp '"store/store.h"'
expect_report metricdb/query/query.cpp '"net/server.h"'

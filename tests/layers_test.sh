#!/usr/bin/env bash
# The sources include only what their layer may, and scripts/layers notices each kind of include that it must not allow.
#   layers_test.sh SOURCE_FOLDER
set -euo pipefail
source=$1
"$source/scripts/layers"

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
for folder in utils catalog host recovery tools bench fuzz metricdb tests cmake; do
  (cd "$source" && find "$folder" \( -name '*.h' -o -name '*.cpp' -o -name '*.c' -o -name headers.cmake \) -print0 |
    xargs -0 cp --parents -t "$scratch")
done
"$source/scripts/layers" "$scratch"

# notices FILE INCLUDE: an include that is planted in a file
notices() {
  cp "$scratch/$1" "$scratch/kept"
  echo "#include $2" >>"$scratch/$1"
  if "$source/scripts/layers" "$scratch" 2>"$scratch/log" || ! grep -q "^$1: " "$scratch/log"; then
    echo "$1 includes $2, and nothing is reported" >&2
    exit 1
  fi
  mv "$scratch/kept" "$scratch/$1"
}
notices utils/common/src/tslb_util.cpp '"tslb_dynarr.h"'                 # common knows no array
notices utils/dynarr/src/dynamic_array.cpp '"tslb_dynmem.h"'             # an upward include beside the two that remain
notices utils/dynarr/src/dynarr_lookup.h '"dynmem_internal.h"'
notices utils/dynmem/src/tslb_dynmem.cpp '"tsdb_recovery_schema.h"'
notices utils/dynmem/src/tslb_dynmem.cpp '<tslb/tslb_dynarr.h>'          # a staged header within the library
notices tests/pool_test.cpp '"dynarr_lookup.h"'                          # a private header outside of it
notices recovery/array_loader.cpp '<tslb/dynarr_lookup.h>'
notices metricdb/codec/point_codec.cpp '"store/store.h"'
notices metricdb/query/query.cpp '"net/server.h"'

#!/usr/bin/env bash
# Compares the library's exports with the list in the tree, so that a new export shows in a diff.
#   check_exports.sh LIBRARY LIST
set -euo pipefail
diff -u "$2" <(nm -D --defined-only "$1" | awk '{print $3}' | LC_ALL=C sort) ||
  { echo "the exports of the library and $2 differ" >&2; exit 1; }

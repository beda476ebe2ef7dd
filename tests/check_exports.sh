#!/usr/bin/env bash
# Compares what the library exports with the list in the tree: an export is a decision that shows in a diff.
#   check_exports.sh LIBRARY LIST
set -euo pipefail
diff -u "$2" <(nm -D --defined-only "$1" | awk '{print $3}' | LC_ALL=C sort) ||
  { echo "what the library exports and $2 differ" >&2; exit 1; }

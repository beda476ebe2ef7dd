#!/usr/bin/env bash
# Compares the probes in the library's notes, and their numbers of arguments, with a list. Every copy of a probe must
# have the same number.
#   probes_test.sh LIBRARY
set -euo pipefail
found=$(readelf -n "$1" | awk '
  /Provider: /  { provider = $2 }
  /Name: /      { name = $2 }
  /Arguments: / { if (provider == "tslb") print name, NF - 1 }' | LC_ALL=C sort -u)
diff -u - <(echo "$found") <<'PROBES' || { echo "the probes of $1 and those listed here differ" >&2; exit 1; }
block__created 4
chunk__deleted 5
chunk__taken 5
pool__slot 4
slot__freed 3
slot__taken 3
snapshot__block 4
PROBES

#!/usr/bin/env bash
# Runs the example of the typed layer twice, and checks that docs/cpp.md shows its source and its output.
#   typed_readings_test.sh PROGRAM SOURCE_FOLDER
set -euo pipefail
program=$1
source=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
awk '/^```/ { inside = !inside && $0 == "```cpp full"; next } inside' "$source/docs/cpp.md" >"$scratch/shown.cpp"
diff -u "$source/examples/typed_readings/main.cpp" "$scratch/shown.cpp"
"$program" "$scratch/readings" >"$scratch/first"
"$program" "$scratch/readings" >"$scratch/second"
awk '/^```/ { inside = !inside && $0 == "```text"; next } inside' "$source/docs/cpp.md" >"$scratch/shown"
diff -u "$scratch/shown" "$scratch/second"
head -n 2 "$scratch/second" | diff -u - "$scratch/first"
# Another program at the folder of a store is not accepted.
if "$program" /dev/null 2>"$scratch/log" || ! grep -q /dev/null "$scratch/log"; then
  echo "a file in place of the folder is not refused with its name" >&2
  exit 1
fi

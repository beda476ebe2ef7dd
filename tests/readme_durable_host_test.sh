#!/usr/bin/env bash
# Runs the durable host of the README. It must print the text in the README, keep its array from run to run, and report a
# folder that is not a store.
#   readme_durable_host_test.sh PROGRAM README
set -euo pipefail
host=$1 readme=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"
fail() {
  echo "$*" >&2
  exit 1
}

documented=$(sed -n 's/^The first run prints `\([^`]*\)`.*/\1/p' "$readme")
[ -n "$documented" ] || fail "$readme does not contain the output of its durable host"
printed=$("$host")
[ "$printed" = "$documented" ] || fail "the host prints \"$printed\", the README shows \"$documented\""
printed=$("$host")
[ "$printed" = "${documented/2 readings/4 readings}" ] || fail "the second run prints \"$printed\""

rm readings/store
! "$host" >/dev/null 2>errors || fail "it opened a folder that is not a store"
grep -q 'readings: ' errors || fail "it does not report which folder is not a store: $(cat errors)"

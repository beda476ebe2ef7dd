#!/usr/bin/env bash
# Runs the host of the README. It must print the text in the README, write valid files, and report a file that it cannot
# write.
#   readme_host_test.sh PROGRAM README [TSLB_INSPECT]
set -euo pipefail
host=$1 readme=$2 inspect=${3:-}
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"
fail() {
  echo "$*" >&2
  exit 1
}

documented=$(sed -n 's/^It prints `\([^`]*\)`.*/\1/p' "$readme")
[ -n "$documented" ] || fail "$readme does not contain the output of its host"
printed=$("$host")
[ "$printed" = "$documented" ] || fail "the host prints \"$printed\", the README shows \"$documented\""
if [ -n "$inspect" ]; then
  "$inspect" sensors.stream names.stream >inspected || fail "$(cat inspected)"
fi

rm names.stream
mkdir names.stream
! "$host" >/dev/null 2>errors || fail "it wrote no file and reported success"
grep -q '^names.stream: ' errors || fail "it does not report which file it could not write: $(cat errors)"

#!/usr/bin/env bash
# Runs the host that the README shows: it prints what the README says, writes files that are sound, and tells when it
# cannot write one.
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

promised=$(sed -n 's/^It prints `\([^`]*\)`.*/\1/p' "$readme")
[ -n "$promised" ] || fail "$readme does not say what its host prints"
printed=$("$host")
[ "$printed" = "$promised" ] || fail "the host prints \"$printed\", and the README says \"$promised\""
if [ -n "$inspect" ]; then
  "$inspect" sensors.stream names.stream >inspected || fail "$(cat inspected)"
fi

rm names.stream
mkdir names.stream
! "$host" >/dev/null 2>told || fail "it wrote no file, and reports success"
grep -q '^names.stream: ' told || fail "it does not tell which file it could not write: $(cat told)"

#!/usr/bin/env bash
# Checks the units of systemd in packaging/metricdb: their syntax, what the service is allowed to do, and the names of the
# sockets, which the program knows.
#   metricdb_units_test.sh UNIT_FOLDER PROGRAM
set -euo pipefail
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cp "$1"/*.service "$1"/*.socket "$scratch"
sed -i "s#=/usr/bin/metricdb #=$2 #" "$scratch/metricdb.service"
cd "$scratch"
found=$(systemd-analyze verify --man=no ./metricdb.service ./metricdb.socket ./metricdb-graphite.socket 2>&1)
[ -z "$found" ] || { echo "$found" >&2; exit 1; }
# Of 100; a service without restrictions has about 96.
systemd-analyze security --offline=true --threshold=15 ./metricdb.service >exposure || { cat exposure >&2; exit 1; }
grep -qx FileDescriptorName=influx metricdb.socket
grep -qx FileDescriptorName=graphite metricdb-graphite.socket

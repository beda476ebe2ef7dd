#!/usr/bin/env bash
# Checks the units of systemd in packaging/metricdb: their syntax, what the service is allowed to do, the names of the
# sockets, which the program knows, and that a purge leaves no link to them.
#   metricdb_units_test.sh UNIT_FOLDER PROGRAM
set -euo pipefail
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
packaging=$(realpath "$1")
cp "$1"/*.service "$1"/*.socket "$scratch"
sed -i "s#=/usr/bin/metricdb #=$2 #" "$scratch/metricdb.service"
cd "$scratch"
found=$(systemd-analyze verify --man=no ./metricdb.service ./metricdb.socket ./metricdb-graphite.socket 2>&1)
[ -z "$found" ] || { echo "$found" >&2; exit 1; }
# Of 100; a service without restrictions has about 96.
systemd-analyze security --offline=true --threshold=15 ./metricdb.service >exposure || { cat exposure >&2; exit 1; }
grep -qx FileDescriptorName=influx metricdb.socket
grep -qx FileDescriptorName=graphite metricdb-graphite.socket

# The scripts run in a root of their own, without the host's systemd.
command -v deb-systemd-helper >/dev/null || exit 0
systemctl() { :; }
export -f systemctl
export DPKG_ROOT=$scratch/root DPKG_MAINTSCRIPT_PACKAGE=metricdb
units=$DPKG_ROOT/lib/systemd/system
wanted=$DPKG_ROOT/etc/systemd/system/multi-user.target.wants
mkdir -p "$units" "$wanted" "$DPKG_ROOT/var/lib/systemd"
cp "$packaging"/*.service "$packaging"/*.socket "$units"
bash "$packaging/postinst" configure
[ ! -L "$wanted/metricdb.service" ] || { echo "the installation enables a unit" >&2; exit 1; }
ln -s /lib/systemd/system/metricdb.service "$wanted"  # systemctl enable
rm "$units"/*
bash "$packaging/postrm" purge
[ ! -L "$wanted/metricdb.service" ] || { echo "a link is left after the purge" >&2; exit 1; }

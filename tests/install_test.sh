#!/usr/bin/env bash
# Installs into an empty folder, moves it, and builds and runs hosts and a plugin on the moved installation, with CMake
# and with pkg-config.
#   install_test.sh BUILD_FOLDER CMAKE C_COMPILER CXX_COMPILER
set -euo pipefail
build=$1
cmake=$2
export CC=$3 CXX=$4
# The hosts use the library's generator: no other may be installed.
CMAKE_GENERATOR=$(sed -n 's/^CMAKE_GENERATOR:INTERNAL=//p' "$build/CMakeCache.txt")
export CMAKE_GENERATOR
hosts=$(cd "$(dirname "$0")/install" && pwd)
readme=$(cd "$(dirname "$0")/.." && pwd)/README.md
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
fail() {
  echo "$*" >&2
  exit 1
}
expect() {
  [ "$1" = "$2" ] || fail "got \"$1\", expected \"$2\""
}
check_host_c() {
  expect "$("$1/host_c")" "100 records, the last from the hill"
  expect "$("$1/plugin_user" "$1/plugin.so")" "100 records through a plugin"
  expect "$(cd "$1" && ./durable_host_c && ./durable_host_c)" "$(printf '%s readings, the last: roof 21.5\n' 2 4)"
}
check_hosts() {
  check_host_c "$1"
  expect "$("$1/host_cpp")" "a chunk: hill"
}

env -u DESTDIR "$cmake" --install "$build" --prefix "$scratch/first" >/dev/null
prefix=$scratch/moved/here
mkdir "$scratch/moved"
mv "$scratch/first" "$prefix"
! grep -rlF -e "$scratch/first" -e "$build" "$prefix" || fail "these files contain the path of the build or of the first installation"

examples=$(dirname "$(find "$prefix/share/doc" -name durable_host.c)")

# by_cmake FOLDER LANGUAGES
by_cmake() {
  {
    "$cmake" -S "$hosts" -B "$1" -DCMAKE_PREFIX_PATH="$prefix" -DHOST_LANGUAGES="$2" \
      -DDURABLE_HOST="$examples/durable_host.c" && "$cmake" --build "$1"
  } >"$scratch/log" 2>&1 || fail "$(cat "$scratch/log")"
}
by_cmake "$scratch/by_cmake" "C;CXX"
check_hosts "$scratch/by_cmake"
if [ -e "$prefix/include/tslb/replica.h" ]; then
  expect "$("$scratch/by_cmake/replica_host_c")" "no servers, code 2"
fi
by_cmake "$scratch/in_c" C
check_host_c "$scratch/in_c"

PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name tslb.pc)")
export PKG_CONFIG_PATH
mkdir "$scratch/by_pkg_config"
strict=(-Wall -Wextra -Wpedantic -Werror)
read -ra cflags < <(pkg-config --cflags tslb-host)
read -ra libs < <(pkg-config --libs tslb-host)
rpath=-Wl,-rpath,$(pkg-config --variable=libdir tslb)
"$CC" -std=c11 "${strict[@]}" "${cflags[@]}" "$hosts/host.c" -o "$scratch/by_pkg_config/host_c" "${libs[@]}" "$rpath"
"$CC" -std=c11 "${strict[@]}" "${cflags[@]}" -fPIC -fvisibility=hidden -shared "$hosts/plugin.c" \
  -o "$scratch/by_pkg_config/plugin.so" -Wl,--whole-archive "${libs[@]}" -Wl,--no-whole-archive "$rpath"
"$CC" -std=c11 "${strict[@]}" "$hosts/plugin_user.c" -o "$scratch/by_pkg_config/plugin_user" -ldl
"$CXX" -std=c++17 "${strict[@]}" "${cflags[@]}" "$hosts/host.cpp" -o "$scratch/by_pkg_config/host_cpp" "${libs[@]}" \
  "$rpath"
read -ra durable_cflags < <(pkg-config --cflags tslb-durable)
read -ra durable_libs < <(pkg-config --libs tslb-durable)
"$CC" -std=c11 "${strict[@]}" "${durable_cflags[@]}" "$examples/durable_host.c" -o "$scratch/by_pkg_config/durable_host_c" \
  "${durable_libs[@]}" "$rpath"
check_hosts "$scratch/by_pkg_config"

# The installed example is enough to start with, as the README describes for a tree like this one.
mkdir -p "$scratch/tree/host" "$scratch/tree/build/example"
cp "$(find "$prefix/share/doc" -name host.c)" "$scratch/tree/build/example"
by_hand=$(sed -n '/^```sh$/,/^```$/{/^```/d;/^cd build\/example$/,/^cd /p}' "$readme")
[ -n "$by_hand" ] || fail "$readme does not show how its host is compiled by hand"
(
  cd "$scratch/tree"
  cc() { "$CC" "${strict[@]}" "$@"; }
  eval "$by_hand" >"$scratch/log"
) || fail "the commands of $readme for its host fail: $(cat "$scratch/log")"
[ -e "$scratch/tree/build/example/names.stream" ] || fail "the host of $readme left no stream"

# event_store is a project of its own, from the installed sources.
{
  "$cmake" -S "$examples/event_store" -B "$scratch/event_store" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_FLAGS_RELEASE=-O0 && "$cmake" --build "$scratch/event_store"
} >"$scratch/log" 2>&1 || fail "$(cat "$scratch/log")"
"$scratch/event_store/event_store" run "$scratch/events" --events 100 --layout 1 --shadow >"$scratch/log"
"$scratch/event_store/event_store" run "$scratch/events" --events 100 --shadow >"$scratch/log"
"$scratch/event_store/event_store" check "$scratch/events" >"$scratch/log" || fail "$(cat "$scratch/log")"

# The example of the typed layer too.
{
  "$cmake" -S "$examples/typed_readings" -B "$scratch/typed" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=None \
    && "$cmake" --build "$scratch/typed"
} >"$scratch/log" 2>&1 || fail "$(cat "$scratch/log")"
expect "$("$scratch/typed/typed_readings" "$scratch/typed/store")" "$(printf '0 hill 20.0\n1 roof 21.5')"

# Python's modules, whose shared object finds the library in the moved installation.
modules=$prefix/lib/python3/dist-packages
if [ -e "$modules/tslb/_shim.so" ]; then
  expect "$(env -u LD_LIBRARY_PATH PYTHONDONTWRITEBYTECODE=1 PYTHONPATH="$modules" /usr/bin/python3 -c \
    'import sys, tslb; print(len(tslb.open_store(sys.argv[1])["readings"]), "readings")' "$scratch/typed/store")" "2 readings"
fi

# The steps of the start page, in an empty folder.
if [ -e "$modules/tslb/_shim.so" ]; then
  mkdir "$scratch/start"
  (
    cd "$scratch/start"
    LD_RUN_PATH=$(pkg-config --variable=libdir tslb) PATH=$prefix/bin:$PATH PYTHONDONTWRITEBYTECODE=1 PYTHONPATH=$modules \
      "$hosts/../document_steps.py" "$hosts/../../docs/start.md" "/usr/share/doc/libtslb-dev/examples=$examples"
  )
fi

# No header includes a header that is not installed.
for header in "$prefix"/include/tslb/*.h; do echo "#include <tslb/${header##*/}>"; done >"$scratch/all.c"
"$CC" -std=c11 "${strict[@]}" "${cflags[@]}" -fsyntax-only "$scratch/all.c"
"$CXX" -std=c++17 "${strict[@]}" "${cflags[@]}" -fsyntax-only -x c++ "$scratch/all.c"
for header in "$prefix"/include/tslb/*.hpp; do echo "#include <tslb/${header##*/}>"; done >>"$scratch/all.c"
"$CXX" -std=c++20 "${strict[@]}" "${cflags[@]}" -fsyntax-only -x c++ "$scratch/all.c"

# The tools find the library in the moved installation, and each has its man page.
for tool in "$prefix"/bin/*; do
  env -u LD_LIBRARY_PATH "$tool" --help >/dev/null
  expect "$("$tool" --version | sed 's/,.*//')" "${tool##*/} $(pkg-config --modversion tslb)"
  [ -e "$prefix/share/man/man1/${tool##*/}.1" ] || fail "${tool##*/} has no man page"
done

# tslb-inspect finds the installed descriptions of layouts.
"$prefix/bin/tslb-inspect" --layout none "$scratch/tree/build/example/names.stream" 2>"$scratch/log" && fail "a layout \"none\""
grep -q 'there are: .*, g_mt_t_v1, ' "$scratch/log" || fail "$(cat "$scratch/log")"

# metricdb is a project of its own on the installed library. Unoptimized and one source per library, which takes a third
# of the time: the test is that it builds and works.
metricdb=$(cd "$(dirname "$0")/../metricdb" && pwd)
{
  "$cmake" -S "$metricdb" -B "$scratch/metricdb" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=None \
    -DCMAKE_UNITY_BUILD=ON -DCMAKE_UNITY_BUILD_BATCH_SIZE=0 -DCMAKE_CXX_FLAGS=-O0 && "$cmake" --build "$scratch/metricdb" -j "$(nproc)"
} >"$scratch/log" 2>&1 || fail "$(cat "$scratch/log")"
echo 'weather,place=hill celsius=21.5 1700000000000000000' >"$scratch/weather.lp"
"$scratch/metricdb/metricdb" load "$scratch/weather.lp" --db "$scratch/database" >"$scratch/log"
"$scratch/metricdb/metricdb" verify --db "$scratch/database" >"$scratch/log" || fail "$(cat "$scratch/log")"

#!/usr/bin/env bash
# Runs gdb on a program with arrays, with the installed script that gdb loads by itself: in a process, in the core of
# that process, and in a process without debug information.
#   gdb_test.sh BUILD_FOLDER CMAKE GDB OBJCOPY PROGRAM
set -euo pipefail
build=$1 cmake=$2 gdb=$3 objcopy=$4 program=$5
here=$(cd "$(dirname "$0")" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"

env -u DESTDIR "$cmake" --install "$build" --component runtime --prefix "$scratch/first" >/dev/null
mv "$scratch/first" "$scratch/prefix"
LD_LIBRARY_PATH=$(dirname "$(find "$scratch/prefix" -name 'libtslb.so.?')")
export LD_LIBRARY_PATH DEBUGINFOD_URLS=''
gdb_command=("$gdb" -nx -batch -iex "add-auto-load-safe-path $scratch/prefix" -iex 'set width 0')

# Passed as -ex options: an error does not stop the commands, as it would with -x.
commands=()
while IFS= read -r line; do
  case $line in '' | '#'*) ;; *) commands+=(-ex "$line") ;; esac
done <"$here/gdb_test.gdb"
# An error in the last command would become gdb's exit code.
commands+=(-ex 'echo -- end --\n')
to_there=(-ex 'break look_here' -ex run -ex up)
answers() { sed -n '/^-- a handle/,/^-- end --/p' "$1" | sed 's/0x[0-9a-f]\{7,\}/ADDRESS/g'; }

"${gdb_command[@]}" "${to_there[@]}" "${commands[@]}" -ex 'generate-core-file core' "$program" \
  >process 2>&1
answers process >process.answers
diff -u "$here/gdb_test.expected" process.answers || { cat process >&2; exit 1; }

"${gdb_command[@]}" "${commands[@]}" "$program" core >core.log 2>&1
answers core.log >core.answers
diff -u process.answers core.answers || { echo "the output for a core differs from that for its process" >&2; exit 1; }

# Without types: handles as addresses, addresses of chunks as integers of the same size.
"$objcopy" --strip-debug "$program" bare
"${gdb_command[@]}" "${to_there[@]}" -ex 'tslb show *(long*)&readings' -ex 'tslb list *(long*)&readings free' \
  -ex 'tslb address *(long*)&buffers *(long*)&wide_chunk' -ex 'tslb address *(long*)&bits *(int*)&bit_chunk' \
  -ex 'output $tslb_record(*(long*)&readings, 30)' ./bare >bare.log 2>&1
for text in 'level 1      1 table, 2 blocks' '3 slots on the free list' 'a wide address' 'bit-vector address' \
  '(void *) 0x'; do
  grep -qF "$text" bare.log || { cat bare.log >&2; echo "without debug information: no \"$text\"" >&2; exit 1; }
done
[ -z "$(find prefix -name '*.pyc')" ] || { echo "gdb left files in the installed folder" >&2; exit 1; }

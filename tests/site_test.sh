#!/usr/bin/env bash
# The check of links finds each kind of dead link, and nothing in pages without one.
#   site_test.sh SCRIPT
set -euo pipefail
script=$1
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"
mkdir pages pages/part
touch pages/style.css outside.html
echo '<a id="here"></a><a href="../first.html">back</a>' >pages/part/second.html
good='<link href="style.css"><a href="part/second.html#here">a</a><a href="https://example.org/">b</a><h2 id="own"></h2><a href="#own">c</a>'

echo "$good" >pages/first.html
"$script" --check pages >/dev/null
while read -r fault line; do
  echo "$good$line" >pages/first.html
  ! "$script" --check pages >/dev/null 2>found || { echo "not found: $fault" >&2; exit 1; }
  [ "$(wc -l <found)" -eq 1 ] && grep -q '^first.html: ' found || { cat found >&2; exit 1; }
done <<'END'
dead-file <a href="third.html">x</a>
dead-anchor <a href="part/second.html#there">x</a>
dead-own-anchor <a href="#there">x</a>
dead-picture <img src="picture.png">
file-outside <a href="../outside.html">x</a>
loaded-from-network <script src="https://example.org/x.js"></script>
loaded-from-another-host <img src="//example.org/x.png">
END

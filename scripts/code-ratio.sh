#!/usr/bin/env bash
# How much of the code is tests: lines of C and C++ (.c, .cpp, .h) under
# tests/ against those under src/, include/, platform/ and tests/ together.
# A line counts when it holds code once comments are taken out; blank and
# comment-only lines do not. The house aim is a quarter to a third.
#   scripts/code-ratio.sh            the table and the ratio
set -euo pipefail
cd "$(dirname "$0")/.."

# Lines with code in the given files: /* */ and // comments removed (string
# literals holding comment markers are rare enough here not to matter).
code_lines() {
  [ $# -eq 0 ] && { echo 0; return; }
  awk '
    FNR == 1 { in_block = 0 }
    {
      line = $0; out = ""
      while (length(line) > 0) {
        if (in_block) {
          end = index(line, "*/")
          if (end == 0) { line = ""; break }
          line = substr(line, end + 2); in_block = 0
        } else {
          start = index(line, "/*"); slash = index(line, "//")
          if (slash > 0 && (start == 0 || slash < start)) { out = out substr(line, 1, slash - 1); line = ""; break }
          if (start == 0) { out = out line; line = ""; break }
          out = out substr(line, 1, start - 1); line = substr(line, start + 2); in_block = 1
        }
      }
      if (out ~ /[^ \t\r]/) n++
    }
    END { print n + 0 }' "$@"
}

files() { find "$@" -type f \( -name '*.c' -o -name '*.cpp' -o -name '*.h' \) 2>/dev/null | sort; }

total=0
printf '%-10s %7s\n' folder lines
for dir in src include platform tests; do
  mapfile -t list < <(files "$dir")
  n=$(code_lines "${list[@]}")
  printf '%-10s %7d\n' "$dir/" "$n"
  total=$((total + n))
  [ "$dir" = tests ] && tests=$n
done
printf '%-10s %7d\n' all "$total"
awk -v t="$tests" -v a="$total" 'BEGIN { printf "tests/ are %.1f%% of the code (aim: 25-33%%)\n", 100 * t / a }'

#!/usr/bin/env bash
# Non-blank lines of code and of tests (benchmarks count as tests), by top folder, and their
# ratio. The house keeps tests at a quarter to a third of the code.
set -euo pipefail
cd "$(dirname "$0")/.."

git ls-files | grep -E '\.(cpp|cc|h|hpp|ts|tsx|js|py|sh)$' | grep -v -E 'node_modules|/dist/|\.min\.' |
while read -r f; do
  kind=code
  [[ "$f" =~ (^|/)(tests?|bench)/|_test\.|\.test\.|test_ ]] && kind=tests
  printf '%s %s %s\n' "${f%%/*}" "$kind" "$(grep -c -v -E '^\s*$' "$f" || true)"
done | awk '
  { n[$1 " " $2] += $3; parts[$1] = 1; total[$2] += $3 }
  END {
    printf "%-12s %8s %8s\n", "folder", "code", "tests"
    for (p in parts) if (p !~ /\./) printf "%-12s %8d %8d\n", p, n[p " code"], n[p " tests"]
    printf "%-12s %8d %8d  tests are %d%% of the code\n", "total", total["code"], total["tests"],
           100 * total["tests"] / total["code"]
  }'

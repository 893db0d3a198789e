#!/usr/bin/env bash
# Non-blank lines of code, of tests and of benchmarks, by top folder, and the tests' share of the
# code. The house keeps tests at a quarter to a third of the code; benchmarks measure, they do
# not check, so they are counted apart.
set -euo pipefail
cd "$(dirname "$0")/.."

git ls-files | grep -E '\.(cpp|cc|h|hpp|ts|tsx|js|py|sh)$' | grep -v -E 'node_modules|/dist/|\.min\.' |
while read -r f; do
  kind=code
  [[ "$f" =~ (^|/)tests?/|_test\.|\.test\.|test_ ]] && kind=tests
  [[ "$f" =~ ^bench/ ]] && kind=bench
  printf '%s %s %s\n' "${f%%/*}" "$kind" "$(grep -c -v -E '^\s*$' "$f" || true)"
done | awk '
  { n[$1 " " $2] += $3; parts[$1] = 1; total[$2] += $3 }
  END {
    printf "%-12s %8s %8s %8s\n", "folder", "code", "tests", "bench"
    for (p in parts) if (p !~ /\./) printf "%-12s %8d %8d %8d\n", p, n[p " code"], n[p " tests"], n[p " bench"]
    printf "%-12s %8d %8d %8d  tests are %d%% of the code\n", "total", total["code"], total["tests"],
           total["bench"], 100 * total["tests"] / total["code"]
  }'

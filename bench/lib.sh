# Shared by the bench scripts (sourced).

# Passes its input through; result rows ("ROW|ORDER|work|before|measured|goal|ok") go to
# fd 3 when bench/run.sh opened it.
emit() {
  local l
  while IFS= read -r l; do
    if [[ $l == ROW\|* ]] && { true >&3; } 2>/dev/null; then echo "$l" >&3; else echo "$l"; fi
  done
}

# A new folder on tmpfs (else /tmp) named after NAME: filling a store there does not wait
# on the disk.
scratch_dir() {
  local base=/dev/shm
  [ -d "$base" ] && [ -w "$base" ] || base=/tmp
  mktemp -d "$base/orva-bench-$1-XXXXXX"
}

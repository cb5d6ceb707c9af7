# Sourced by the whole-process benchmarks; needs $work, a scratch directory.
# best <runs> <command...>: the fastest run's "seconds kilobytes" (wall time
# and max RSS from /usr/bin/time); the last run's output stays in $work/out.
best() {
  local runs=$1; shift
  for _ in $(seq "$runs"); do
    /usr/bin/time -f '%e %M' -o "$work/t" "$@" >"$work/out" 2>/dev/null
    cat "$work/t"
  done | sort -n | head -1
}

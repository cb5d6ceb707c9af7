# Sourced by the CI scripts: build <dir> <cmake options...> configures a
# fresh build tree and builds it with $jobs jobs, showing only what matters
# (warnings, errors). Fails when the build fails.
build() {
  local dir=$1; shift
  rm -rf "$dir"
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  # With pipefail the build's own status is the pipeline's: the filter never fails.
  cmake --build "$dir" -j"$jobs" 2>&1 | { grep -v -E '^\[ *[0-9]+%\]|^Consolidate|^Scanning|^Built target' || true; }
}

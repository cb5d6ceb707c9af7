#!/usr/bin/env bash
# The armhf job: cross-builds the whole tree (warnings are errors here),
# checks the hardening of the built programs, runs every test ctest finds
# under user-mode qemu with stretched time limits, builds the .deb packages
# for armhf and amd64 and checks them. Ends with its own summary line.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh arm

jobs=$(nproc)
dir=build/armhf
# qemu runs the tests several times slower than the host.
export VTEST_TIME_SCALE=${VTEST_TIME_SCALE:-5}

source scripts/build-dir.sh

echo "== armhf cross build"
build "$dir" -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-toolchain.cmake -DCMAKE_COMPILE_WARNING_AS_ERROR=ON
programs=("$dir/vtest/vtest" "$dir/vtest/vtest-elf")
[ -x "$dir/sim/vantor-sim" ] && programs+=("$dir/sim/vantor-sim")
scripts/check-hardening.sh "${programs[@]}"

echo "== armhf tests under qemu-arm-static, time scale $VTEST_TIME_SCALE"
status=0
(cd "$dir" && ctest --output-on-failure -j"$jobs" --output-junit junit.xml) || status=$?

echo "== packages"
build build/package-amd64 -DCMAKE_BUILD_TYPE=Release -DVTEST_TESTS=OFF
scripts/check-hardening.sh build/package-amd64/vtest/vtest build/package-amd64/vtest/vtest-elf
for pkgdir in build/package-amd64 "$dir"; do (cd "$pkgdir" && cpack -G DEB >/dev/null); done
scripts/check-packages.sh build/package-amd64 amd64
scripts/check-packages.sh "$dir" armhf
# A unit's flash budget for the tool (docs/performance.md).
size=$(dpkg-deb --fsys-tarfile "$dir"/vtest_*_armhf.deb | tar -xOf - ./usr/bin/vtest | wc -c)
echo "stripped armhf vtest: $size bytes (limit 1572864)"
[ "$size" -le 1572864 ] || { echo "arm: the stripped armhf vtest is over 1.5 MB" >&2; exit 1; }

# Each skip with its reason, then the job's closing line.
scripts/junit-summary.py "$dir/junit.xml" arm
exit "$status"

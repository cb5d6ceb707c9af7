#!/usr/bin/env bash
# Checks the .deb packages cpack made in a build directory for one
# architecture: names, contents, and that the tool and vtest-elf installed
# into a scratch root run (armhf under qemu), the man page renders and the
# completion loads.
#   scripts/check-packages.sh <build dir> <amd64|armhf>
set -euo pipefail
dir=$1 arch=$2
fail() { echo "packages: $*" >&2; exit 1; }

deb=$(ls "$dir"/vtest_*_"$arch".deb 2>/dev/null | head -1 || true)
[ -n "$deb" ] || fail "no vtest package for $arch in $dir"
info=$(dpkg-deb --info "$deb")
grep -qx ' Package: vtest' <<<"$info" || fail "$deb: wrong package name"
grep -qx " Architecture: $arch" <<<"$info" || fail "$deb: not for $arch"
contents=$(dpkg-deb --contents "$deb" | awk '{print $NF}')
for path in ./usr/bin/vtest ./usr/bin/vtest-elf ./usr/share/man/man1/vtest.1.gz \
            ./usr/share/bash-completion/completions/vtest ./usr/share/doc/vtest/commands.md \
            ./usr/share/doc/vtest/README.md; do
  grep -qx "$path" <<<"$contents" || fail "$deb: $path missing"
done
grep -q 'vantor-sim' <<<"$contents" && fail "$deb: holds the simulator"

sim=$(ls "$dir"/vantor-sim_*_"$arch".deb 2>/dev/null | head -1 || true)
if [ -n "$sim" ]; then
  dpkg-deb --contents "$sim" | grep -q '/usr/bin/vtest$' && fail "$sim: holds the tool"
fi

root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
dpkg -x "$deb" "$root"
run=("$root/usr/bin/vtest")
[ "$arch" = armhf ] && run=(qemu-arm-static "${run[@]}")
status=0
usage=$("${run[@]}" no-such-command 2>&1) || status=$?
[ "$status" -eq 255 ] || fail "installed vtest exited $status, not 255, on an unknown word"
grep -qF "$root/usr/bin/vtest usb reset <hub>" <<<"$usage" || fail "installed vtest printed no usage text"
elf=("${run[@]}")
elf[${#elf[@]}-1]=$root/usr/bin/vtest-elf
report=$("${elf[@]}" "$root/usr/bin/vtest") || fail "installed vtest-elf cannot read the installed vtest"
grep -qx "  Class: *ELF$([ "$arch" = armhf ] && echo 32 || echo 64)" <<<"$report" ||
  fail "installed vtest-elf printed no ELF header"
man -l "$root/usr/share/man/man1/vtest.1.gz" >/dev/null || fail "man page does not render"
warnings=$(zcat "$root/usr/share/man/man1/vtest.1.gz" | groff -man -Tutf8 -ww -z 2>&1)
[ -z "$warnings" ] || fail "man page warnings: $warnings"
bash -c "source '$root/usr/share/bash-completion/completions/vtest' && complete -p vtest" >/dev/null ||
  fail "bash completion does not load"

echo "packages: $(basename "$deb")${sim:+ and $(basename "$sim")}: contents, run, man page and completion ok"

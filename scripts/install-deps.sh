#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need, only
# when something is missing. Extra package groups: "arm" for the cross build,
# "coverage" for scripts/coverage.sh (not needed by CI).
set -euo pipefail

# binutils and llvm: readelf and llvm-readobj, which the ELF inspector's test
# holds its report to. tzdata: the zones the time tests compare with zdump,
# Python's zoneinfo and glibc.
packages=(build-essential cmake pkg-config libssl-dev libgtest-dev libsqlite3-dev sqlite3
          clang iproute2 util-linux procps python3 binutils llvm tzdata
          python3-aiosmtpd)
for group in "$@"; do
  case "$group" in
    arm) packages+=(g++-arm-linux-gnueabihf qemu-user-static man-db
                    libstdc++6:armhf libssl-dev:armhf libsqlite3-dev:armhf libgtest-dev:armhf) ;;
    coverage) packages+=(gcovr) ;;
    *) echo "install-deps: unknown group '$group'" >&2; exit 2 ;;
  esac
done

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
  echo "install-deps: missing packages (run as root to install): ${missing[*]}" >&2
  exit 1
fi
for p in "${missing[@]}"; do
  case "$p" in *:armhf) dpkg --print-foreign-architectures | grep -qx armhf || dpkg --add-architecture armhf ;; esac
done

# The amd64 twins of Multi-Arch: same packages the :armhf ones pull in, as
# "name=version" at the armhf candidate's version where the two differ.
multiarch_twins() {
  local host p name have want
  host=$(dpkg --print-architecture)
  apt-cache depends --recurse --no-recommends --no-suggests --no-conflicts --no-breaks \
      --no-replaces --no-enhances "$@" 2>/dev/null | grep -E '^[a-z0-9].*:armhf$' | sort -u |
  while read -r p; do
    name=${p%:armhf}
    have=$(dpkg-query -W -f='${Multi-Arch} ${Version}' "$name:$host" 2>/dev/null) || continue
    want=$(apt-cache policy "$p" | awk '/Candidate:/ {print $2}')
    [ "${have%% *}" = same ] && [ -n "$want" ] && [ "${have#* }" != "$want" ] && echo "$name=$want"
  done
}

export DEBIAN_FRONTEND=noninteractive
apt-get update -qq || echo "install-deps: some package lists did not download; going on with the rest" >&2
install=(apt-get install -y -qq --no-install-recommends)
if ! "${install[@]}" "${missing[@]}" >/dev/null; then
  # When a mirror's armhf lists lag the amd64 ones, the :armhf libraries
  # cannot match the installed amd64 versions; move those to the armhf ones.
  armhf=()
  for p in "${missing[@]}"; do case "$p" in *:armhf) armhf+=("$p") ;; esac; done
  [ ${#armhf[@]} -gt 0 ] || exit 1
  mapfile -t twins < <(multiarch_twins "${armhf[@]}")
  [ ${#twins[@]} -gt 0 ] || exit 1
  echo "install-deps: aligning with the armhf versions: ${twins[*]}" >&2
  "${install[@]}" --allow-downgrades "${missing[@]}" "${twins[@]}" >/dev/null
fi

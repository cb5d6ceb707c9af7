#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need, only
# when something is missing. Extra package groups: "arm" for the cross build.
set -euo pipefail

packages=(build-essential cmake pkg-config libssl-dev libgtest-dev libsqlite3-dev sqlite3
          clang iproute2 util-linux procps)
for group in "$@"; do
  case "$group" in
    arm) packages+=(g++-arm-linux-gnueabihf qemu-user-static
                    libstdc++6:armhf libssl-dev:armhf libsqlite3-dev:armhf libgtest-dev:armhf) ;;
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
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null

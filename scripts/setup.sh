#!/usr/bin/env bash
# Installs by package name what a bare Debian 12 lacks for building, testing and measuring.
# Asks nothing; does nothing when all is there.
set -euo pipefail

packages=(
  ca-certificates ccache clang-format clang-tidy cmake dpkg-dev g++ git iproute2 libbenchmark-dev
  libcli11-dev libgtest-dev libsqlite3-dev make ninja-build nlohmann-json3-dev pkg-config procps
  sqlite3 strace util-linux
)

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null | grep -qx installed ||
    missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

as_root=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || {
    echo "setup: run as root, or install yourself: ${missing[*]}" >&2
    exit 1
  }
  as_root=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
echo "setup: installing ${missing[*]}"
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null

#!/usr/bin/env bash
# Installs the Debian 12 packages the project needs; quick when they are there.
set -euo pipefail

packages=(
  g++ make cmake pkg-config
  liblog4cpp5-dev libssl-dev libzmq3-dev libsqlite3-dev sqlite3 nlohmann-json3-dev
  googletest libgtest-dev libgmock-dev
  attr strace
  dpkg-dev file man-db
  debhelper lintian logrotate
  clang-14 libclang-rt-14-dev
)

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$p")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

sudo=""
[[ $(id -u) -eq 0 ]] || sudo="sudo"
echo "installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null

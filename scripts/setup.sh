#!/usr/bin/env bash
# Installs the Debian packages that building, testing and the demo need.
# Idempotent and quick: apt is only consulted when something is missing.
set -euo pipefail

packages=(
  g++ cmake make pkg-config
  libjansson-dev libfmt-dev libmnl-dev
  libgtest-dev libgmock-dev
  iproute2 util-linux procps jq
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
  echo "setup: missing packages: ${missing[*]} (run as root to install them)" >&2
  exit 1
fi
echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -q
apt-get install -y -q --no-install-recommends "${missing[@]}"

#!/usr/bin/env bash
# deps.sh -- installs the Debian packages the build, the tests and the lab
# need, when any is missing. Needs root (apt-get) only when something is missing.
set -euo pipefail

packages=(
  build-essential cmake g++ clang libclang-rt-14-dev
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  libmnl-dev libinih-dev libedit-dev nlohmann-json3-dev
  iproute2 procps
  # the demonstration lab and the end-to-end tests: a DHCPv6 server, client
  # and (as a peer relay) ISC dhcrelay, captures and their readers
  kea-dhcp6-server isc-dhcp-client isc-dhcp-relay tcpdump python3
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
# The lab runs its own Kea inside its namespaces with its own pid and lock
# directories, so a Kea service the package may start on the host is harmless.
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"

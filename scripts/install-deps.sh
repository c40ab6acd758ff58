#!/usr/bin/env bash
# Installs the Debian packages that building, testing and running Lumora need.
# Idempotent: packages already present are left alone, and apt is only touched
# when something is missing. Must run as root (or through sudo) on Debian 12.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  clang libclang-rt-14-dev clang-format
  libgtest-dev libgmock-dev libbenchmark-dev
  nlohmann-json3-dev libcli11-dev libfmt-dev
  libsdbus-c++-dev libsystemd-dev dbus-daemon python3-dbusmock
  # Checks around the library: Debian packaging, API reference, captures,
  # the real bluetoothd in a qemu guest.
  dpkg-dev file doxygen tshark
  debootstrap qemu-system-x86 cpio
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all ${#packages[@]} packages present"
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"

#!/usr/bin/env bash
# Installs what building and testing KESTREL needs and the machine lacks.
# Runs apt-get only as root and only for packages that are missing.
set -euo pipefail

packages=(
  cmake g++ make pkg-config
  libgtest-dev libgmock-dev libbenchmark-dev
  libcli11-dev nlohmann-json3-dev
  # The fuzz targets: clang and its libFuzzer runtime.
  clang libclang-rt-dev
  # Independent xBase readers used by the interop tests.
  python3 python3-dbfread python3-dbf libdbd-xbase-perl libxbase64-dev
  # Xbase64's index code works only where a long is 4 bytes: its NTX reader
  # and benchmark are 32-bit programs (cmake/Xbase64.cmake).
  g++-multilib libxbase64-1:i386
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

# Some kernels are built without 32-bit support: the 32-bit checker then runs
# under user-mode emulation (the tests fall back to it by themselves). Asked
# after the install below too, since that is what brings the 32-bit loader.
needs_emulator() {
  [ -x /lib/ld-linux.so.2 ] && ! /lib/ld-linux.so.2 --help >/dev/null 2>&1 &&
    ! dpkg-query -W -f='${Status}' qemu-user 2>/dev/null | grep -q 'install ok installed'
}
if needs_emulator; then
  missing+=(qemu-user)
fi

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi
if [ "$(id -u)" -ne 0 ]; then
  echo "install-deps: missing packages: ${missing[*]}" >&2
  echo "install-deps: run as root (or install them) first" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
if ! dpkg --print-foreign-architectures | grep -qx i386; then
  dpkg --add-architecture i386
fi
# A package list that fails to download (a mirror mid-sync) is not fatal here:
# the install below fails if a package really cannot be had.
apt-get update -qq || echo "install-deps: some package lists were not updated" >&2
apt-get install -y -qq --no-install-recommends "${missing[@]}"
if needs_emulator; then
  apt-get install -y -qq --no-install-recommends qemu-user
fi

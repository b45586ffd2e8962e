#!/usr/bin/env bash
# Install what quern needs to build and test, on Debian, if it is missing.
set -euo pipefail

packages=(
  cmake make g++ python3            # native build and the decode-table generator
  googletest libbenchmark-dev       # unit tests (built from source) and benchmarks
  g++-aarch64-linux-gnu             # the AArch64 build
  binutils-aarch64-linux-gnu        # encoding reference: as and objdump
  qemu-user                         # runs AArch64 programs, with and without SVE
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "quern: installing ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "quern: need root (or sudo) to install: ${missing[*]}" >&2; exit 1; }
  SUDO=sudo
fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -q
$SUDO apt-get install -y -q --no-install-recommends "${missing[@]}"

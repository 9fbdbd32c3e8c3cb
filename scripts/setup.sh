#!/usr/bin/env bash
# Installs the Debian packages the project needs, only those that are missing.
# Idempotent; runs apt-get as root (directly, or through sudo when available).
set -euo pipefail

packages=(
  build-essential cmake pkg-config clang-format
  libgtest-dev libgmock-dev libbenchmark-dev
  liborocos-kdl-dev libyaml-cpp-dev libtinyxml2-dev libeigen3-dev
  python3 python3-matplotlib python3-numpy can-utils
  python3-dev pybind11-dev python3-pybind11 python3-pytest  # the Python package and its tests
  nlohmann-json3-dev  # the arm service's protocol
  clang libclang-rt-14-dev  # the fuzz targets: clang's libFuzzer, ASan and UBSan runtimes
)

# The kernel tier (scripts/kernel-tier.sh) boots Debian's kernel under qemu; without these it
# is skipped, so a machine that cannot install them still runs everything else.
optional=(qemu-system-x86 busybox-static cpio)

is_installed() {
  dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"
}
missing=()
for p in "${packages[@]}"; do
  is_installed "$p" || missing+=("$p")
done
missing_optional=()
for p in "${optional[@]}"; do
  is_installed "$p" || missing_optional+=("$p")
done

if [ ${#missing[@]} -eq 0 ] && [ ${#missing_optional[@]} -eq 0 ]; then
  exit 0
fi

sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo >/dev/null 2>&1; then
    sudo_cmd=(sudo)
  elif [ ${#missing[@]} -gt 0 ]; then
    echo "[setup] need root to install: ${missing[*]} (run as root or install sudo)" >&2
    exit 1
  else
    echo "[setup] not installing ${missing_optional[*]} without root: the kernel tier will be skipped"
    exit 0
  fi
fi

export DEBIAN_FRONTEND=noninteractive
install() {
  "${sudo_cmd[@]}" apt-get install -y --no-install-recommends "$@"
}
# A fresh machine has empty package lists; refresh them once before installing.
refreshed=false
if [ ${#missing[@]} -gt 0 ]; then
  echo "[setup] installing missing packages: ${missing[*]}"
  if ! install "${missing[@]}"; then
    "${sudo_cmd[@]}" apt-get update
    refreshed=true
    install "${missing[@]}"
  fi
fi
if [ ${#missing_optional[@]} -gt 0 ]; then
  echo "[setup] installing for the kernel tier: ${missing_optional[*]}"
  if ! install "${missing_optional[@]}"; then
    if [ "$refreshed" = false ] && "${sudo_cmd[@]}" apt-get update && install "${missing_optional[@]}"; then
      :
    else
      echo "[setup] could not install ${missing_optional[*]}: the kernel tier will be skipped"
    fi
  fi
fi

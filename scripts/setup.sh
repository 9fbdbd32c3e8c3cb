#!/usr/bin/env bash
# Installs the Debian packages the project needs, only those that are missing.
# Idempotent; runs apt-get as root (directly, or through sudo when available).
set -euo pipefail

packages=(
  build-essential cmake pkg-config clang-format
  libgtest-dev libgmock-dev libbenchmark-dev
  liborocos-kdl-dev libyaml-cpp-dev libtinyxml2-dev libeigen3-dev
  python3 python3-matplotlib python3-numpy can-utils
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "[setup] installing missing packages: ${missing[*]}"
sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo >/dev/null 2>&1; then
    sudo_cmd=(sudo)
  else
    echo "[setup] need root to install: ${missing[*]} (run as root or install sudo)" >&2
    exit 1
  fi
fi

export DEBIAN_FRONTEND=noninteractive
# A fresh machine has empty package lists; refresh them once before installing.
if ! "${sudo_cmd[@]}" apt-get install -y --no-install-recommends "${missing[@]}"; then
  "${sudo_cmd[@]}" apt-get update
  "${sudo_cmd[@]}" apt-get install -y --no-install-recommends "${missing[@]}"
fi

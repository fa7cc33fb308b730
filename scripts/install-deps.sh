#!/usr/bin/env bash
# Installs the Debian packages that building and testing liborvaccess needs.
# Idempotent: packages already present are left alone, and apt is only asked
# when something is missing.
set -euo pipefail

packages=(
  build-essential
  cmake
  pkg-config
  libsimpleini-dev
  libgtest-dev
  libgmock-dev
  libbenchmark-dev
  libcli11-dev
  libncurses-dev
  clang-14
  libclang-rt-14-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "Installing Debian packages: ${missing[*]}"
sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then
  sudo_cmd=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"

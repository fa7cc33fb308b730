#!/usr/bin/env bash
# Installs the Debian packages that building and testing liborvaccess needs.
# Idempotent: packages already present are left alone, and apt is only asked
# when something is missing.
set -euo pipefail

packages=(
  build-essential
  cmake
  ccache
  pkg-config
  libsimpleini-dev
  libgtest-dev
  libgmock-dev
  libbenchmark-dev
  libcli11-dev
  libncurses-dev
  nlohmann-json3-dev
  help2man
  doxygen
  libpcap-dev
  # orvbridge: Eclipse Cyclone DDS and its IDL compiler.
  cyclonedds-dev
  cyclonedds-tools
  # The bridge's test with a Fast DDS participant (ROS 2's default middleware).
  libfastrtps-dev
  libfastcdr-dev
  # The Python package, for Debian's /usr/bin/python3.
  pybind11-dev
  python3-dev
  python3-numpy
  python3-pytest
  python3-matplotlib
  # The package's type stub (stubgen) and its typing tests (mypy, stubtest).
  python3-mypy
  # The OpenXR API layer: the SDK's headers, the loader its tests run, and
  # Khronos's validation layer the tests stack around it.
  libopenxr-dev
  libopenxr-loader1
  openxr-layer-corevalidation
  # The fuzz harnesses.
  clang-14
  libclang-rt-14-dev
)
# Wanted but not required: without tshark the dissector's tests are skipped,
# without iproute2 (or root) those of several hosts.
optional=(
  tshark
  # The tests of several hosts in network namespaces (ip netns, veth).
  iproute2
)

installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'; }
missing=()
for p in "${packages[@]}"; do
  installed "$p" || missing+=("$p")
done
missing_optional=()
for p in "${optional[@]}"; do
  installed "$p" || missing_optional+=("$p")
done

if [ ${#missing[@]} -eq 0 ] && [ ${#missing_optional[@]} -eq 0 ]; then
  exit 0
fi

echo "Installing Debian packages: ${missing[*]} ${missing_optional[*]}"
sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then
  sudo_cmd=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
# tshark's package asks whether users outside root may capture; answer it
# beforehand (no), so that the installation never stops to ask.
echo "wireshark-common wireshark-common/install-setuid boolean false" | "${sudo_cmd[@]}" debconf-set-selections
"${sudo_cmd[@]}" apt-get update -qq
if [ ${#missing[@]} -gt 0 ]; then
  "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
if [ ${#missing_optional[@]} -gt 0 ] &&
   ! "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing_optional[@]}"; then
  echo "Could not install ${missing_optional[*]}: the tests that need it will say so and be skipped" >&2
fi

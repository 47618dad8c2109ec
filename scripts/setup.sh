#!/usr/bin/env bash
# Installs every Debian package the build, the tests, the benchmarks and the host kit need.
# Idempotent: packages already present are left alone and apt is not asked again.
set -euo pipefail

PACKAGES=(
  build-essential cmake ninja-build g++ clang clang-format libclang-rt-14-dev
  pkg-config git util-linux procps psmisc
  libgtest-dev libgmock-dev libbenchmark-dev
  libboost-dev libdirectfb-dev libdirectfb-extra libopencv-dev
  libavformat-dev libavcodec-dev libswscale-dev libavutil-dev
  xvfb x11-apps imagemagick fonts-dejavu-core
  python3 python3-onnx python3-numpy
  dpkg-dev file  # the Debian packages' dependency scan
  gnuplot-nox    # bench/soak.sh's plot
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: all ${#PACKAGES[@]} packages present"
  exit 0
fi

echo "setup: installing ${missing[*]}"
SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
echo "setup: done"

#!/usr/bin/env bash
# Installs the Debian 12 packages the build, the tests, the fuzz targets and the demo need
# (libclang-rt-14-dev brings clang's sanitizer and libFuzzer runtimes; GStreamer's development
# packages, its base and good plugins, its tools and X elements, FFmpeg, Xvfb and xwd serve the
# GStreamer elements, their tests and the demo's recording). Idempotent: does
# nothing when everything is already there. The armhf libraries of the 32-bit build are not
# installed but unpacked by scripts/armhf-deps.sh.
set -euo pipefail

packages=(
    build-essential cmake ninja-build pkg-config clang
    android-liblog-dev android-libcutils-dev android-libutils-dev android-libbase-dev
    libegl-dev libgles-dev libegl-mesa0 libgl1-mesa-dri
    libgtest-dev libgmock-dev libbenchmark-dev libclang-rt-14-dev
    libyuv-dev libpng-dev python3
    crossbuild-essential-armhf qemu-user
    libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev check
    gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-tools gstreamer1.0-x
    ffmpeg xvfb x11-apps
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

echo "Installing: ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then
    SUDO="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"

#!/usr/bin/env bash
# Fetches the 32-bit ARM (armhf) libraries the cross build links against, and unpacks them into
# a folder of their own (default build/armhf-deps). Nothing is installed on the machine: the
# packages are only downloaded and extracted, so their versions need not match the host's.
# The cross compiler and qemu-arm come from scripts/install-deps.sh.
# Usage: scripts/armhf-deps.sh [DIR]
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
dir="${1:-$root/build/armhf-deps}"

packages=(
    android-liblog android-libbase android-libcutils android-libutils android-libbacktrace
    android-liblog-dev android-libbase-dev android-libcutils-dev android-libutils-dev
    libbsd0 libmd0 p7zip-full
    libgtest-dev libgmock-dev
    libglvnd0 libegl1 libgles2 libegl-dev libgles-dev
    libyuv0 libyuv-dev libjpeg62-turbo libpng16-16 libpng-dev zlib1g zlib1g-dev
)
# Headers only, the same for every architecture.
common=(android-platform-system-core-headers)
stamp="$dir/.packages"
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "${packages[*]} ${common[*]}" ]; then
    exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then
    SUDO="sudo"
fi
if ! dpkg --print-foreign-architectures | grep -qx armhf; then
    echo "Adding the armhf architecture to apt's package lists"
    $SUDO dpkg --add-architecture armhf
    # A mirror still syncing one index must not stop the build; a package really missing
    # shows below, when apt-get download names it.
    $SUDO apt-get update -qq || echo "warning: apt-get update reported errors" >&2
fi

rm -rf "$dir"
mkdir -p "$dir/debs" "$dir/root"
echo "Fetching ${#packages[@]} armhf packages into $dir"
(cd "$dir/debs" && apt-get download -qq "${packages[@]/%/:armhf}" "${common[@]}" 2>&1 |
    grep -v 'unsandboxed as root' || true)
for p in "${packages[@]}" "${common[@]}"; do
    if ! ls "$dir/debs/${p}_"*.deb > /dev/null 2>&1; then
        echo "armhf package $p could not be fetched" >&2
        exit 1
    fi
done
for deb in "$dir"/debs/*.deb; do
    dpkg-deb -x "$deb" "$dir/root"
done
echo "${packages[*]} ${common[*]}" > "$stamp"

#!/usr/bin/env bash
# The main job on a workstation: installs what is missing, builds the service, the emulated
# capture hardware and capturectl, then runs `capturectl demo`, which writes PNG frames.
# Usage: scripts/demo.sh [OUTPUT_DIR]   (default: out/demo)
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
cd "$root"
scripts/install-deps.sh

out="${1:-out/demo}"
cmake -S . -B build/gcc -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++ > /dev/null
cmake --build build/gcc -j "$(nproc)" --target capturectl

export EGL_PLATFORM=surfaceless
build/gcc/tools/capturectl demo --out-dir "$out"
echo "Pictures: $(cd "$out" && pwd)"

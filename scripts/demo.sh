#!/usr/bin/env bash
# The main job on a workstation: installs what is missing, builds the service, the emulated
# capture hardware, capturectl and the GStreamer plugin, then runs `capturectl demo`, which
# writes PNG frames, and records three seconds of the capture point as WebM with capturehalsrc.
# Usage: scripts/demo.sh [OUTPUT_DIR]   (default: out/demo)
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
cd "$root"
scripts/install-deps.sh

out="${1:-out/demo}"
cmake -S . -B build/gcc -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++ > /dev/null
cmake --build build/gcc -j "$(nproc)" --target capturectl gstcapturehal

export EGL_PLATFORM=surfaceless
build/gcc/tools/capturectl demo --out-dir "$out"

# The plugin from this build; the service comes up inside gst-launch-1.0 on the emulated hardware.
export GST_PLUGIN_PATH="$root/build/gcc/tools/gstreamer${GST_PLUGIN_PATH:+:$GST_PLUGIN_PATH}"
gst-launch-1.0 -q capturehalsrc num-buffers=90 \
    ! video/x-raw,width=640,height=360,framerate=30/1 \
    ! videoconvert ! vp8enc ! webmmux ! filesink location="$out/capture.webm"
echo "   $out/capture.webm (3 s of the capture point, 640x360 VP8 at 30 fps)"
echo "Pictures and the clip: $(cd "$out" && pwd)"

#!/usr/bin/env bash
# Builds the benchmarks (optimised, g++) into build/bench and runs them; each prints a table.
# Then the GStreamer source against capturectl, as whole processes (GNU time's user + system
# seconds): `capturehalsrc ! fakesink` and `capturectl stream` of the same 1920x1080 NV12 stream at
# 60 fps, one stream and eight at once, and how many frames the element copied.
# Figures depend on the machine and its load: record them with the date and the machine.
# Usage: scripts/bench.sh [BENCHMARK_FILTER]   (a Google Benchmark --benchmark_filter regex;
#        "gst" runs only the GStreamer part, BENCH_GST=0 leaves it out)
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
cd "$root"
scripts/install-deps.sh

cmake -S . -B build/bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DCAPTURE_BENCHMARKS=ON \
      -DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++ > /dev/null
cmake --build build/bench -j "$(nproc)" --target gpu_conversion_bench service_bench emulator_bench \
    capturectl gstcapturehal

export EGL_PLATFORM=surfaceless
echo "=== $(date -u +%Y-%m-%d) on $(nproc) cores: $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //')"
if [ "${1:-}" != gst ]; then
    filter=("--benchmark_filter=${1:-.}")
    for b in build/bench/bench/*_bench; do
        echo "=== $(basename "$b")"
        "$b" "${filter[@]}" --benchmark_counters_tabular=true
    done
fi
[ "${BENCH_GST:-1}" = 1 ] || exit 0

# CPU a frame as whole processes: the difference between runs of SHORT and LONG frames a stream,
# so that start-up (the service brought up, GStreamer's registry) cancels out; the median of
# three. The emulated hardware produces the frames in the same process either way.
echo "=== capturehalsrc against capturectl stream (1920x1080 NV12, 60 fps)"
export GST_PLUGIN_PATH="$root/build/bench/tools/gstreamer"
export GST_REGISTRY="$root/build/bench/gst-registry.bin"
short=120
long=600
caps="video/x-raw,format=NV12,width=1920,height=1080,framerate=60/1"
tmp=$(mktemp)
trap 'rm -f "$tmp"' EXIT
cpu_of() {  # user + system seconds of the command
    /usr/bin/time -f "%U %S" -o "$tmp" "$@" > /dev/null 2>&1
    awk '{ printf "%.3f", $1 + $2 }' "$tmp"
}
gst_pipelines() {  # COUNT FRAMES: COUNT capturehalsrc ! fakesink chains in one gst-launch-1.0
    local line=()
    for ((i = 0; i < $1; i++)); do
        line+=(capturehalsrc "num-buffers=$2" ! "$caps" ! fakesink)
    done
    gst-launch-1.0 -q "${line[@]}"
}
capturectl_streams() {  # COUNT FRAMES
    build/bench/tools/capturectl stream --instances "$1" --frames "$2" --size 1920x1080 \
        --fps 60 --format NV12 --quiet
}
export caps
export -f gst_pipelines capturectl_streams
per_frame() {  # COUNT FUNCTION: milliseconds of CPU a frame, median of three
    local count=$1 fn=$2
    for run in 1 2 3; do
        a=$(cpu_of bash -c "$fn $count $short")
        b=$(cpu_of bash -c "$fn $count $long")
        awk -v a="$a" -v b="$b" -v n=$(((long - short) * count)) \
            'BEGIN { printf "%.3f\n", (b - a) * 1000 / n }'
    done | sort -n | sed -n 2p
}
printf "%-10s %-28s %-28s %s\n" streams "capturehalsrc ! fakesink" "capturectl stream" "added"
for count in 1 8; do
    g=$(per_frame "$count" gst_pipelines)
    c=$(per_frame "$count" capturectl_streams)
    printf "%-10s %-28s %-28s %s\n" "$count" "$g ms a frame" "$c ms a frame" \
        "$(awk -v g="$g" -v c="$c" 'BEGIN { printf "%.3f ms", g - c }')"
done

# Copies: none where the hardware lays rows out as GStreamer does (1920 wide) or downstream
# takes video meta (videoconvert); every frame where rows are padded (1912 wide: the hardware's
# pitch is 1920) and fakesink takes no meta.
echo "=== frames copied by capturehalsrc (${short} frames each)"
copies() {  # DESCRIPTION PIPELINE...
    local what=$1
    shift
    local line
    line=$(GST_DEBUG=capturehalsrc:INFO GST_DEBUG_NO_COLOR=1 gst-launch-1.0 -q "$@" 2>&1 |
        grep -o 'stopping after .*' | head -1)
    printf "%-58s %s\n" "$what" "$line"
}
copies "1920x1080 NV12 ! fakesink" capturehalsrc "num-buffers=$short" ! "$caps" ! fakesink
narrow="video/x-raw,format=NV12,width=1912,height=1080,framerate=60/1"
copies "1912x1080 NV12 ! fakesink (no video meta)" capturehalsrc "num-buffers=$short" ! \
    "$narrow" ! fakesink
copies "1912x1080 NV12 ! videoconvert ! I420 ! fakesink (meta)" capturehalsrc \
    "num-buffers=$short" ! "$narrow" ! videoconvert ! video/x-raw,format=I420 ! fakesink
a=$(cpu_of gst-launch-1.0 -q capturehalsrc "num-buffers=$short" ! "$narrow" ! fakesink)
b=$(cpu_of gst-launch-1.0 -q capturehalsrc "num-buffers=$long" ! "$narrow" ! fakesink)
awk -v a="$a" -v b="$b" -v n=$((long - short)) \
    'BEGIN { printf "1912x1080 NV12 ! fakesink, copying every frame: %.3f ms of CPU a frame\n", (b - a) * 1000 / n }'

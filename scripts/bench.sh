#!/usr/bin/env bash
# Builds the benchmarks (optimised, g++) into build/bench and runs them; each prints a table.
# Figures depend on the machine and its load: record them with the date and the machine.
# Usage: scripts/bench.sh [BENCHMARK_FILTER]   (a Google Benchmark --benchmark_filter regex)
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
cd "$root"
scripts/install-deps.sh

cmake -S . -B build/bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DCAPTURE_BENCHMARKS=ON \
      -DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++ > /dev/null
cmake --build build/bench -j "$(nproc)" --target gpu_conversion_bench service_bench emulator_bench

export EGL_PLATFORM=surfaceless
echo "=== $(date -u +%Y-%m-%d) on $(nproc) cores: $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //')"
filter=("--benchmark_filter=${1:-.}")
for b in build/bench/bench/*_bench; do
    echo "=== $(basename "$b")"
    "$b" "${filter[@]}" --benchmark_counters_tabular=true
done

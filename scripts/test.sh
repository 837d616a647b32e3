#!/usr/bin/env bash
# Installs what is missing, then builds and runs every test three times:
#   build/gcc   g++, optimised, all tests
#   build/asan  clang++, AddressSanitizer + UndefinedBehaviorSanitizer, all tests
#   build/tsan  clang++, ThreadSanitizer, the threaded tests (names with Stress or Stream)
#   build/armhf the device's 32-bit ARM userland: cross-built with Debian's armhf toolchain,
#               every test that needs no GPU run under qemu-arm (scripts/qemu-armhf)
#   build/device every source of the platform build compiled as for the device (clang, 32-bit
#               ARM, -D__ANDROID__, nothing host-only on the include path), and what the
#               platform's headers refuse checked to be refused (scripts/device_compile.py)
# and then a short run of every fuzz target (build/fuzz, scripts/fuzz.sh, FUZZ_SECONDS each,
# default 8).
# Usage: scripts/test.sh [gcc|asan|tsan|armhf|device|fuzz]...   (default: all six)
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
cd "$root"
scripts/install-deps.sh

jobs="${JOBS:-$(nproc)}"
configs=("$@")
if [ ${#configs[@]} -eq 0 ]; then
    configs=(gcc asan tsan armhf device fuzz)
fi

export EGL_PLATFORM=surfaceless
export TSAN_OPTIONS="suppressions=$root/tests/tsan.supp ${TSAN_OPTIONS:-}"
export LSAN_OPTIONS="suppressions=$root/tests/lsan.supp ${LSAN_OPTIONS:-}"

run_config() {
    local name="$1"
    if [ "$name" = device ]; then
        echo "=== [device] the platform build's sources, compiled as for the device"
        scripts/armhf-deps.sh
        python3 scripts/device_compile.py --out build/device --jobs "$jobs"
        return
    fi
    if [ "$name" = fuzz ]; then
        echo "=== [fuzz] build and a short run of every target"
        scripts/fuzz.sh "${FUZZ_SECONDS:-8}"
        return
    fi
    local dir="build/$name"
    local cmake_args=(-G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo)
    local ctest_args=(--output-on-failure -j "$jobs" --timeout 300)
    case "$name" in
        gcc)  cmake_args+=(-DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++) ;;
        asan) cmake_args+=(-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++
                           -DCAPTURE_SANITIZE=address) ;;
        tsan) cmake_args+=(-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++
                           -DCAPTURE_SANITIZE=thread)
              ctest_args+=(-R "Stress|Stream") ;;
        # No EGL driver is unpacked for armhf, so what draws on the GPU stays on the host
        # configurations.
        armhf) scripts/armhf-deps.sh
               cmake_args+=(-DCMAKE_TOOLCHAIN_FILE=cmake/armhf.cmake)
               ctest_args+=(-E "Gpu|CapturectlConvert|Capturectl\\.(Demo|AnswersAndRefusals)") ;;
        *) echo "unknown configuration: $name" >&2; return 2 ;;
    esac
    echo "=== [$name] configure and build"
    cmake -S . -B "$dir" "${cmake_args[@]}" > /dev/null
    cmake --build "$dir" -j "$jobs"
    echo "=== [$name] test"
    (cd "$dir" && ctest "${ctest_args[@]}")
}

for c in "${configs[@]}"; do
    run_config "$c"
done
echo "=== all configurations passed: ${configs[*]}"

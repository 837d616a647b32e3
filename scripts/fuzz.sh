#!/usr/bin/env bash
# Builds the fuzz targets (clang, libFuzzer, AddressSanitizer + UndefinedBehaviorSanitizer) into
# build/fuzz and runs each one SECONDS seconds (default 60) from a copy of its seed corpus in
# fuzz/corpus/<target>/. Prints executions and findings per target; exits non-zero when any
# target found a crash, a leak, a timeout or ran out of memory. Findings are kept in
# build/fuzz/findings/<target>/.
# Usage: scripts/fuzz.sh [SECONDS] [TARGET...]
# BUILD_LOCK=/path/to/lock runs the build step under flock(1), for machines that share builders.
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
cd "$root"
scripts/install-deps.sh

seconds="${1:-60}"
shift || true
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
    targets=(pq_notify_fuzzer completion_fuzzer device_tree_fuzzer interface_fuzzer gpu_dump_fuzzer)
fi

dir=build/fuzz
cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang \
    -DCMAKE_CXX_COMPILER=clang++ -DCAPTURE_SANITIZE=address -DCAPTURE_FUZZ=ON > /dev/null
build=(cmake --build "$dir" -j "${JOBS:-$(nproc)}" --target capture_fuzzers)
if [ -n "${BUILD_LOCK:-}" ]; then
    flock "$BUILD_LOCK" "${build[@]}"
else
    "${build[@]}"
fi

export EGL_PLATFORM=surfaceless
export LSAN_OPTIONS="suppressions=$root/tests/lsan.supp ${LSAN_OPTIONS:-}"

# Longest input each target needs: the PQ payload is 1456 bytes after its header.
max_len() {
    case "$1" in
        pq_notify_fuzzer) echo 1600 ;;
        interface_fuzzer) echo 512 ;;
        *) echo 1200 ;;
    esac
}

failed=()
summary=()
for t in "${targets[@]}"; do
    work="$dir/findings/$t"
    rm -rf "$work"
    mkdir -p "$work/corpus"
    cp fuzz/corpus/"$t"/* "$work/corpus/"
    echo "=== [fuzz] $t for ${seconds}s"
    status=0
    "$dir/fuzz/$t" -max_total_time="$seconds" -max_len="$(max_len "$t")" -timeout=30 \
        -rss_limit_mb=4096 -print_final_stats=1 -artifact_prefix="$work/" "$work/corpus" \
        > "$work/log" 2>&1 || status=$?
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$work/log" | tail -1)
    found=$(find "$work" -maxdepth 1 -type f \( -name 'crash-*' -o -name 'leak-*' \
        -o -name 'timeout-*' -o -name 'oom-*' \) | sort)
    line="$t: ${runs:-?} executions in ${seconds}s"
    if [ "$status" -ne 0 ] || [ -n "$found" ]; then
        line="$line, FAILED (exit $status) ${found:-}"
        failed+=("$t")
        grep -E 'ERROR|SUMMARY|#[0-9]+ 0x' "$work/log" | head -20 || true
    fi
    echo "$line"
    summary+=("$line")
done

echo "=== fuzz summary"
printf '%s\n' "${summary[@]}"
if [ ${#failed[@]} -gt 0 ]; then
    echo "findings in: ${failed[*]} (inputs and logs under $dir/findings/)" >&2
    exit 1
fi

// Shared by the benchmarks: a clock reading, and what a process holds for those that check
// repeated work leaves nothing behind.
#pragma once

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <time.h>

#include <filesystem>
#include <iterator>

namespace bench {

// Nanoseconds on `clock`: CLOCK_MONOTONIC for wall time, CLOCK_THREAD_CPUTIME_ID for this thread's.
inline double nowNs(clockid_t clock = CLOCK_MONOTONIC) {
    timespec t{};
    clock_gettime(clock, &t);
    return static_cast<double>(t.tv_sec) * 1e9 + static_cast<double>(t.tv_nsec);
}

// Descriptors and heap in use when constructed; report() sets their growth since as counters.
class Footprint {
public:
    Footprint() : mFds(openFds()), mHeap(mallinfo2().uordblks) {}
    void report(benchmark::State& state) const {
        state.counters["fd_growth"] = openFds() - mFds;
        state.counters["heap_growth_bytes"] =
            static_cast<double>(mallinfo2().uordblks) - static_cast<double>(mHeap);
    }

private:
    static int openFds() {
        return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                              std::filesystem::directory_iterator()));
    }
    const int mFds;
    const size_t mHeap;
};

}  // namespace bench

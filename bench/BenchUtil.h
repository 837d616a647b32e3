// Shared by the benchmarks: a clock reading, and what a process holds for those that check
// repeated work leaves nothing behind.
#pragma once

#include <benchmark/benchmark.h>
#include <dirent.h>
#include <malloc.h>
#include <time.h>

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
        int n = 0;
        if (DIR* d = opendir("/proc/self/fd")) {
            while (readdir(d) != nullptr) ++n;
            closedir(d);
        }
        return n;
    }
    const int mFds;
    const size_t mHeap;
};

}  // namespace bench

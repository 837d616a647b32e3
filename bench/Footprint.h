// What a process holds, for the benchmarks that check repeated work leaves nothing behind.
#pragma once

#include <benchmark/benchmark.h>
#include <dirent.h>
#include <malloc.h>

namespace bench {

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

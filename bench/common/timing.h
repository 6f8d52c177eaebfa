// Wall-clock timing for the benchmarks: the median of several runs, so one
// slow run (a cold cache, a busy neighbour) does not decide the figure.
#ifndef KOVA_BENCH_TIMING_H
#define KOVA_BENCH_TIMING_H

#include <algorithm>
#include <chrono>
#include <vector>

namespace kova_bench {

using Clock = std::chrono::steady_clock;

// Seconds on the monotonic clock, for runs timed from start to end.
double Seconds();

// Milliseconds from a to b.
double Ms(Clock::time_point a, Clock::time_point b);

// Runs fn `runs` times (at least once) and returns the median duration in ms.
template <typename Fn>
double Median(int runs, Fn fn) {
    std::vector<double> t;
    for (int i = 0; i < runs; ++i) {
        auto a = Clock::now();
        fn();
        t.push_back(Ms(a, Clock::now()));
    }
    std::sort(t.begin(), t.end());
    return t[t.size() / 2];
}

} // namespace kova_bench

#endif

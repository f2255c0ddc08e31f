// How the benchmarks measure: work and a bound take turns in the same run, so that whatever else the machine does meets
// both, and medians of both are compared.
#pragma once

#include <algorithm>
#include <cstddef>
#include <ctime>
#include <vector>

namespace bench {

// Seconds of processor time of the calling thread: other programs on the machine disturb it less than a wall clock.
inline double ProcessorTime() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// Seconds on a wall clock, for work that several threads share.
inline double WallTime() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

template <class Work> double Seconds(const Work &work, double (*clock)() = ProcessorTime) {
    const double start = clock();
    work();
    return clock() - start;
}

inline double Median(std::vector<double> &values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

} // namespace bench

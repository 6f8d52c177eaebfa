#include "timing.h"

namespace kova_bench {

double Ms(Clock::time_point a, Clock::time_point b) { return std::chrono::duration<double, std::milli>(b - a).count(); }

} // namespace kova_bench

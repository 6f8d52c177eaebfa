#include "timing.h"

namespace kova_bench {

double Seconds() { return std::chrono::duration<double>(Clock::now().time_since_epoch()).count(); }

double Ms(Clock::time_point a, Clock::time_point b) { return std::chrono::duration<double, std::milli>(b - a).count(); }

} // namespace kova_bench

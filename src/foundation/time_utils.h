// Whole-second wall-clock time, ISO 8601 UTC texts and the periodic-work limiter.
#pragma once

#include <string>

namespace zel {

long time_now();
std::string getISOTime();
std::string toISOTime(long t);
// 1 when at least `period` seconds have passed since *stamp (then *stamp becomes now).
int ratelimit(unsigned* stamp, unsigned period);

// Test seam: every reader of time_now() sees the wall clock moved by this many seconds.
void advance_clock(long seconds);
long clock_offset();

}  // namespace zel

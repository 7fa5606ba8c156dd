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
// Test seam: while frozen, the wall clock seen by time_now() stands still (the offset
// still applies), so boundaries can be tested to the second.
void freeze_clock(bool frozen);

}  // namespace zel

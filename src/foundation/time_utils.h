// Whole-second wall-clock time, ISO 8601 UTC texts and the periodic-work limiter.
#pragma once

#include <cstdint>
#include <string>

namespace zel {

long time_now();
std::string getISOTime();
std::string toISOTime(long t);
// 1 when at least `period` seconds have passed since *stamp (then *stamp becomes now).
int ratelimit(unsigned* stamp, unsigned period);

// Milliseconds on a clock that only moves forward (a wall clock set back changes nothing),
// for delays. The seams below move and freeze it together with the wall clock.
int64_t monotonic_ms();

// Test seam: every reader of time_now() and monotonic_ms() sees its clock moved by this
// many seconds.
void advance_clock(long seconds);
long clock_offset();
// Test seam: while frozen, the clocks seen by time_now() and monotonic_ms() stand still
// (the offset still applies), so boundaries can be tested to the second.
void freeze_clock(bool frozen);

}  // namespace zel

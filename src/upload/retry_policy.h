// Which failed tries of a block are worth another, and how long to wait before it: full
// jitter, so that recorders behind one reset modem do not come back in step.
#pragma once

#include <curl/curl.h>

#include <chrono>
#include <string>

namespace zel {

constexpr int kMaxTries = 8;

// Faults of the path or of a busy service, which a later try may not meet.
bool retryable(CURLcode res);
bool retryable_status(long http_status);
// The wait before try tries_made + 1: uniform in [0, min(30 s, 2^(tries_made-1) s)], or
// the service's Retry-After (seconds, at most 60) when it gave one (retry_after_s >= 0).
std::chrono::milliseconds backoff(int tries_made, long retry_after_s);
// A Retry-After header's value in whole seconds; -1 when absent or an HTTP date.
long parse_retry_after(const std::string& value);
// Test seam: the longest back-off (30 s unless changed), so retries can be tested quickly.
void set_backoff_cap(std::chrono::milliseconds cap);

}  // namespace zel

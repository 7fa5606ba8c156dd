#include "link/reconnect_schedule.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>

namespace zel {

void ReconnectSchedule::reset(const std::string& identity) {
  // Not the clock alone: recorders powered up in the same second must draw apart.
  std::random_device device;
  std::seed_seq seed{static_cast<uint64_t>(device()), static_cast<uint64_t>(device()),
                     static_cast<uint64_t>(std::hash<std::string>{}(identity)),
                     static_cast<uint64_t>(getpid()),
                     static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count())};
  random.seed(seed);
  next_ms = INT64_MIN / 2;
  last_attempt_ms = INT64_MIN / 2;
  established_ms = -1;
  attempts_made = 0;
  failures = 0;
}

int64_t ReconnectSchedule::draw(int64_t low_ms, int64_t high_ms) {
  return std::uniform_int_distribution<int64_t>(low_ms, std::max(low_ms, high_ms))(random);
}

int64_t ReconnectSchedule::backoff_ms() {
  const int64_t ceiling = failures >= 4 ? kMaxDelayMs : std::min(kMaxDelayMs, kMinGapMs << failures);
  return draw(kMinGapMs, ceiling);
}

void ReconnectSchedule::schedule(int64_t at_ms) { next_ms = std::max(at_ms, last_attempt_ms + kMinGapMs); }

void ReconnectSchedule::attempt_started(int64_t now_ms) {
  last_attempt_ms = now_ms;
  established_ms = -1;
  ++attempts_made;
  // Until the attempt ends one way or the other, no other starts.
  next_ms = INT64_MAX;
}

void ReconnectSchedule::attempt_failed(int64_t now_ms) {
  ++failures;
  schedule(now_ms + backoff_ms());
}

void ReconnectSchedule::refused(int64_t now_ms, int64_t retry_after_s) {
  ++failures;
  const int64_t room = std::clamp<int64_t>(retry_after_s, 0, kMaxRetryAfterS) * 1000;
  schedule(now_ms + room + draw(0, kMinGapMs));
}

void ReconnectSchedule::established(int64_t now_ms) { established_ms = now_ms; }

void ReconnectSchedule::dropped(int64_t now_ms) {
  if (established_ms < 0) return;  // not a link: its failure is counted already
  const bool stable = now_ms - established_ms >= kStableMs;
  established_ms = -1;
  if (!stable) {
    attempt_failed(now_ms);
    return;
  }
  failures = 0;
  // Every recorder of a fleet loses the server in the same second: spread the returns.
  schedule(now_ms + draw(0, kMinGapMs));
}

}  // namespace zel

// When the link tries again. A fleet of recorders loses its server in the same second; had
// each come back on a fixed period they would return in lock-step and keep a recovering
// server down. So the delays grow and are drawn at random, from a source each recorder
// seeds for itself, on the monotonic clock; no two attempts are ever less than 5 s apart.
#pragma once

#include <cstdint>
#include <random>
#include <string>

namespace zel {

class ReconnectSchedule {
 public:
  static constexpr int64_t kMinGapMs = 5000;
  static constexpr int64_t kMaxDelayMs = 60000;
  static constexpr int64_t kStableMs = 60000;    // a link that lived this long was not a failure
  static constexpr int64_t kMaxRetryAfterS = 600;

  // A new start (connect): the first attempt is due at once; identity seeds the draws.
  void reset(const std::string& identity);
  // An attempt is started only when due, and never while one is under way.
  bool due(int64_t now_ms) const { return next_ms != INT64_MAX && now_ms >= next_ms; }
  void attempt_started(int64_t now_ms);
  void attempt_failed(int64_t now_ms);
  // The server refused the upgrade and asked for this many seconds of room.
  void refused(int64_t now_ms, int64_t retry_after_s);
  void established(int64_t now_ms);
  void dropped(int64_t now_ms);

  bool in_attempt() const { return next_ms == INT64_MAX; }
  bool is_established() const { return established_ms >= 0; }
  int64_t attempts() const { return attempts_made; }
  int64_t next_attempt_ms() const { return next_ms; }

 private:
  int64_t draw(int64_t low_ms, int64_t high_ms);
  // After the n-th failure in a row: [5 s, min(60 s, 5 s x 2^n)].
  int64_t backoff_ms();
  void schedule(int64_t at_ms);

  std::mt19937_64 random;
  int64_t next_ms = 0;
  int64_t last_attempt_ms = INT64_MIN / 2;
  int64_t established_ms = -1;  // -1: the current attempt has not led to a link
  int64_t attempts_made = 0;
  int failures = 0;             // n: failed attempts in a row
};

}  // namespace zel

// The cap on what all upload threads send together: a token bucket that the threads draw
// on as they hand encrypted bytes to libcurl. The cap can change at any time; a thread
// waits at most kMaxWait at a time, so a change reaches running uploads at once.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>

namespace zel {

class RateLimiter {
 public:
  static constexpr std::chrono::milliseconds kMaxWait{50};

  void set_rate(uint64_t bytes_per_second);  // 0: no cap
  uint64_t rate() const { return rate_; }
  // Grants up to want bytes, waiting when the bucket is empty; 0 after a wait of kMaxWait
  // that brought nothing, so the caller can look at its own state and ask again.
  size_t take(size_t want);

 private:
  std::atomic<uint64_t> rate_{0};
  std::mutex mutex_;  // guards tokens_ and last_
  double tokens_ = 0;
  std::chrono::steady_clock::time_point last_{};
};

// The one limiter of the process's upload pool.
RateLimiter& upload_rate_limiter();

}  // namespace zel

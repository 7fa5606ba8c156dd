#include "upload/rate_limiter.h"

#include <algorithm>
#include <thread>

namespace zel {

void RateLimiter::set_rate(uint64_t bytes_per_second) {
  std::lock_guard<std::mutex> lock(mutex_);
  rate_ = bytes_per_second;
  tokens_ = 0;
  last_ = std::chrono::steady_clock::now();
}

size_t RateLimiter::take(size_t want) {
  const uint64_t rate = rate_;
  if (rate == 0 || want == 0) return want;
  // Grants of at least a fiftieth of a second's worth (up to 64 KiB): a trickle of tiny
  // grants would cost more in TLS records and wake-ups than it sends.
  const double chunk = std::min(static_cast<double>(want),
                                std::clamp(static_cast<double>(rate) / 50, 1.0, 65536.0));
  // A bucket of a tenth of a second: bursts stay short, so the sum over any second is
  // close to the cap whatever the number of threads.
  const double burst = std::max(static_cast<double>(rate) / 10, chunk);
  std::unique_lock<std::mutex> lock(mutex_);
  const auto now = std::chrono::steady_clock::now();
  tokens_ = std::min(burst, tokens_ + std::chrono::duration<double>(now - last_).count() * rate);
  last_ = now;
  if (tokens_ >= chunk) {
    size_t granted = std::min(want, static_cast<size_t>(tokens_));
    tokens_ -= static_cast<double>(granted);
    return granted;
  }
  const auto wait = std::chrono::duration<double>((chunk - tokens_) / static_cast<double>(rate));
  lock.unlock();
  std::this_thread::sleep_for(std::min<std::chrono::duration<double>>(wait, kMaxWait));
  return 0;
}

RateLimiter& upload_rate_limiter() {
  // Never destroyed: an upload thread may still be sending while the process exits.
  static RateLimiter* limiter = new RateLimiter();
  return *limiter;
}

}  // namespace zel

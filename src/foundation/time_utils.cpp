#include "foundation/time_utils.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>

namespace zel {

namespace {
std::atomic<long> g_offset{0};
std::atomic<long> g_frozen_at{0};  // 0: the clock runs
std::atomic<int64_t> g_frozen_ms{-1};  // -1: the monotonic clock runs

std::string format_utc(time_t t) {
  struct tm parts {};
  // Several threads format times, so the reentrant form is required.
  if (gmtime_r(&t, &parts) == nullptr) return std::string();
  char buf[50];
  size_t n = strftime(buf, sizeof buf, "%FT%TZ", &parts);
  return std::string(buf, n);
}
}  // namespace

namespace {
long wall_seconds() {
  auto since = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<long>(std::chrono::duration_cast<std::chrono::seconds>(since).count());
}

int64_t steady_ms() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

int64_t frozen_or(int64_t running) {
  int64_t frozen = g_frozen_ms.load(std::memory_order_relaxed);
  return frozen >= 0 ? frozen : running;
}
}  // namespace

int64_t monotonic_ms() {
  return frozen_or(steady_ms()) + int64_t{1000} * g_offset.load(std::memory_order_relaxed);
}

long time_now() {
  long frozen = g_frozen_at.load(std::memory_order_relaxed);
  return (frozen != 0 ? frozen : wall_seconds()) + g_offset.load(std::memory_order_relaxed);
}

std::string getISOTime() { return format_utc(static_cast<time_t>(time_now())); }

std::string toISOTime(long t) { return format_utc(static_cast<time_t>(t)); }

int ratelimit(unsigned* stamp, unsigned period) {
  long now = time_now();
  if (static_cast<int64_t>(now) - static_cast<int64_t>(*stamp) < static_cast<int64_t>(period))
    return 0;
  *stamp = static_cast<unsigned>(now);
  return 1;
}

void advance_clock(long seconds) { g_offset.fetch_add(seconds, std::memory_order_relaxed); }

long clock_offset() { return g_offset.load(std::memory_order_relaxed); }

void freeze_clock(bool frozen) {
  g_frozen_at.store(frozen ? wall_seconds() : 0);
  g_frozen_ms.store(frozen ? steady_ms() : -1);
}

}  // namespace zel

#include "upload/retry_policy.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <random>

namespace zel {

namespace {
std::atomic<long long> backoff_cap_ms{30000};
constexpr long kMaxRetryAfter = 60;
}  // namespace

bool retryable(CURLcode res) {
  switch (res) {
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_CONNECT:
    case CURLE_OPERATION_TIMEDOUT:
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_GOT_NOTHING:
      return true;
    default:
      return false;
  }
}

bool retryable_status(long s) {
  return s == 408 || s == 429 || s == 500 || s == 502 || s == 503 || s == 504;
}

std::chrono::milliseconds backoff(int tries_made, long retry_after_s) {
  if (retry_after_s >= 0) {
    return std::chrono::seconds(std::min(retry_after_s, kMaxRetryAfter));
  }
  const int doubling = std::clamp(tries_made - 1, 0, 20);
  const long long ceiling = std::min<long long>(backoff_cap_ms, 1000LL << doubling);
  thread_local std::mt19937_64 rng{std::random_device{}()};
  return std::chrono::milliseconds(std::uniform_int_distribution<long long>(0, ceiling)(rng));
}

long parse_retry_after(const std::string& value) {
  size_t first = value.find_first_not_of(" \t");
  size_t last = value.find_last_not_of(" \t\r\n");
  if (first == std::string::npos || last - first > 8) return -1;
  long seconds = 0;
  for (size_t i = first; i <= last; ++i) {
    if (!std::isdigit(static_cast<unsigned char>(value[i]))) return -1;
    seconds = seconds * 10 + (value[i] - '0');
  }
  return seconds;
}

void set_backoff_cap(std::chrono::milliseconds cap) { backoff_cap_ms = cap.count(); }

}  // namespace zel

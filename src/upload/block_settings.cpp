#include "upload/block_settings.h"

#include "foundation/log.h"

namespace zel {

namespace {
std::atomic<uint64_t> chosen{0};
}

bool set_block_bytes(uint64_t n) {
  if (n != 0 && (n % 16 != 0 || n < kMinBlockBytes || n > kMaxBlockBytes)) {
    zel_log(LEVEL_ERR, "Block size %llu refused: 0, or a multiple of 16 from %llu to %llu\n",
            static_cast<unsigned long long>(n), static_cast<unsigned long long>(kMinBlockBytes),
            static_cast<unsigned long long>(kMaxBlockBytes));
    return false;
  }
  chosen = n;
  return true;
}

uint64_t block_bytes() { return chosen; }

BlockCounters& block_counters() {
  static BlockCounters counters;
  return counters;
}

}  // namespace zel

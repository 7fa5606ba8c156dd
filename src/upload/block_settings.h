// Block mode's process-wide settings and counts: the block size the host chose, which
// holds across reconnections, and what the block uploads did for stats().
#pragma once

#include <atomic>
#include <cstdint>

namespace zel {

// 0 (one PUT per clip) or a multiple of 16 in [kMinBlockBytes, kMaxBlockBytes].
constexpr uint64_t kMinBlockBytes = 262144;
constexpr uint64_t kMaxBlockBytes = 104857600;

// False, with a log line and nothing changed, for any other size. Any thread.
bool set_block_bytes(uint64_t block_bytes);
// The size for clips handed to the pool from now on.
uint64_t block_bytes();

struct BlockCounters {
  std::atomic<int64_t> blocks_retried{0};
  std::atomic<int64_t> credentials_refreshed{0};
};
BlockCounters& block_counters();

}  // namespace zel

// One queued outbound text frame.
#pragma once

#include <cstdint>
#include <string>

namespace zel {

struct OutboundType {
  std::string message;  // "" asks the link to close (sorts first)
  // Connections on which writing this frame failed. Not part of the order, so it may
  // change while the frame sits in the set.
  mutable int32_t attempts = 0;
  // Non-zero for a frame whose delivery the outbox follows (see delivery_proof.cpp).
  uint64_t tag = 0;

  // Ordered by text alone: identical texts collapse, and frames leave in text order.
  bool operator<(const OutboundType& other) const { return message < other.message; }
};

}  // namespace zel

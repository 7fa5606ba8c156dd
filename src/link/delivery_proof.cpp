// Proof that the server read what was written: a frame that reached the socket may still
// die with the connection in a buffer on either side. RFC 6455 §5.5.3 has every endpoint
// answer a ping with a pong echoing its payload, after reading what came before it; so a
// pong for ping n proves every frame written before ping n. The payload is the ping's
// 8-byte sequence number, big-endian. The design's "ping" message is a different thing
// and stays as it is.
#include <cstring>

#include "foundation/log.h"
#include "link/websocket_client.h"

namespace zel {

namespace {
constexpr auto kProofPingPeriod = std::chrono::seconds(1);
constexpr size_t kProofPayload = 8;
}  // namespace

void WebSocketClient::send_tracked(const std::string& message, uint64_t tag) {
  std::lock_guard<std::mutex> lock(mutex);
  if (!linked_locked()) return;
  outbound.insert(OutboundType{message, 0, tag});
  count_queues_locked();
  request_writeable_locked();
}

std::vector<uint64_t> WebSocketClient::take_proven() {
  std::lock_guard<std::mutex> lock(mutex);
  std::vector<uint64_t> out;
  out.swap(proven);
  return out;
}

void WebSocketClient::hold_proof_pings(bool held) {
  std::lock_guard<std::mutex> lock(mutex);
  proof_pings_held = held;
}

bool WebSocketClient::proof_ping_due_locked() {
  return !written_tags.empty() && !proof_pings_held &&
         std::chrono::steady_clock::now() - last_proof_ping >= kProofPingPeriod;
}

int WebSocketClient::write_proof_ping(lws* w) {
  unsigned char frame[LWS_PRE + kProofPayload];
  uint64_t number;
  std::vector<uint64_t> tags;
  {
    std::lock_guard<std::mutex> lock(mutex);
    number = ++proof_ping_counter;
    tags.swap(written_tags);
    last_proof_ping = std::chrono::steady_clock::now();
  }
  for (size_t i = 0; i < kProofPayload; ++i)
    frame[LWS_PRE + i] = static_cast<unsigned char>(number >> (8 * (kProofPayload - 1 - i)));
  if (lws_write(w, frame + LWS_PRE, kProofPayload, LWS_WRITE_PING) < static_cast<int>(kProofPayload)) {
    // The connection is failing; its tags are sent again on the next one.
    zel_log(LEVEL_ERR, "Partial write\n");
    return close_with(w, 4404);
  }
  std::lock_guard<std::mutex> lock(mutex);
  proof_pings.emplace_back(number, std::move(tags));
  if (!outbound.empty()) lws_callback_on_writable(w);
  return 0;
}

void WebSocketClient::on_pong(const void* in, size_t len) {
  if (in == nullptr || len != kProofPayload) return;  // not one of ours
  const auto* bytes = static_cast<const unsigned char*>(in);
  uint64_t number = 0;
  for (size_t i = 0; i < kProofPayload; ++i) number = (number << 8) | bytes[i];
  std::lock_guard<std::mutex> lock(mutex);
  // A pong proves its own ping and, as frames are read in order, every earlier one.
  while (!proof_pings.empty() && proof_pings.front().first <= number) {
    auto& tags = proof_pings.front().second;
    proven.insert(proven.end(), tags.begin(), tags.end());
    proof_pings.pop_front();
  }
}

void WebSocketClient::forget_proofs_locked() {
  written_tags.clear();
  proof_pings.clear();
  for (auto it = outbound.begin(); it != outbound.end();)
    it = it->tag != 0 ? outbound.erase(it) : std::next(it);
}

}  // namespace zel

// The two queues of the link and the two ways of ending a session.
#include "foundation/log.h"
#include "link/websocket_client.h"

namespace zel {

void WebSocketClient::request_writeable_locked() {
  // Only the servicing thread may call into lws; other threads rely on the worker,
  // which asks for a writeable event on every pass while messages wait.
  if (on_worker_thread() && state == LinkState::CONNECTED && wsi != nullptr) lws_callback_on_writable(wsi);
}

void WebSocketClient::send_message(const std::string& message, bool force) {
  std::lock_guard<std::mutex> lock(mutex);
  if (!linked_locked() && !force) return;
  outbound.insert(OutboundType{message, 0});
  count_queues_locked();
  request_writeable_locked();
}

bool WebSocketClient::outbound_message_ready() {
  std::lock_guard<std::mutex> lock(mutex);
  return !outbound.empty();
}

bool WebSocketClient::get_outbound_message(OutboundType& out) {
  std::lock_guard<std::mutex> lock(mutex);
  if (outbound.empty()) return false;
  // A copy: a host thread may change the set as soon as the lock is released.
  out = *outbound.begin();
  return true;
}

bool WebSocketClient::outbound_remove_message(OutboundType& m) {
  std::lock_guard<std::mutex> lock(mutex);
  const bool erased = outbound.erase(m) > 0;
  count_queues_locked();
  return erased;
}

bool WebSocketClient::inbound_message_ready() {
  std::lock_guard<std::mutex> lock(mutex);
  return !inbound.empty();
}

std::string WebSocketClient::get_inbound_message() {
  std::lock_guard<std::mutex> lock(mutex);
  if (inbound.empty()) return std::string();
  std::string text = std::move(inbound.front());
  inbound.pop_front();
  count_queues_locked();
  return text;
}

size_t WebSocketClient::inbound_size() { return inbound_count; }

void WebSocketClient::count_queues_locked() {
  outbound_count = outbound.size();
  inbound_count = inbound.size();
}

void WebSocketClient::soft_disconnect() {
  std::lock_guard<std::mutex> lock(mutex);
  outbound.insert(OutboundType{std::string(), 0});
  count_queues_locked();
  if (on_worker_thread() && wsi != nullptr) lws_callback_on_writable(wsi);
}

std::future<void> WebSocketClient::full_disconnect() {
  bool was_connected;
  {
    std::lock_guard<std::mutex> lock(mutex);
    was_connected = linked_locked();
    keep_connected = false;
    if (!was_connected) go(LinkState::STOPPED);
  }
  if (was_connected) soft_disconnect();
  std::lock_guard<std::mutex> lock(mutex);
  if (!was_connected && !disconnect_signalled) {
    try {
      disconnect_promise.set_value();
      disconnect_signalled = true;
    } catch (const std::future_error&) {
      zel_log(LEVEL_ERR, "Premature future error, sad\n");
    }
  }
  return disconnect_promise.get_future();
}

bool WebSocketClient::wait_closed(std::chrono::steady_clock::time_point deadline) {
  std::unique_lock<std::mutex> lock(mutex);
  return link_down.wait_until(lock, deadline, [this] { return !linked_locked(); });
}

void WebSocketClient::inject_inbound(const std::string& text) {
  std::lock_guard<std::mutex> lock(mutex);
  inbound.push_back(text);
  count_queues_locked();
}

size_t WebSocketClient::outbound_size() { return outbound_count; }

std::vector<std::string> WebSocketClient::outbound_texts() {
  std::lock_guard<std::mutex> lock(mutex);
  std::vector<std::string> texts;
  for (const auto& m : outbound) texts.push_back(m.message);
  return texts;
}

}  // namespace zel

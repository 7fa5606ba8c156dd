// The process-wide WebSocket link to the messaging server. It has no thread of its
// own: the worker calls service_socket() each pass, and every lws callback runs there.
#pragma once

#include <libwebsockets.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "link/link_tls.h"
#include "link/outbound_type.h"
#include "link/proxy_tunnel.h"
#include "link/reconnect_schedule.h"
#include "zel/records.h"

namespace zel {

// Where the link stands; changed only by WebSocketClient::go, which logs each change.
// idle: not started; connecting: wanted but not up (waiting for an attempt, or in one);
// connected: up; closing: up, this side asked lws to close it; stopped: full_disconnect was
// called and no link is up.
enum class LinkState { IDLE, CONNECTING, CONNECTED, CLOSING, STOPPED };

class WebSocketClient {
 public:
  static constexpr size_t kMaxPayload = 1048576;

  static WebSocketClient& instance();

  bool initialize(const CloudConnect& cc, std::function<void()> on_connect,
                  std::function<void()> on_disconnect);
  // One turn of the connection machine and of lws; worker thread only.
  bool service_socket();
  bool is_connected();
  void clear_context();
  void set_connected(bool c);

  static int callback(lws* wsi, lws_callback_reasons reason, void* user, void* in, size_t len);

  // Queues (any thread).
  void send_message(const std::string& message, bool force);
  bool outbound_message_ready();
  // Copies the first queued message into out; false when none is queued.
  bool get_outbound_message(OutboundType& out);
  bool outbound_remove_message(OutboundType& m);
  bool inbound_message_ready();
  std::string get_inbound_message();
  size_t inbound_size();  // like outbound_size(), without taking the link's lock
  void soft_disconnect();
  std::future<void> full_disconnect();

  // Delivery proof (delivery_proof.cpp). A tracked frame, once written, is followed by a
  // WebSocket ping (at most one a second) whose pong proves the server read it; tracked
  // frames not yet written when their connection ends are dropped, for the outbox to send
  // again. Any thread.
  void send_tracked(const std::string& message, uint64_t tag);
  std::vector<uint64_t> take_proven();  // tags proven since the last call
  uint64_t connection_number() { return connections; }  // counts established links
  void hold_proof_pings(bool held);  // test seam: no ping, so nothing is proven
  // Waits until the link is down or the deadline; true when it is down.
  bool wait_closed(std::chrono::steady_clock::time_point deadline);

  // Test seams.
  void inject_inbound(const std::string& text);  // as if received from the server
  size_t outbound_size();  // the queue's size, kept where any thread reads it without a lock
  // Connection attempts since initialize, and when the next is due (seconds since the
  // epoch; 0 while a link is up or an attempt is under way); any thread, no lock.
  int64_t reconnect_attempts() const { return attempts_made; }
  int64_t next_attempt_at() const;
  std::vector<std::string> outbound_texts();

  ~WebSocketClient();

 private:
  WebSocketClient() = default;
  WebSocketClient(const WebSocketClient&) = delete;
  WebSocketClient& operator=(const WebSocketClient&) = delete;

  bool create_context();
  bool setup_connection();
  int on_writeable(lws* wsi);
  int close_with(lws* wsi, int code);
  void on_received(lws* wsi, const void* in, size_t len);
  bool on_worker_thread() const;
  void request_writeable_locked();

  void service_once();
  void count_queues_locked();  // mutex held, after outbound or inbound changed
  // A connection has ended: what belonged to it alone goes with it.
  void forget_connection();
  // The attempt under way has ended, as a link that dropped, a refusal or a failure; the
  // schedule draws the next one. mutex held.
  void settle_attempt_locked();
  // The one place the state changes; mutex held.
  void go(LinkState next);
  bool linked_locked() const { return state == LinkState::CONNECTED || state == LinkState::CLOSING; }
  // The write of the first queued frame failed on this connection; mutex held.
  void count_failed_write_locked(const OutboundType& msg);
  bool proof_ping_due_locked();
  int write_proof_ping(lws* w);
  void on_pong(const void* in, size_t len);
  void forget_proofs_locked();

  lws* wsi = nullptr;
  ProxyTunnel tunnel;  // worker thread only
  LinkTls tls;         // worker thread only
  // Closing: lws may still offer writeable events while it waits for the close to
  // complete, and anything written then would be lost with the connection.
  LinkState state = LinkState::IDLE;  // mutex
  bool keep_connected = false;        // mutex: the host wants the link
  std::function<void()> on_connect;
  std::function<void()> on_disconnect;
  std::promise<void> disconnect_promise;
  bool disconnect_signalled = false;
  lws_context_creation_info context_info{};
  lws_client_connect_info connect_info{};
  struct ContextDestroy {
    void operator()(lws_context* c) const { lws_context_destroy(c); }
  };
  std::unique_ptr<lws_context, ContextDestroy> context;
  const char* uri_scheme = nullptr;
  const char* uri_path = nullptr;
  std::vector<char> uri_copy;  // lws_parse_uri cuts the URI into pieces in place
  char path_buffer[300] = {};
  ReconnectSchedule schedule;   // mutex
  int64_t refused_for_s = -1;   // worker: Retry-After of the attempt's refusal, -1 if none
  std::atomic<int64_t> attempts_made{0};
  std::atomic<int64_t> next_attempt_ms{0};
  std::string origin;
  std::string server_uri;
  std::string ca_file;
  std::string cert_file;
  std::string key_file;
  std::set<OutboundType> outbound;
  std::deque<std::string> inbound;
  std::vector<unsigned char> write_buffer;
  // The fragments of the message being received, and whether it has passed the frame
  // limit (then the rest of it is dropped). Worker thread only.
  std::string partial;
  bool partial_dropped = false;

  // Delivery proof, under mutex: tags written since the last ping, the pings in flight
  // with the tags each one proves, and the tags proven.
  std::vector<uint64_t> written_tags;
  std::deque<std::pair<uint64_t, std::vector<uint64_t>>> proof_pings;
  std::vector<uint64_t> proven;
  uint64_t proof_ping_counter = 0;
  std::chrono::steady_clock::time_point last_proof_ping{};
  bool proof_pings_held = false;
  std::atomic<uint64_t> connections{0};

  std::atomic<size_t> outbound_count{0};
  std::atomic<size_t> inbound_count{0};

  // Guards outbound, inbound, state, keep_connected, schedule, disconnect_promise and
  // disconnect_signalled. Never held while on_connect/on_disconnect run (they send) nor
  // across a call into lws (lws_callback_on_writable aside, which only marks the socket).
  std::mutex mutex;
  std::condition_variable link_down;  // with mutex: the link is no longer up
  // The thread that services the socket: only it may call into lws.
  std::atomic<std::thread::id> service_thread{};
};

}  // namespace zel

#include "link/websocket_client.h"

#include <poll.h>

#include <cstdio>
#include <cstdlib>
#include <algorithm>
#include <cstring>
#include <exception>
#include <utility>

#include "foundation/log.h"
#include "foundation/time_utils.h"

namespace zel {

namespace {

constexpr int kMaxReadRounds = 256;  // bounds one pass at 256 more service calls
constexpr int kCloseDisconnecting = 4003;
constexpr int kCloseWriteFailed = 4404;
constexpr int kCloseRequested = 4429;
// A frame that could not be written on this many connections will not go out on the next.
constexpr int32_t kMaxWriteAttempts = 3;

lws_protocols protocols[] = {
    {"", WebSocketClient::callback, 0, WebSocketClient::kMaxPayload, 0, nullptr, 0},
    {nullptr, nullptr, 0, 0, 0, nullptr, 0},
};

// No extensions: the link is never compressed.
const lws_extension exts[] = {
    {nullptr, nullptr, nullptr},
};

bool known_scheme(const char* scheme) {
  if (scheme == nullptr) return false;
  for (const char* known : {"wss", "https", "ws", "http"})
    if (std::strcmp(scheme, known) == 0) return true;
  return false;
}

// The seconds of room a server that refused the upgrade (503 or 429) asked for, or -1.
// Read while the handshake's headers are still attached to the connection.
int64_t requested_room(lws* w) {
  const unsigned status = lws_http_client_http_response(w);
  if (status != 503 && status != 429) return -1;
  char value[32] = {};
  if (lws_hdr_copy(w, value, sizeof value, WSI_TOKEN_HTTP_RETRY_AFTER) <= 0) return -1;
  // Seconds only: an HTTP-date is ignored.
  char* end = nullptr;
  const long long seconds = std::strtoll(value, &end, 10);
  while (end != value && *end == ' ') ++end;
  return (end == value || *end != '\0' || seconds < 0) ? -1 : seconds;
}

bool readable(const std::string& path) {
  FILE* f = std::fopen(path.c_str(), "r");
  if (f == nullptr) return false;
  std::fclose(f);
  return true;
}

// Host callbacks reached from inside lws must never unwind through C frames.
void call_guarded(const std::function<void()>& fn, const char* what) {
  if (!fn) return;
  try {
    fn();
  } catch (const std::exception& e) {
    zel_log(LEVEL_ERR, "%s callback failed: %s\n", what, e.what());
  } catch (...) {
    zel_log(LEVEL_ERR, "%s callback failed\n", what);
  }
}

}  // namespace

WebSocketClient& WebSocketClient::instance() {
  // Never destroyed: a worker that outlives main must never meet a destroyed link.
  static WebSocketClient* client = new WebSocketClient();
  return *client;
}

WebSocketClient::~WebSocketClient() { clear_context(); }

bool WebSocketClient::initialize(const CloudConnect& cc, std::function<void()> on_connect_fn,
                                 std::function<void()> on_disconnect_fn) {
  std::lock_guard<std::mutex> lock(mutex);
  keep_connected = true;
  go(LinkState::CONNECTING);
  disconnect_signalled = false;
  disconnect_promise = std::promise<void>();
  outbound.clear();
  // Requests that came in on a link that died belong to it: answering them now would act
  // on an order the server no longer waits for.
  if (!inbound.empty())
    zel_log(LEVEL_WARN, "Dropped %zu requests left from the last connection\n", inbound.size());
  inbound.clear();
  count_queues_locked();
  on_connect = std::move(on_connect_fn);
  on_disconnect = std::move(on_disconnect_fn);
  origin = cc.mac_address;
  server_uri = cc.server_uri;
  ca_file = cc.ca_path;
  key_file = cc.key_path;
  cert_file = cc.cert_path;
  schedule.reset(cc.mac_address);
  attempts_made = 0;
  next_attempt_ms = 0;
  apply_log_level_from_env();
  return true;
}

bool WebSocketClient::on_worker_thread() const {
  return service_thread.load() == std::this_thread::get_id();
}

bool WebSocketClient::service_socket() {
  service_thread.store(std::this_thread::get_id());
  bool attempt = false;
  bool want_write = false;
  {
    std::lock_guard<std::mutex> lock(mutex);
    const int64_t now = monotonic_ms();
    if (wsi == nullptr && state == LinkState::CONNECTING && schedule.due(now)) {
      attempt = true;
      refused_for_s = -1;
      schedule.attempt_started(now);
      attempts_made = schedule.attempts();
      next_attempt_ms = 0;
    } else if (state == LinkState::CONNECTED && (!outbound.empty() || proof_ping_due_locked())) {
      want_write = true;
    }
  }
  if (attempt) {
    zel_log(LEVEL_NOTICE, "Attempting to connect to messaging server...\n");
    clear_context();
    service_thread.store(std::this_thread::get_id());
    if (create_context() && setup_connection()) wsi = lws_client_connect_via_info(&connect_info);
    if (wsi == nullptr) {
      std::lock_guard<std::mutex> lock(mutex);
      settle_attempt_locked();
    }
  } else if (want_write && wsi != nullptr) {
    lws_callback_on_writable(wsi);
  }
  if (context != nullptr) {
    service_once();
    // One service call takes in about 16 KiB; without more rounds a 1 MiB request would
    // hold up everything behind it for seconds. Read on while the socket has data.
    for (int round = 0; round < kMaxReadRounds && wsi != nullptr; ++round) {
      pollfd ready{static_cast<int>(lws_get_socket_fd(wsi)), POLLIN, 0};
      if (ready.fd < 0 || poll(&ready, 1, 0) <= 0) break;
      service_once();
    }
  }
  return wsi != nullptr;
}

void WebSocketClient::service_once() {
  if (wsi != nullptr && tunnel.active()) tunnel.peek(lws_get_socket_fd(wsi));
  lws_service(context.get(), -1);
}

bool WebSocketClient::is_connected() {
  std::lock_guard<std::mutex> lock(mutex);
  return linked_locked();
}

void WebSocketClient::go(LinkState next) {
  static const char* const kNames[] = {"idle", "connecting", "connected", "closing", "stopped"};
  if (next == state) return;
  zel_log(LEVEL_NOTICE, "Link: %s -> %s\n", kNames[static_cast<int>(state)], kNames[static_cast<int>(next)]);
  const bool was_linked = linked_locked();
  state = next;
  if (was_linked && !linked_locked()) link_down.notify_all();
}

void WebSocketClient::clear_context() {
  context.reset();
  wsi = nullptr;
  // A later thread may be given the same id; it must not pass for the servicing thread.
  service_thread.store(std::thread::id());
}

bool WebSocketClient::create_context() {
  std::memset(&context_info, 0, sizeof context_info);
  context_info.port = CONTEXT_PORT_NO_LISTEN;
  context_info.protocols = protocols;
  context_info.ssl_ca_filepath = ca_file.c_str();
  context_info.ssl_cipher_list = "ECDHE-RSA-CHACHA20-POLY1305:AES128-SHA:MEDIUM:!aNULL";
  context_info.ka_time = 15;
  context_info.ka_probes = 3;
  context_info.ka_interval = 3;
  context_info.gid = -1;
  context_info.uid = -1;
  // The Origin header must carry the device MAC exactly as given, without a scheme.
  context_info.options = LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT | LWS_SERVER_OPTION_JUST_USE_RAW_ORIGIN;
  context_info.user = this;
  // A device without its certificate or key still connects, just without client auth.
  // One without the other cannot authenticate and would make TLS set-up fail, so the
  // pair is presented only when both files are readable.
  if (readable(cert_file) && readable(key_file)) {
    context_info.ssl_cert_filepath = cert_file.c_str();
    context_info.ssl_private_key_filepath = key_file.c_str();
  }

  context.reset(lws_create_context(&context_info));
  if (context == nullptr) {
    zel_log(LEVEL_ERR, "lws_create_context failed");
    return false;
  }
  wsi = nullptr;
  return true;
}

bool WebSocketClient::setup_connection() {
  std::memset(&connect_info, 0, sizeof connect_info);
  uri_copy.assign(server_uri.c_str(), server_uri.c_str() + server_uri.size() + 1);

  const char* address = nullptr;
  int port = 0;
  uri_scheme = nullptr;
  uri_path = nullptr;
  // The parser accepts almost anything, so a URI without a known scheme or a host is
  // refused here rather than left to fail inside the connection attempt.
  if (lws_parse_uri(uri_copy.data(), &uri_scheme, &address, &port, &uri_path) != 0 ||
      !known_scheme(uri_scheme) || address == nullptr || *address == '\0') {
    zel_log(LEVEL_ERR, "Bad URI(%s) for messaging server specified\n", server_uri.c_str());
    return false;
  }
  // The parser reports an absent path as "/"; the handshake path is "/" + the path.
  if (uri_path != nullptr && *uri_path == '/') ++uri_path;
  path_buffer[0] = '/';
  std::strncpy(path_buffer + 1, uri_path != nullptr ? uri_path : "", sizeof path_buffer - 2);
  path_buffer[sizeof path_buffer - 1] = '\0';

  if (!tunnel.apply(lws_get_vhost_by_name(context.get(), "default"), uri_scheme, address)) return false;

  bool tls = uri_scheme != nullptr &&
             (std::strcmp(uri_scheme, "https") == 0 || std::strcmp(uri_scheme, "wss") == 0);
  // The server is verified against the CA; its host name and pins, when the host asks for
  // them, are checked by LinkTls in the verification callback, where an IP address is
  // matched against the certificate's IP entries and the whole verified chain is at hand.
  this->tls.prepare(address);
  connect_info.ssl_connection = tls ? (LCCSCF_USE_SSL | LCCSCF_SKIP_SERVER_CERT_HOSTNAME_CHECK) : 0;
  connect_info.context = context.get();
  connect_info.address = address;
  connect_info.port = port;
  connect_info.path = path_buffer;
  connect_info.host = address;
  connect_info.origin = origin.c_str();
  connect_info.protocol = "";
  connect_info.ietf_version_or_minus_one = -1;
  connect_info.client_exts = exts;
  return true;
}

void WebSocketClient::set_connected(bool c) {
  bool was_connected;
  {
    std::lock_guard<std::mutex> lock(mutex);
    was_connected = linked_locked();
    if (c)
      go(LinkState::CONNECTED);
    else if (was_connected || state == LinkState::CONNECTING)
      go(keep_connected ? LinkState::CONNECTING : LinkState::STOPPED);
  }
  if (c) {
    ++connections;
    call_guarded(on_connect, "Connect");
    std::lock_guard<std::mutex> lock(mutex);
    disconnect_promise = std::promise<void>();
    disconnect_signalled = false;
    return;
  }
  if (was_connected) call_guarded(on_disconnect, "Disconnect");
  forget_connection();
  std::lock_guard<std::mutex> lock(mutex);
  if (disconnect_signalled) return;
  try {
    disconnect_promise.set_value();
    disconnect_signalled = true;
  } catch (const std::future_error&) {
    zel_log(LEVEL_ERR, "Future error, sad\n");
  }
}

int WebSocketClient::callback(lws* wsi, lws_callback_reasons reason, void* user, void* in,
                              size_t len) {
  lws_context* ctx = lws_get_context(wsi);
  if (ctx == nullptr) {
    zel_log(LEVEL_ERR, "No valid context\n");
    return -1;
  }
  auto* client = static_cast<WebSocketClient*>(lws_context_user(ctx));
  if (client == nullptr) {
    zel_log(LEVEL_ERR, "No user context\n");
    return -1;
  }

  switch (reason) {
    case LWS_CALLBACK_CLIENT_CONNECTION_ERROR:
      zel_log(LEVEL_ERR, "Connection LWS_CALLBACK_CLIENT_CONNECTION_ERROR\n");
      client->refused_for_s = requested_room(wsi);
      if (client->refused_for_s >= 0)
        zel_log(LEVEL_WARN, "The server asked for %lld s before the next attempt\n",
                static_cast<long long>(client->refused_for_s));
      client->tunnel.report_failure();
      client->set_connected(false);
      return 0;
    case LWS_CALLBACK_CLIENT_ESTABLISHED: {
      std::lock_guard<std::mutex> lock(client->mutex);
      client->schedule.established(monotonic_ms());
    }
      client->set_connected(true);
      lws_callback_on_writable(wsi);
      return 0;
    case LWS_CALLBACK_CLOSED:
      zel_log(LEVEL_NOTICE, "Connection LWS_CALLBACK_CLOSED\n");
      client->set_connected(false);
      return 0;
    case LWS_CALLBACK_CLIENT_RECEIVE:
      client->on_received(wsi, in, len);
      return 0;
    case LWS_CALLBACK_CLIENT_WRITEABLE:
      return client->on_writeable(wsi);
    case LWS_CALLBACK_CLIENT_RECEIVE_PONG:
      client->on_pong(in, len);
      return 0;
    case LWS_CALLBACK_WSI_DESTROY: {
      // Only now may service_socket build the next connection.
      if (client->wsi == wsi) client->wsi = nullptr;
      std::lock_guard<std::mutex> lock(client->mutex);
      client->settle_attempt_locked();
      return 0;
    }
    case LWS_CALLBACK_WS_PEER_INITIATED_CLOSE: {
      zel_log(LEVEL_NOTICE, "LWS_CALLBACK_WS_PEER_INITIATED_CLOSE: len %zu\n", len);
      const auto* bytes = static_cast<const unsigned char*>(in);
      for (size_t i = 0; bytes != nullptr && i < len; ++i)
        zel_log(LEVEL_NOTICE, " %d: 0x%02X \n", static_cast<int>(i), bytes[i]);
      client->set_connected(false);
      return 0;
    }
    case LWS_CALLBACK_OPENSSL_LOAD_EXTRA_CLIENT_VERIFY_CERTS:
      client->tls.on_client_context(static_cast<SSL_CTX*>(user));
      return 0;
    case LWS_CALLBACK_OPENSSL_PERFORM_SERVER_CERT_VERIFICATION:
      return client->tls.verify(static_cast<X509_STORE_CTX*>(user), static_cast<int>(len));
    case LWS_CALLBACK_CLIENT_CLOSED:
      zel_log(LEVEL_NOTICE, "Connection LWS_CALLBACK_CLIENT_CLOSED\n");
      client->set_connected(false);
      return 0;
    default:
      return 0;
  }
}

void WebSocketClient::settle_attempt_locked() {
  if (!schedule.in_attempt()) return;
  const int64_t now = monotonic_ms();
  if (schedule.is_established())
    schedule.dropped(now);
  else if (refused_for_s >= 0)
    schedule.refused(now, refused_for_s);
  else
    schedule.attempt_failed(now);
  next_attempt_ms = schedule.next_attempt_ms();
}

int64_t WebSocketClient::next_attempt_at() const {
  const int64_t next = next_attempt_ms;
  if (next == 0) return 0;
  return time_now() + std::max<int64_t>(0, (next - monotonic_ms() + 999) / 1000);
}

void WebSocketClient::forget_connection() {
  // A half-received message never completes on another connection.
  partial.clear();
  partial_dropped = false;
  std::lock_guard<std::mutex> lock(mutex);
  // A close asked of this connection must not close the next one.
  outbound.erase(OutboundType{std::string(), 0});
  forget_proofs_locked();
  count_queues_locked();
}

void WebSocketClient::on_received(lws* w, const void* in, size_t len) {
  // Any intermediary may cut a message into fragments (and lws hands a large frame over
  // in pieces): a message is the sum of its pieces, up to the frame limit.
  if (!partial_dropped) {
    if (partial.size() + len > kMaxPayload) {
      zel_log(LEVEL_WARN, "Inbound message past %zu bytes dropped\n", kMaxPayload);
      partial_dropped = true;
      partial.clear();
      partial.shrink_to_fit();
    } else {
      partial.append(static_cast<const char*>(in), len);
    }
  }
  if (!lws_is_final_fragment(w) || lws_remaining_packet_payload(w) > 0) return;
  const bool dropped = std::exchange(partial_dropped, false);
  std::string text = std::move(partial);
  partial.clear();
  if (dropped) return;
  std::lock_guard<std::mutex> lock(mutex);
  inbound.emplace_back(std::move(text));
  count_queues_locked();
}

void WebSocketClient::count_failed_write_locked(const OutboundType& msg) {
  auto it = outbound.find(msg);
  if (it == outbound.end()) return;
  if (++it->attempts < kMaxWriteAttempts) return;
  zel_log(LEVEL_ERR, "Frame of %zu bytes dropped: writing it failed on %d connections\n",
          it->message.size(), kMaxWriteAttempts);
  outbound.erase(it);
  count_queues_locked();
}

int WebSocketClient::close_with(lws* w, int code) {
  {
    std::lock_guard<std::mutex> lock(mutex);
    go(LinkState::CLOSING);
  }
  lws_close_reason(w, static_cast<lws_close_status>(code), nullptr, 0);
  return -1;
}

int WebSocketClient::on_writeable(lws* w) {
  OutboundType msg;
  {
    std::unique_lock<std::mutex> lock(mutex);
    if (state != LinkState::CONNECTED) return 0;
    if (!keep_connected) return lock.unlock(), close_with(w, kCloseDisconnecting);
    if (proof_ping_due_locked()) {
      lock.unlock();
      return write_proof_ping(w);
    }
    if (outbound.empty()) return 0;
    msg = *outbound.begin();
    if (msg.message.empty() || msg.message.size() > kMaxPayload) {
      outbound.erase(outbound.begin());
      count_queues_locked();
    }
  }
  if (msg.message.empty()) {
    zel_log(LEVEL_NOTICE, "Empty contents, treat as a disconnect request\n");
    return close_with(w, kCloseRequested);
  }
  const size_t length = msg.message.size();
  if (length > kMaxPayload) {
    zel_log(LEVEL_WARN, "Payload(%zu) bigger than buffer(%d), skipping\n", length,
            static_cast<int>(kMaxPayload));
    return 0;
  }
  if (write_buffer.size() < length + LWS_PRE) write_buffer.resize(length + LWS_PRE);
  std::memcpy(write_buffer.data() + LWS_PRE, msg.message.data(), length);
  int written = lws_write(w, write_buffer.data() + LWS_PRE, length, LWS_WRITE_TEXT);
  if (written >= 0 && static_cast<size_t>(written) >= length) {
    outbound_remove_message(msg);
    if (msg.tag != 0) {
      std::lock_guard<std::mutex> lock(mutex);
      written_tags.push_back(msg.tag);
    }
    return 0;
  }
  if (written < 0) zel_log(LEVEL_ERR, "ERROR %d writing to socket, hanging up\n", written);
  zel_log(LEVEL_ERR, "Partial write\n");
  {
    // The message stays queued for the next connection unless it has failed repeatedly.
    std::lock_guard<std::mutex> lock(mutex);
    count_failed_write_locked(msg);
  }
  return close_with(w, kCloseWriteFailed);
}

}  // namespace zel

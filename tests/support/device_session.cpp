#include "support/device_session.h"

#include <gtest/gtest.h>

#include "link/websocket_client.h"
#include "messaging/messaging.h"
#include "support/certs.h"

namespace zel_test {

zel::CloudConnect connect_params(const CloudServer& server) {
  const TestCerts& certs = test_certs();
  zel::CloudConnect cc;
  cc.server_uri = server.uri();
  cc.mac_address = kDeviceMac;
  cc.ca_path = certs.ca;
  cc.cert_path = certs.client_cert;
  cc.key_path = certs.client_key;
  return cc;
}

std::optional<std::string> wait_sent(CloudServer& server, const std::string& subject, size_t nth,
                                     std::chrono::milliseconds timeout) {
  return server.wait_for_message(
      [&](const CloudServer::Event& e) { return e.subject == subject && e.original_id.empty(); },
      nth, timeout);
}

size_t count_sent(CloudServer& server, const std::string& subject) {
  size_t n = 0;
  for (const auto& e : server.events())
    if (e.kind == "message" && e.subject == subject && e.original_id.empty()) ++n;
  return n;
}

DeviceSession::DeviceSession(CloudServer& server, std::list<std::string> cameras)
    : DeviceSession(server, connect_params(server), std::move(cameras)) {}

DeviceSession::DeviceSession(CloudServer& server, const zel::CloudConnect& cc,
                             std::list<std::string> cameras, bool wait) {
  bool started = zel::Upload::connect(
      cc, [this] { connected_count++; }, [this] { disconnected_count++; }, cameras);
  EXPECT_TRUE(started);
  if (wait) {
    EXPECT_TRUE(server.wait_for_connects(1, std::chrono::seconds(10)));
  }
}

bool DeviceSession::disconnect() {
  if (done_) return true;
  done_ = true;
  bool ok = zel::Upload::disconnect();
  zel::Messaging::get().reset_for_tests();
  // Whatever a test left behind in the link's queues belongs to no later test.
  zel::WebSocketClient& link = zel::WebSocketClient::instance();
  while (link.inbound_message_ready()) link.get_inbound_message();
  return ok;
}

DeviceSession::~DeviceSession() { EXPECT_TRUE(disconnect()); }

}  // namespace zel_test

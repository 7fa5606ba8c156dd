// The link as the server sees it: handshake, announcements, replies, keep-alive,
// reconnection and disconnection, all over TLS on loopback.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

#include "foundation/time_utils.h"
#include "link/websocket_client.h"
#include "messaging/messaging.h"
#include "support/certs.h"
#include "support/cloud_server.h"
#include "support/device_session.h"
#include "support/log_capture.h"
#include "support/wire.h"
#include "zel/upload.h"

namespace zel_test {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

TEST(Session, HandshakeAnnouncesVersionAndCamerasAndAnswersVersionRequests) {
  CloudServer server;
  std::promise<zel::CloudStatus> status;
  zel::Upload::register_cloud_status([&](zel::CloudStatus s) {
    static bool once = false;
    if (!once) status.set_value(s);
    once = true;
  });
  DeviceSession device(server, {"cam-1", "CAM-2"});

  std::vector<CloudServer::Event> events = server.events();
  auto connect_event = std::find_if(events.begin(), events.end(),
                                    [](const auto& e) { return e.kind == "connect"; });
  ASSERT_NE(connect_event, events.end());
  EXPECT_EQ(connect_event->path, "/");
  EXPECT_EQ(connect_event->origin, kDeviceMac);  // exactly as given, no scheme
  EXPECT_TRUE(connect_event->client_cert);

  auto version = wait_sent(server, "version", 0);
  ASSERT_TRUE(version);
  EXPECT_EQ(stable(*version), envelope("zel-inbound", "version", kVersionPlain));
  auto cam1 = wait_sent(server, "transaction", 0);
  auto cam2 = wait_sent(server, "transaction", 1);
  ASSERT_TRUE(cam1 && cam2);
  EXPECT_EQ(stable(*cam1), camera_announcement("cam-1"));
  EXPECT_EQ(stable(*cam2), camera_announcement("CAM-2"));  // the camera id is sent as given

  // The server's automatic "version" request reaches the host and gets the document back.
  auto future = status.get_future();
  ASSERT_EQ(future.wait_for(5s), std::future_status::ready);
  zel::CloudStatus s = future.get();
  EXPECT_TRUE(s.registered);
  EXPECT_TRUE(s.enabled);
  EXPECT_EQ(s.account_id, 42);
  EXPECT_EQ(s.device_uuid, "dev-uuid-1");
  EXPECT_EQ(s.partner_id, 7);
  std::string req = server.request("version", R"({"registered":false,"account_id":"9"})", "v-2");
  auto reply = server.wait_for_reply("v-2", 5s);
  ASSERT_TRUE(reply);
  std::string expected = envelope("zel-cloud", "version",
                                  "{\"status\":\"OK\",\"details\":" + kVersionPlain + "}");
  expected.insert(expected.size() - 1, ",\"original_id\":\"v-2\"");
  EXPECT_EQ(stable(*reply), expected);
  EXPECT_EQ(device.connects(), 1);
  zel::Upload::register_cloud_status(nullptr);
}

TEST(Session, VersionDocumentCarriesOptionalMembersInPlace) {
  CloudServer server;
  zel::CloudConnect cc = connect_params(server);
  cc.account = "acme";
  cc.partner = "p1";
  cc.serial_number = "SN1";
  cc.device_type = 1;
  DeviceSession device(server, cc);
  auto version = wait_sent(server, "version", 0);
  ASSERT_TRUE(version);
  EXPECT_EQ(stable(*version),
            std::string("{\"id\":\"") + kDeviceMacLower + "<us>\",\"from\":\"" + kDeviceMacLower +
                "\",\"to\":\"zel-inbound\",\"subject\":\"version\",\"date\":\"<date>\","
                "\"signature\":\"n/a\",\"fromDeviceType\":\"controller\",\"content\":{"
                "\"version\":\"22.1.0\",\"account\":\"acme\",\"buildNumber\":1,\"partner\":\"p1\","
                "\"buildDate\":\"202007080000\",\"serialNumber\":\"SN1\","
                "\"architecture\":\"pelmo_linux64\",\"ui\":\"none\"}}");
}

TEST(Session, UnknownSubjectsAndPongs) {
  CloudServer server;
  DeviceSession device(server);
  ASSERT_TRUE(wait_sent(server, "version", 0));
  server.request("Pong", "", "u-1");
  auto reply = server.wait_for_reply("u-1", 5s);
  ASSERT_TRUE(reply);
  EXPECT_EQ(zel_test::json_member(*reply, "content"),
            "{\"status\":\"ERROR\",\"details\":{\"from\":\"zel-upload-lib\",\"error\":\"Not supported "
            "subject: Pong\"}}");

  // A pong is answered by nothing and resets the count of unanswered pings.
  ASSERT_TRUE(server.set(R"({"auto_pong":false})"));
  zel::advance_clock(31);
  ASSERT_TRUE(wait_sent(server, "ping", 0));
  server.send_text(R"({"subject":"pong"})");
  ASSERT_TRUE(server.wait_for([](const std::vector<CloudServer::Event>&) {
    return zel::Messaging::get().get_missed_pongs() == 0;
  }, 5s));
  EXPECT_EQ(server.count_subject("pong"), 0);
}

TEST(Session, FiveUnansweredPingsDropTheLinkWhichComesBack) {
  CloudServer server;
  LogCapture log;
  ASSERT_TRUE(server.set(R"({"auto_pong":false})"));
  DeviceSession device(server, {"cam-1"});
  auto first = wait_sent(server, "ping", 0);  // the first ping goes out at once
  ASSERT_TRUE(first);
  EXPECT_EQ(stable(*first), envelope("zel-inbound", "ping", "\"ping\""));
  for (int i = 1; i < 5; ++i) {
    zel::advance_clock(30);
    ASSERT_TRUE(wait_sent(server, "ping", i)) << "ping " << i;
  }
  EXPECT_FALSE(server.wait_for_close(300ms));
  zel::advance_clock(30);  // the sixth tick closes instead of pinging
  auto code = server.wait_for_close(5s);
  ASSERT_TRUE(code);
  EXPECT_EQ(*code, 4429);
  EXPECT_EQ(count_sent(server, "ping"), 5);
  EXPECT_EQ(log.count("Pong message not received in 150 seconds, disconnecting.\n"), 1u);
  EXPECT_EQ(log.level_of("Empty contents, treat as a disconnect request\n"), 4);

  zel::advance_clock(5);
  ASSERT_TRUE(server.wait_for_connects(2, 5s));
  ASSERT_TRUE(wait_sent(server, "version", 1));
  ASSERT_TRUE(wait_sent(server, "transaction", 1));
  EXPECT_EQ(device.connects(), 2);
  EXPECT_EQ(device.disconnects(), 1);
}

TEST(Session, ReconnectsWithinSevenSecondsAfterTheServerDropsTheLink) {
  CloudServer server;
  DeviceSession device(server, {"cam-9"});
  ASSERT_TRUE(wait_sent(server, "transaction", 0));
  auto dropped = std::chrono::steady_clock::now();
  ASSERT_TRUE(server.drop());
  ASSERT_TRUE(server.wait_for_connects(2, 7s));
  EXPECT_LE(std::chrono::steady_clock::now() - dropped, 7s);
  auto version = wait_sent(server, "version", 1);
  auto camera = wait_sent(server, "transaction", 1);
  ASSERT_TRUE(version && camera);
  EXPECT_EQ(stable(*camera), camera_announcement("cam-9"));

  // A server that goes away entirely is retried until it is back.
  server.restart();
  ASSERT_TRUE(server.wait_for_connects(3, 8s));
  ASSERT_TRUE(wait_sent(server, "version", 2));
  EXPECT_EQ(device.connects(), 3);
}

TEST(Session, DisconnectClosesWith4003AndRefusesFromCallbacks) {
  EXPECT_TRUE(zel::Upload::disconnect());  // never connected
  CloudServer server;
  std::promise<bool> from_callback;
  zel::Upload::register_cloud_status([&](zel::CloudStatus) {
    static bool once = false;
    if (!once) from_callback.set_value(zel::Upload::disconnect());
    once = true;
  });
  LogCapture log;
  DeviceSession device(server);
  auto result = from_callback.get_future();
  ASSERT_EQ(result.wait_for(5s), std::future_status::ready);
  EXPECT_FALSE(result.get());
  EXPECT_EQ(log.count("Can't disconnect from a callback, use different thread\n"), 1u);
  EXPECT_FALSE(zel::Upload::connect(connect_params(server), nullptr, nullptr, {}));

  auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(zel::Upload::stop());
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
  auto code = server.wait_for_close(5s);
  ASSERT_TRUE(code);
  EXPECT_EQ(*code, 4003);
  EXPECT_TRUE(device.disconnect());
  EXPECT_EQ(device.disconnects(), 1);
}

TEST(Session, PlainWebSocketAndLongPathAndMissingClientCertificate) {
  CloudServer server(false);
  zel::CloudConnect cc = connect_params(server);
  std::string long_path(400, 'p');
  cc.server_uri = server.uri() + long_path;
  cc.cert_path = "/nonexistent/client.pem";
  cc.key_path = "/nonexistent/client.key";
  DeviceSession device(server, cc);
  auto events = server.events();
  auto connect_event = std::find_if(events.begin(), events.end(),
                                    [](const auto& e) { return e.kind == "connect"; });
  ASSERT_NE(connect_event, events.end());
  EXPECT_EQ(connect_event->path, "/" + long_path.substr(0, 298));
  EXPECT_FALSE(connect_event->client_cert);
  EXPECT_TRUE(wait_sent(server, "version", 0));
}

TEST(Session, TlsWithoutClientCertificateStillConnects) {
  CloudServer server;
  zel::CloudConnect cc = connect_params(server);
  cc.cert_path = "/nonexistent/client.pem";
  DeviceSession device(server, cc);
  EXPECT_TRUE(wait_sent(server, "version", 0));
  auto events = server.events();
  auto connect_event = std::find_if(events.begin(), events.end(),
                                    [](const auto& e) { return e.kind == "connect"; });
  ASSERT_NE(connect_event, events.end());
  EXPECT_FALSE(connect_event->client_cert);
}

// Disconnects a session that was started without a DeviceSession, even when an
// assertion ends the test early.
struct Disconnector {
  ~Disconnector() {
    EXPECT_TRUE(zel::Upload::disconnect());
    zel::Messaging::get().reset_for_tests();
  }
};

TEST(Session, ServerDownAtStartIsRetriedEveryFiveSeconds) {
  LogCapture log;
  Disconnector disconnector;
  int port = free_port();
  CloudServer::Options options;
  options.port = port;
  zel::CloudConnect cc;
  cc.server_uri = "wss://127.0.0.1:" + std::to_string(port) + "/";
  cc.mac_address = kDeviceMac;
  cc.ca_path = test_certs().ca;
  ASSERT_TRUE(zel::Upload::connect(cc, nullptr, nullptr, {}));
  ASSERT_TRUE(log.wait_for("Connection LWS_CALLBACK_CLIENT_CONNECTION_ERROR\n", 5s));
  std::this_thread::sleep_for(1500ms);
  EXPECT_EQ(log.count("Attempting to connect to messaging server...\n"), 1u);
  zel::advance_clock(5);
  ASSERT_TRUE(log.wait_for("Attempting to connect to messaging server...\n", 5s, 2));

  CloudServer server(options);
  zel::advance_clock(5);
  ASSERT_TRUE(server.wait_for_connects(1, 8s));
  EXPECT_TRUE(wait_sent(server, "version", 0));
}

TEST(Session, BadUriIsLoggedAndRetried) {
  LogCapture log;
  Disconnector disconnector;
  zel::CloudConnect cc;
  cc.server_uri = "wss://";
  cc.mac_address = kDeviceMac;
  ASSERT_TRUE(zel::Upload::connect(cc, nullptr, nullptr, {}));
  std::string line = "Bad URI(wss://) for messaging server specified\n";
  ASSERT_TRUE(log.wait_for(line, 5s));
  zel::advance_clock(5);
  EXPECT_TRUE(log.wait_for(line, 5s, 2));
  EXPECT_EQ(log.level_of(line), 1);
}

}  // namespace
}  // namespace zel_test

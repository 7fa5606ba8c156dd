// The link as the messaging server sees it, over TLS on loopback: handshake and
// announcements, keep-alive, reconnection, disconnection, the outbound queue and what
// the server may send that is not a proper request.
#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "foundation/time_utils.h"
#include "link/websocket_client.h"
#include "messaging/messaging.h"
#include "support/cloud.h"

namespace zt {
namespace {

const std::string kVersion =
    "{\"version\":\"22.1.0\",\"buildNumber\":1,\"buildDate\":\"202007080000\","
    "\"architecture\":\"pelmo_linux64\",\"ui\":\"none\"}";
const char* const kOkay = "{\"status\":\"OK\",\"details\":\"OK\"}";

std::string camera_announcement(const std::string& camera) {
  return envelope("jobs", "transaction",
                  std::string("{\"apiVersion\":\"2\",\"method\":\"changed\",\"topic\":\"transaction\","
                              "\"nvrMac\":\"") + kMacLower +
                      "\",\"model\":\"camera\",\"properties\":{\"created_at\":\"2018-03-01T12:00:00.000Z\","
                      "\"deleted_at\":null,\"ip_address\":\"0.0.0.0\",\"is_fragmented_mp4\":false,"
                      "\"is_hls\":false,\"is_live_h264\":false,\"is_ptz\":false,\"is_zoom\":false,"
                      "\"mac_address\":\"" + camera + "\",\"model\":\"Lumatrix-Camera\",\"name\":"
                      "\"ZelCloudLibCamera\",\"password\":\"24680\",\"transcode_audio\":true,"
                      "\"transcode_video\":false,\"updated_at\":\"2018-03-01T12:00:00.000Z\","
                      "\"username\":\"admin\"},\"subject\":\"transaction\"}");
}

// The texts of frames that are not JSON envelopes (sent by the tests themselves).
std::vector<std::string> raw_frames(Cloud& cloud) {
  std::vector<std::string> out;
  for (size_t i = 0;; ++i) {
    auto e = cloud.wait([](const Event& e) { return e.kind == "message" && e.text[0] != '{'; }, i, 0ms);
    if (!e) return out;
    out.push_back(e->text + "@" + std::to_string(e->num("conn")));
  }
}

TEST(Session, HandshakeAnnouncementsAndVersionExchange) {
  Cloud cloud;
  std::promise<zel::CloudStatus> status;
  zel::Upload::register_cloud_status([&, once = true](zel::CloudStatus s) mutable {
    if (once) status.set_value(s);
    once = false;
  });
  Device device(cloud, {"cam-1", "CAM-2"});
  auto hello = cloud.wait([](const Event& e) { return e.kind == "connect"; });
  ASSERT_TRUE(hello);
  EXPECT_EQ(hello->str("path"), "/");
  EXPECT_EQ(hello->str("origin"), kMac);  // exactly as given, no scheme
  EXPECT_NE(hello->raw.find("\"client_cert\": true"), std::string::npos);
  EXPECT_EQ(stable(cloud.sent("version").value_or("")), envelope("zel-inbound", "version", kVersion));
  EXPECT_EQ(stable(cloud.sent("transaction", 0).value_or("")), camera_announcement("cam-1"));
  EXPECT_EQ(stable(cloud.sent("transaction", 1).value_or("")), camera_announcement("CAM-2"));

  // The server's version answer reaches the host; a version request gets the document back.
  auto got = status.get_future();
  ASSERT_EQ(got.wait_for(5s), std::future_status::ready);
  zel::CloudStatus s = got.get();
  EXPECT_TRUE(s.registered && s.enabled);
  EXPECT_EQ(s.account_id, 42);
  EXPECT_EQ(s.partner_id, 7);
  EXPECT_EQ(s.device_uuid, "dev-uuid-1");
  cloud.request("version", "{\"registered\":false}", "v-2");
  EXPECT_EQ(stable(cloud.reply("v-2").value_or("")),
            envelope("zel-cloud", "version", "{\"status\":\"OK\",\"details\":" + kVersion + "}", "v-2"));
  // An unknown subject is an error reply naming it.
  cloud.request("Pong", "", "u-1");
  EXPECT_EQ(stable(cloud.reply("u-1").value_or("")),
            envelope("zel-cloud", "Pong", "{\"status\":\"ERROR\",\"details\":{\"from\":\"zel-upload-lib\","
                                          "\"error\":\"Not supported subject: Pong\"}}", "u-1"));
  zel::Upload::register_cloud_status(nullptr);
}

TEST(Session, VersionOfAControllerWithAccountPartnerAndSerial) {
  Cloud cloud;
  zel::CloudConnect cc = cloud.params();
  cc.account = "acme";
  cc.partner = "p1";
  cc.serial_number = "SN1";
  cc.device_type = 1;
  Device device(cloud, cc);
  EXPECT_EQ(stable(cloud.sent("version").value_or("")),
            with_device_type(envelope("zel-inbound", "version",
                                      "{\"version\":\"22.1.0\",\"account\":\"acme\",\"buildNumber\":1,"
                                      "\"partner\":\"p1\",\"buildDate\":\"202007080000\",\"serialNumber\":"
                                      "\"SN1\",\"architecture\":\"pelmo_linux64\",\"ui\":\"none\"}"),
                             "controller"));
}

// Pings every 30 s of the library's clock; the sixth tick without a pong closes with 4429
// and the link comes back (announcing itself again) as soon as the 5 s retry allows.
TEST(Session, FiveUnansweredPingsDropTheLinkWhichComesBack) {
  FrozenClock clock;
  LogCapture log;
  Cloud cloud(true, "{\"auto_pong\":false}");
  Device device(cloud, {"cam-1"});
  EXPECT_EQ(stable(cloud.sent("ping", 0).value_or("")), envelope("zel-inbound", "ping", "\"ping\""));
  for (size_t i = 1; i < 5; ++i) {
    SCOPED_TRACE(i);
    zel::advance_clock(29);
    EXPECT_FALSE(cloud.sent("ping", i, 300ms));
    zel::advance_clock(1);
    EXPECT_TRUE(cloud.sent("ping", i));
  }
  zel::advance_clock(30);
  EXPECT_EQ(cloud.close_code(), 4429);
  EXPECT_EQ(log.count("4|Pong message not received in 150 seconds, disconnecting.\n"), 1u);
  EXPECT_TRUE(cloud.connects(2));
  EXPECT_TRUE(cloud.sent("version", 1));
  EXPECT_EQ(stable(cloud.sent("transaction", 1).value_or("")), camera_announcement("cam-1"));
  EXPECT_EQ(device.connects, 2);
  EXPECT_EQ(device.disconnects, 1);

  // A pong (even without id or from) clears the count; it is answered by nothing.
  zel::advance_clock(30);
  ASSERT_TRUE(cloud.sent("ping", 5));
  EXPECT_GT(zel::Messaging::get().get_missed_pongs(), 0);
  cloud.ok("{\"cmd\":\"send\",\"text\":\"{\\\"subject\\\":\\\"pong\\\"}\"}");
  EXPECT_TRUE(eventually([] { return zel::Messaging::get().get_missed_pongs() == 0; }));
}

TEST(Session, ServerDownAtStartIsRetriedEveryFiveSeconds) {
  FrozenClock clock;
  LogCapture log;
  Cloud cloud;
  zel::CloudConnect cc = cloud.params();
  cc.server_uri = "wss://127.0.0.1:1/";  // nothing listens there
  ASSERT_TRUE(zel::Upload::connect(cc, nullptr, nullptr, {}));
  const std::string attempt = "Attempting to connect to messaging server...\n";
  EXPECT_TRUE(log.wait("1|Connection LWS_CALLBACK_CLIENT_CONNECTION_ERROR\n"));
  zel::advance_clock(4);
  EXPECT_FALSE(log.wait(attempt, 2, 1200ms));
  zel::advance_clock(1);
  EXPECT_TRUE(log.wait(attempt, 2));
  EXPECT_TRUE(zel::Upload::disconnect());

  cc.server_uri = "wss://";
  ASSERT_TRUE(zel::Upload::connect(cc, nullptr, nullptr, {}));
  EXPECT_TRUE(log.wait("1|Bad URI(wss://) for messaging server specified\n"));
  zel::advance_clock(5);
  EXPECT_TRUE(log.wait("Bad URI(wss://) for messaging server specified\n", 2));
  EXPECT_TRUE(zel::Upload::disconnect());
  zel::Messaging::get().reset_for_tests();
}

TEST(Session, DisconnectClosesWith4003AndIsRefusedFromCallbacks) {
  EXPECT_TRUE(zel::Upload::disconnect());  // never connected
  Cloud cloud;
  LogCapture log;
  std::promise<bool> from_callback;
  zel::Upload::register_cloud_status([&, once = true](zel::CloudStatus) mutable {
    if (once) from_callback.set_value(zel::Upload::disconnect());
    once = false;
  });
  Device device(cloud);
  auto refused = from_callback.get_future();
  ASSERT_EQ(refused.wait_for(5s), std::future_status::ready);
  EXPECT_FALSE(refused.get());
  EXPECT_EQ(log.count("1|Can't disconnect from a callback, use different thread\n"), 1u);
  EXPECT_FALSE(zel::Upload::connect(cloud.params(), nullptr, nullptr, {}));
  auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(zel::Upload::stop());
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
  EXPECT_EQ(cloud.close_code(), 4003);
  EXPECT_EQ(device.disconnects, 1);
}

// Frames queued within one worker pass leave in text order, identical texts once; a
// requested close goes first and what was queued follows on the next connection, but
// nothing is queued while the link is down.
TEST(OutboundQueue, OrderCollapseAndSurvivalAcrossAReconnect) {
  Cloud cloud;
  auto& link = zel::WebSocketClient::instance();
  zel::Upload::register_cloud_status([&, once = true](zel::CloudStatus) mutable {
    if (!once) return;
    once = false;
    for (const char* text : {"b-second", "a-first", "c-third", "a-first"}) link.send_message(text, false);
    link.soft_disconnect();
  });
  Device device(cloud);
  EXPECT_EQ(cloud.close_code(), 4429);
  ASSERT_TRUE(eventually([&] { return !link.is_connected(); }));
  link.send_message("lost-while-down", false);
  EXPECT_TRUE(cloud.connects(2));
  EXPECT_TRUE(cloud.wait([](const Event& e) { return e.text == "c-third"; }));
  cloud.request("status", "", "sync");  // answered after anything queued before it
  EXPECT_TRUE(cloud.reply("sync"));
  EXPECT_EQ(raw_frames(cloud), (std::vector<std::string>{"a-first@2", "b-second@2", "c-third@2"}));
  zel::Upload::register_cloud_status(nullptr);
}

TEST(OutboundQueue, FramesUpToOneMebibyteGoOutLargerOnesAreDropped) {
  Cloud cloud;
  LogCapture log;
  Device device(cloud);
  auto& link = zel::WebSocketClient::instance();
  link.send_message(std::string(1048577, 'y'), false);
  link.send_message(std::string(1048576, 'x'), false);
  EXPECT_TRUE(cloud.wait([](const Event& e) { return e.num("length") == 1048576; }, 0, 10s));
  link.send_message("z-after", false);  // the link is still up and working
  EXPECT_TRUE(cloud.wait([](const Event& e) { return e.text == "z-after"; }, 0, 10s));
  EXPECT_EQ(cloud.count([](const Event& e) { return e.num("length") == 1048577; }), 0u);
  EXPECT_EQ(log.count("2|Payload(1048577) bigger than buffer(1048576), skipping\n"), 1u);
}

// Host threads queue while the worker services the link (a race under ThreadSanitizer).
TEST(OutboundQueue, HostThreadsSendWhileTheWorkerServicesTheLink) {
  Cloud cloud;
  Device device(cloud);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([t] {
      for (int i = 0; i < 25; ++i) zel::Upload::register_camera("cam-" + std::to_string(t * 100 + i));
    });
  for (auto& th : threads) th.join();
  EXPECT_TRUE(cloud.sent("transaction", 99, 20s));
}

// What a server may send that is not a proper request: each row is dropped (with the log
// line given) without a reply, and the worker goes on answering.
TEST(Inbound, BadInputIsDroppedAndTheWorkerCarriesOn) {
  Cloud cloud;
  LogCapture log;
  Device device(cloud);
  const std::string no_subject = "1|Error: inbound message has no subject.  Cannot find handler.\n";
  struct Row {
    std::string command, log_line;
  } rows[] = {
      {"{\"cmd\":\"send\",\"text\":\"hello\"}", "2|Error parsing received message: 'hello'\n"},
      {"{\"cmd\":\"send\",\"text\":\"[1,2]\"}", no_subject},
      {"{\"cmd\":\"send\",\"text\":\"{\\\"id\\\":\\\"s1\\\",\\\"from\\\":\\\"c\\\",\\\"subject\\\":5}\"}",
       "1|Error: inbound message subject is not a string, dropped: '{\"id\":\"s1\",\"from\":\"c\",\"subject\":5}'\n"},
      {"{\"cmd\":\"send\",\"text\":\"{\\\"id\\\":7,\\\"from\\\":\\\"c\\\",\\\"subject\\\":\\\"status\\\"}\"}",
       "1|Error: request 'status' has no string \"id\" and \"from\", reply dropped\n"},
      // Fragments are not put together: only the last piece counts.
      {"{\"cmd\":\"send_fragments\",\"parts\":[\"junk\",\"{\\\"id\\\":\\\"f1\\\",\\\"from\\\":\\\"c\\\","
       "\\\"subject\\\":\\\"setSshPassword\\\"}\"]}", ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.command);
    EXPECT_TRUE(cloud.ok(row.command));
    if (!row.log_line.empty()) {
      EXPECT_TRUE(log.wait(row.log_line));
    }
  }
  EXPECT_EQ(stable(cloud.reply("f1").value_or("")), envelope("c", "setSshPassword", kOkay, "f1"));
  EXPECT_EQ(log.count("Error parsing received message: 'junk'\n"), 0u);
  EXPECT_TRUE(cloud.ok("{\"cmd\":\"send_binary\",\"text\":\"{\\\"id\\\":\\\"b1\\\",\\\"from\\\":\\\"c\\\","
                       "\\\"subject\\\":\\\"cameraSettingWrite\\\"}\"}"));
  EXPECT_EQ(stable(cloud.reply("b1").value_or("")), envelope("c", "cameraSettingWrite", kOkay, "b1"));
  EXPECT_EQ(cloud.count([](const Event& e) { return e.reply && e.text.find("\"to\":\"c\"") != std::string::npos; }), 2u);
  EXPECT_EQ(device.disconnects, 0);
}

TEST(Inbound, AOneMebibyteRequestDoesNotHoldUpTheNextForSeconds) {
  Cloud cloud;
  Device device(cloud);
  std::string big = "{\"id\":\"big\",\"from\":\"c\",\"subject\":\"status\",\"content\":\"" +
                    std::string(1000000, 'b') + "\"}";
  auto start = std::chrono::steady_clock::now();
  std::string quoted;
  for (char ch : big) quoted += ch == '"' ? std::string("\\\"") : std::string(1, ch);
  EXPECT_TRUE(cloud.ok("{\"cmd\":\"send\",\"text\":\"" + quoted + "\"}"));
  cloud.request("details", "", "after-big");
  EXPECT_TRUE(cloud.reply("big"));
  EXPECT_TRUE(cloud.reply("after-big"));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1500ms);
}

TEST(Session, PlainWebSocketLongPathWithoutClientCertificate) {
  Cloud cloud(false);
  zel::CloudConnect cc = cloud.params();
  cc.server_uri += std::string(400, 'p');
  cc.cert_path = "/nonexistent/client.pem";
  Device device(cloud, cc);
  auto hello = cloud.wait([](const Event& e) { return e.kind == "connect"; });
  ASSERT_TRUE(hello);
  EXPECT_EQ(hello->str("path"), "/" + std::string(298, 'p'));
  EXPECT_NE(hello->raw.find("\"client_cert\": false"), std::string::npos);
  EXPECT_TRUE(cloud.sent("version"));
}

}  // namespace
}  // namespace zt

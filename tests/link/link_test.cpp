// The link as the messaging server sees it over TLS: handshake, keep-alive, reconnection,
// disconnection, the outbound queue, and input that is not a proper request.
#include <gtest/gtest.h>

#include <future>
#include <set>
#include <stdexcept>

#include "foundation/time_utils.h"
#include "link/websocket_client.h"
#include "support/peer.h"

namespace zt {
namespace {

// The frames the server got that are no JSON envelope, in order, each with its connection.
std::vector<std::string> raw_frames(Cloud& cloud) {
  std::vector<std::string> out;
  for (size_t i = 0; auto e = cloud.wait([](const Event& e) { return e.kind == "message" && e.text[0] != '{'; }, i, 0ms); ++i)
    out.push_back(e->text + "@" + std::to_string(e->num("conn")));
  return out;
}

TEST(Session, HandshakeAnnouncementsAndVersionExchange) {
  Cloud cloud;
  Device device(cloud, {"cam-1", "CAM-2"});
  auto hello = cloud.wait([](const Event& e) { return e.kind == "connect"; });
  EXPECT_EQ(hello->str("path"), "/");
  EXPECT_EQ(hello->str("origin"), kMac);  // exactly as given, no scheme
  EXPECT_EQ(stable(cloud.sent("version").value_or("")), envelope("zel-inbound", "version", kVersion));
  EXPECT_NE(cloud.sent("transaction", 1).value_or("").find("\"mac_address\":\"CAM-2\""), std::string::npos);
  cloud.request("version", "{\"registered\":false}", "v-2");
  EXPECT_EQ(stable(cloud.reply("v-2").value_or("")),
            envelope("zel-cloud", "version", "{\"status\":\"OK\",\"details\":" + kVersion + "}", "v-2"));
}

// A ping every 30 s of the library's clock; the sixth tick without a pong closes with 4429
// and the link comes back at once, announcing itself again.
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
  EXPECT_LE(next_attempt_now(), 5);  // a link that lived 60 s or more comes back within 5 s
  EXPECT_TRUE(cloud.sent("version", 1));
  EXPECT_TRUE(cloud.sent("transaction", 1));
  EXPECT_EQ(device.connects, 2);
  EXPECT_EQ(device.disconnects, 1);
}

// Failed attempts back off at random within [5 s, min(60 s, 5 s x 2^n)]; what a dead link
// leaves behind (a close it asked for, requests not yet answered) never reaches the next one.
TEST(Session, FailedAttemptsBackOffAndNothingStaleSurvives) {
  FrozenClock clock;
  LogCapture log;
  zel::CloudConnect cc;
  cc.server_uri = "wss://127.0.0.1:1/";  // nothing listens there
  std::atomic<int> drops{0};  // no link, so nothing to report lost
  ASSERT_TRUE(zel::Upload::connect(cc, nullptr, [&] { ++drops; }, {}));
  auto& link = zel::WebSocketClient::instance();
  link.soft_disconnect();
  link.inject_inbound("{\"id\":\"old\",\"from\":\"c\",\"subject\":\"status\"}");
  const std::string attempt = "4|Attempting to connect to messaging server...\n";
  std::set<long> delays;
  for (long n = 1; n <= 6; ++n) {
    SCOPED_TRACE(n);
    ASSERT_TRUE(log.wait("1|Connection LWS_CALLBACK_CLIENT_CONNECTION_ERROR\n", n));
    ASSERT_TRUE(eventually([] { return zel::Upload::stats().next_attempt_at != 0; }));
    const long delay = zel::Upload::stats().next_attempt_at - zel::time_now();
    EXPECT_TRUE(delay >= 5 && delay <= std::min(60L, 5L << n)) << delay;
    zel::advance_clock(delay - 1);
    EXPECT_FALSE(log.wait(attempt, n + 1, 300ms));
    zel::advance_clock(1);
    EXPECT_TRUE(log.wait(attempt, n + 1));
    delays.insert(delay);
  }
  EXPECT_GT(delays.size(), 2u);  // drawn, not fixed
  EXPECT_EQ(zel::Upload::stats().reconnect_attempts, 7);
  EXPECT_EQ(link.outbound_size(), 0u);  // the close went with the attempt it was meant for
  EXPECT_TRUE(zel::Upload::disconnect());
  EXPECT_EQ(drops, 0);
  Cloud cloud;
  Device device(cloud);
  EXPECT_EQ(log.count("2|Dropped 1 requests left from the last connection\n"), 1u);
  cloud.request("status", "", "new");
  EXPECT_TRUE(cloud.reply("new"));
  EXPECT_FALSE(cloud.reply("old", 0ms));
}

// A link that lived under 60 s is a failed attempt (n goes on); one that lived 60 s resets n.
// Two recorders started together draw apart.
TEST(Session, ShortLinksKeepBackingOffLongOnesStartOver) {
  FrozenClock clock;
  Cloud cloud;
  Device device(cloud);
  for (auto [lived, low, high] : {std::tuple{1L, 5L, 10L}, {1L, 5L, 20L}, {60L, 0L, 5L}, {1L, 5L, 10L}}) {
    zel::advance_clock(lived);
    EXPECT_TRUE(cloud.ok("{\"cmd\":\"drop\"}"));
    const long delay = next_attempt_now();
    EXPECT_TRUE(delay >= low && delay <= high) << lived << " s up, then " << delay;
    ASSERT_TRUE(eventually([] { return zel::Upload::stats().link_up; }));
  }
  // The schedule alone, over many draws: the floor, a stable link's 0-5 s and the n it resets.
  zel::ReconnectSchedule a, b;
  std::vector<int64_t> drawn[2];
  int64_t quickest = 5000;
  for (int i = 0; i < 20; ++i)
    for (auto [s, d] : {std::pair{&a, &drawn[0]}, {&b, &drawn[1]}}) {
      s->reset(kMac), s->attempt_started(0), s->attempt_failed(0);
      const int64_t t1 = s->next_attempt_ms();
      s->attempt_started(t1), s->established(t1), s->dropped(t1 + 60000);
      const int64_t t2 = s->next_attempt_ms();
      s->attempt_started(t2), s->established(t2), s->dropped(t2 + 1000);
      const int64_t gap = s->next_attempt_ms() - t2 - 1000;
      EXPECT_TRUE(t1 >= 5000 && t1 <= 10000 && t2 - t1 <= 65000 && gap >= 5000 && gap <= 10000) << t1 << " " << t2 << " " << gap;
      quickest = std::min(quickest, t2 - t1 - 60000);
      d->push_back(t1);
    }
  EXPECT_LT(quickest, 4000);
  EXPECT_NE(drawn[0], drawn[1]);
}

// A server that refuses the upgrade with 503 and Retry-After: N gets N s (at most 600) plus
// up to 5 s before the next attempt.
TEST(Session, RetryAfterIsHonouredAndCapped) {
  FrozenClock clock;
  LogCapture log;
  Cloud cloud(true, "{\"shed\":[0,42]}");
  ASSERT_TRUE(zel::Upload::connect(cloud.params(), nullptr, nullptr, {}));
  for (auto [asked, low, next] : {std::tuple{"42", 42L, "[0,7200]"}, {"7200", 600L, "null"}}) {
    EXPECT_TRUE(log.wait(std::string("2|The server asked for ") + asked + " s before the next attempt\n"));
    EXPECT_TRUE(cloud.ok(std::string("{\"cmd\":\"set\",\"shed\":") + next + "}"));
    const long delay = next_attempt_now();
    EXPECT_TRUE(delay >= low && delay <= low + 5) << delay;
  }
  EXPECT_TRUE(cloud.sent("version", 0, 10s));
  EXPECT_TRUE(zel::Upload::disconnect());
}

TEST(Session, DisconnectClosesWith4003) {
  EXPECT_TRUE(zel::Upload::disconnect());  // never connected
  Cloud cloud;
  Device device(cloud);
  auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(zel::Upload::stop());
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
  EXPECT_EQ(cloud.close_code(), 4003);
  EXPECT_EQ(device.disconnects, 1);
}

// Frames queued in one pass leave in text order, identical texts once; a requested close goes
// first, the queue follows on the next connection, and nothing is queued while down.
TEST(OutboundQueue, OrderCollapseAndSurvivalAcrossAReconnect) {
  FrozenClock clock;
  Cloud cloud;
  auto& link = zel::WebSocketClient::instance();
  zel::Upload::register_cloud_status([&, once = true](zel::CloudStatus) mutable {
    if (!std::exchange(once, false)) return;
    for (const char* text : {"b-second", "a-first", "c-third", "a-first"}) link.send_message(text, false);
    link.soft_disconnect();
  });
  Device device(cloud);
  EXPECT_EQ(cloud.close_code(), 4429);
  ASSERT_TRUE(eventually([&] { return !link.is_connected(); }));
  link.send_message("lost-while-down", false);
  next_attempt_now();
  EXPECT_TRUE(cloud.sent("version", 1));
  cloud.request("status", "", "sync");  // answered after everything queued before it
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
  EXPECT_TRUE(log.wait("2|Payload(1048577) bigger than buffer(1048576), skipping\n"));  // it sorts after
  EXPECT_EQ(cloud.count([](const Event& e) { return e.num("length") == 1048577; }), 0u);
}

// Each row is dropped (with its log line) without a reply; the worker goes on answering, and
// a host callback that throws gets an error reply.
TEST(Inbound, BadInputIsDroppedAndTheWorkerCarriesOn) {
  Cloud cloud;
  LogCapture log;
  zel::Upload::register_perform_action([](zel::ActionInfo) -> zel::MsgResponse { throw std::runtime_error("jammed"); });
  Device device(cloud);
  struct Row {
    std::string command, log_line;
  } rows[] = {
      {"\"send\",\"text\":\"hello\"", "2|Error parsing received message: '<5 bytes>'\n"},
      {"\"send\",\"text\":\"[1,2]\"", "1|Error: inbound message has no subject.  Cannot find handler.\n"},
      {"\"send\",\"text\":\"{\\\"id\\\":\\\"s1\\\",\\\"subject\\\":5}\"",
       "1|Error: inbound message subject is not a string, dropped: '<23 bytes>'\n"},
      {"\"send\",\"text\":\"{\\\"id\\\":7,\\\"from\\\":\\\"c\\\",\\\"subject\\\":\\\"status\\\"}\"",
       "1|Error: request 'status' has no string \"id\" and \"from\", reply dropped\n"},
      // Fragments make one message, up to the frame limit; a request cut short shows its subject.
      {"\"send_fragments\",\"parts\":[\"{\\\"id\\\":\\\"f1\\\",\\\"from\\\":\\\"c\\\",\",\"\\\"subject\\\":\\\"setSshPassword\\\"}\"]", ""},
      {"\"send_fragments\",\"parts\":[\"" + std::string(600000, 'a') + "\",\"" + std::string(600000, 'b') + "\"]",
       "2|Inbound message past 1048576 bytes dropped\n"},
      {"\"send\",\"text\":\"{\\\"subject\\\":\\\"getStorageAccess\\\",\\\"content\\\":{\"",
       "2|Error parsing received message: '<41 bytes, subject getStorageAccess>'\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.command);
    EXPECT_TRUE(cloud.ok("{\"cmd\":" + row.command + "}"));
    EXPECT_TRUE(row.log_line.empty() || log.wait(row.log_line));
  }
  EXPECT_EQ(stable(cloud.reply("f1").value_or("")), envelope("c", "setSshPassword", kOkay, "f1"));
  EXPECT_EQ(log.count("2|Error parsing received message: '<1200000 bytes>'\n"), 0u);
  cloud.request("action", "{}", "t1");
  EXPECT_EQ(stable(cloud.reply("t1").value_or("")), envelope("zel-cloud", "action", "{\"status\":\"ERROR\","
                                                            "\"details\":{\"error\":\"Host callback failed\"}}", "t1"));
  EXPECT_EQ(log.count("1|Handler for 'action' failed: jammed\n"), 1u);
  EXPECT_EQ(cloud.count([](const Event& e) { return e.reply && e.text.find("\"to\":\"c\"") != std::string::npos; }), 1u);
}

}  // namespace
}  // namespace zt

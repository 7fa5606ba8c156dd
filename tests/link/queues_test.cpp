// The outbound queue's order and collapse, its survival across a reconnect, the size
// limit of a frame, and what happens to messages sent while the link is down.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "foundation/time_utils.h"
#include "link/websocket_client.h"
#include "messaging/messaging.h"
#include "support/cloud_server.h"
#include "support/device_session.h"
#include "support/log_capture.h"
#include "zel/upload.h"

namespace zel_test {
namespace {

using namespace std::chrono_literals;

// Holds the worker inside a host callback so a test can arrange the queue while no
// writeable event can run, then lets it go.
class WorkerGate {
 public:
  void hold() {  // called on the worker
    std::unique_lock<std::mutex> lock(mu_);
    held_ = true;
    cv_.notify_all();
    cv_.wait(lock, [this] { return released_; });
  }
  bool wait_held() {
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_for(lock, 5s, [this] { return held_; });
  }
  void release() {
    std::lock_guard<std::mutex> lock(mu_);
    released_ = true;
    cv_.notify_all();
  }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  bool held_ = false;
  bool released_ = false;
};

std::vector<std::string> plain_messages(CloudServer& server) {
  std::vector<std::string> out;
  for (const auto& m : server.messages())
    if (m.empty() || m[0] != '{') out.push_back(m);
  return out;
}

TEST(OutboundQueue, LeavesInTextOrderOnceEachAndSurvivesAReconnect) {
  CloudServer server;
  WorkerGate gate;
  zel::Upload::register_cloud_status([&](zel::CloudStatus) { gate.hold(); });
  DeviceSession device(server);
  ASSERT_TRUE(gate.wait_held());

  zel::WebSocketClient& link = zel::WebSocketClient::instance();
  link.send_message("b-second", false);
  link.send_message("a-first", false);
  link.send_message("c-third", false);
  link.send_message("a-first", false);  // identical text while queued: one frame
  gate.release();
  ASSERT_TRUE(server.wait_for(
      [](const std::vector<CloudServer::Event>& events) {
        return std::count_if(events.begin(), events.end(), [](const auto& e) {
                 return e.kind == "message" && e.text == "c-third";
               }) == 1;
      },
      5s));
  EXPECT_EQ(plain_messages(server), (std::vector<std::string>{"a-first", "b-second", "c-third"}));
  zel::Upload::register_cloud_status(nullptr);
}

TEST(OutboundQueue, SoftDisconnectClosesFirstAndQueuedMessagesFollowOnTheNextLink) {
  CloudServer server;
  WorkerGate gate;
  zel::Upload::register_cloud_status([&](zel::CloudStatus) {
    static int calls = 0;
    if (calls++ == 0) gate.hold();
  });
  DeviceSession device(server);
  ASSERT_TRUE(gate.wait_held());
  zel::WebSocketClient& link = zel::WebSocketClient::instance();
  link.send_message("m1", false);
  link.send_message("m2", false);
  link.soft_disconnect();
  gate.release();

  auto code = server.wait_for_close(5s);
  ASSERT_TRUE(code);
  EXPECT_EQ(*code, 4429);
  EXPECT_TRUE(plain_messages(server).empty());  // the close went before anything queued

  // While the link is down nothing can be queued...
  ASSERT_TRUE(server.wait_for([](const auto&) { return !zel::WebSocketClient::instance().is_connected(); }, 5s));
  link.send_message("lost-while-down", false);
  // ...but what was queued before the close goes out on the next connection.
  zel::advance_clock(5);
  ASSERT_TRUE(server.wait_for_connects(2, 6s));
  ASSERT_TRUE(server.wait_for(
      [](const std::vector<CloudServer::Event>& events) {
        return std::any_of(events.begin(), events.end(),
                           [](const auto& e) { return e.kind == "message" && e.text == "m2"; });
      },
      5s));
  EXPECT_EQ(plain_messages(server), (std::vector<std::string>{"m1", "m2"}));
  for (const auto& e : server.events()) {
    if (e.kind == "message" && (e.text == "m1" || e.text == "m2")) {
      EXPECT_EQ(e.conn, 2) << e.text;
    }
  }
  zel::Upload::register_cloud_status(nullptr);
}

TEST(OutboundQueue, FramesUpToOneMebibyteGoOutLargerOnesAreDropped) {
  CloudServer server;
  LogCapture log;
  DeviceSession device(server);
  ASSERT_TRUE(wait_sent(server, "version", 0));
  zel::WebSocketClient& link = zel::WebSocketClient::instance();
  link.send_message(std::string(1048577, 'y'), false);
  link.send_message(std::string(1048576, 'x'), false);
  ASSERT_TRUE(server.wait_for(
      [](const std::vector<CloudServer::Event>& events) {
        return std::any_of(events.begin(), events.end(), [](const auto& e) {
          return e.kind == "message" && e.text.size() == 1048576;
        });
      },
      10s));
  EXPECT_TRUE(log.wait_for("Payload(1048577) bigger than buffer(1048576), skipping\n", 5s));
  EXPECT_EQ(log.level_of("Payload(1048577) bigger than buffer(1048576), skipping\n"), 2);
  for (const auto& m : server.messages()) EXPECT_NE(m.size(), 1048577u);
  // The link stays up and keeps working.
  link.send_message("after", false);
  EXPECT_TRUE(server.wait_for(
      [](const auto& events) {
        return std::any_of(events.begin(), events.end(),
                           [](const auto& e) { return e.kind == "message" && e.text == "after"; });
      },
      5s));
  EXPECT_EQ(server.events().back().conn, 1);
}

TEST(InboundQueue, AOneMebibyteRequestDoesNotHoldUpTheNextForSeconds) {
  CloudServer server;
  DeviceSession device(server);
  ASSERT_TRUE(wait_sent(server, "version", 0));
  std::string big = "{\"id\":\"big\",\"from\":\"c\",\"subject\":\"status\",\"content\":\"" +
                    std::string(1000000, 'b') + "\"}";
  auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(server.send_text(big));
  server.request("details", "", "after-big");
  ASSERT_TRUE(server.wait_for_reply("big", 5s));
  ASSERT_TRUE(server.wait_for_reply("after-big", 5s));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1500ms);
}

TEST(OutboundQueue, HostThreadsSendWhileTheWorkerServicesTheLink) {
  CloudServer server;
  DeviceSession device(server);
  ASSERT_TRUE(wait_sent(server, "version", 0));
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 25; ++i) {
        zel::Upload::register_camera("cam-" + std::to_string(t) + "-" + std::to_string(i));
        zel::Upload::upload_event(zel::EventInfo{1, "cam", 100, 200, "thumb"});
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_TRUE(server.wait_for(
      [](const std::vector<CloudServer::Event>& events) {
        return std::count_if(events.begin(), events.end(), [](const auto& e) {
                 return e.kind == "message" && e.subject == "transaction";
               }) >= 200;
      },
      30s));
}

}  // namespace
}  // namespace zel_test

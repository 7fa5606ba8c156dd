// Motion and access events from intake to the wire: the exact bodies, which events are
// dropped, the account id, and the pace at which queued events leave.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "foundation/time_utils.h"
#include "messaging/messaging.h"
#include "support/cloud_server.h"
#include "support/device_session.h"
#include "support/wire.h"
#include "zel/upload.h"

namespace zel_test {
namespace {

using namespace std::chrono_literals;

constexpr int64_t kStart = 1614600000;  // 2021-03-01T12:00:00Z

zel::AccessEventInfo access_event(const std::string& type, int64_t start, int64_t end,
                           const std::string& device, const std::string& credential = "",
                           const std::string& meta = "", const std::string& tag = "") {
  return zel::AccessEventInfo{type, start, end, device, credential, meta, tag};
}

std::string envelope(const std::string& content) {
  return std::string("{\"id\":\"") + kDeviceMacLower + "<us>\",\"from\":\"" + kDeviceMacLower +
         "\",\"to\":\"jobs\",\"subject\":\"transaction\",\"date\":\"<date>\",\"signature\":\"n/a\"" +
         (content.empty() ? "" : ",\"content\":" + content) + "}";
}

// When a body is not JSON the envelope goes without "content", and the body itself shows
// up on standard output; that is where its exact spacing can be seen.
class StdoutCapture {
 public:
  StdoutCapture() { ::testing::internal::CaptureStdout(); }
  ~StdoutCapture() { take(); }
  std::string take() {
    if (!taken_) {
      taken_ = true;
      text_ = ::testing::internal::GetCapturedStdout();
    }
    return text_;
  }

 private:
  bool taken_ = false;
  std::string text_;
};

// The microseconds in a message id: when the worker built the message.
long long built_at(const std::string& text) {
  std::string id = json_string(text, "id");
  return id.size() < 16 ? -1 : std::stoll(id.substr(id.size() - 16));
}

std::string content_string(const std::string& text, const char* member) {
  return json_string(json_member(text, "content"), member);
}

std::string property(const std::string& text, const char* member) {
  return json_string(json_member(json_member(text, "content"), "properties"), member);
}

TEST(Events, MotionBodiesAndDroppedTypes) {
  CloudServer server;
  DeviceSession device(server);
  ASSERT_TRUE(wait_sent(server, "version", 0));
  StdoutCapture out;

  zel::Upload::upload_event(zel::EventInfo{1, "AA:BB:CC:00:11:22", kStart, kStart + 30, "thumbs/1.jpg"});
  zel::Upload::upload_event(zel::EventInfo{0, "cam-0", kStart, kStart + 1, "t0"});
  zel::Upload::upload_event(zel::EventInfo{2, "cam-2", kStart + 100, kStart + 40, ""});
  zel::Upload::upload_event(zel::EventInfo{3, "cam-3", kStart, kStart + 1, "t3"});
  zel::Upload::upload_event(zel::EventInfo{-1, "cam-4", kStart, kStart + 1, "t4"});
  zel::Upload::upload_event(zel::EventInfo{1, "cam-5", kStart, kStart + 1, "snap\"1.jpg"});

  auto motion = wait_sent(server, "transaction", 0);
  auto hyperview = wait_sent(server, "transaction", 1);
  auto broken = wait_sent(server, "transaction", 2);
  ASSERT_TRUE(motion && hyperview && broken);
  EXPECT_EQ(stable(*motion),
            envelope("{\"apiVersion\":\"2\",\"method\":\"changed\",\"topic\":\"transaction\","
                     "\"subject\":\"transaction\",\"nvrMac\":\"00:aa:bb:cc:dd:ee\",\"model\":\"event\","
                     "\"properties\":{\"start_at\":\"2021-03-01T12:00:00Z\",\"event_type\":\"MOTION\","
                     "\"end_at\":\"2021-03-01T12:00:30Z\",\"meta\":null,\"camera_mac\":\"AA:BB:CC:00:11:22\","
                     "\"user_email\":null,\"thumbnail\":\"thumbs/1.jpg\"}}"));
  // A start after the end goes out as it is.
  EXPECT_EQ(stable(*hyperview),
            envelope("{\"apiVersion\":\"2\",\"method\":\"changed\",\"topic\":\"transaction\","
                     "\"subject\":\"transaction\",\"nvrMac\":\"00:aa:bb:cc:dd:ee\",\"model\":\"event\","
                     "\"properties\":{\"start_at\":\"2021-03-01T12:01:40Z\",\"event_type\":\"HYPERVIEW\","
                     "\"end_at\":\"2021-03-01T12:00:40Z\",\"meta\":null,\"camera_mac\":\"cam-2\","
                     "\"user_email\":null,\"thumbnail\":\"\"}}"));
  // Values go in unescaped: a quote in the thumbnail breaks the body, and the message
  // goes without content.
  EXPECT_EQ(stable(*broken), envelope(""));
  EXPECT_EQ(out.take(),
            "Error parsing JSON: {\"apiVersion\": \"2\",\"method\": \"changed\",\"topic\": \"transaction\","
            "\"subject\": \"transaction\",\"nvrMac\": \"00:aa:bb:cc:dd:ee\",\"model\": \"event\","
            "\"properties\": {\"start_at\": \"2021-03-01T12:00:00Z\",\"event_type\": \"MOTION\","
            "\"end_at\": \"2021-03-01T12:00:01Z\",\"meta\": null,\"camera_mac\": \"cam-5\","
            "\"user_email\": null,\"thumbnail\": \"snap\"1.jpg\"}}\n");
  EXPECT_EQ(count_sent(server, "transaction"), 3u);
}

TEST(Events, AccessBodiesCarryTheOptionalPiecesAndTheAccountOnceKnown) {
  CloudServer server;
  ASSERT_TRUE(server.set(
      R"({"version_reply":{"registered":true,"enabled":true,"account_id":0,"device_uuid":"d","partner_id":7}})"));
  std::atomic<int> statuses{0};
  zel::Upload::register_cloud_status([&](zel::CloudStatus) { statuses++; });
  DeviceSession device(server);
  ASSERT_TRUE(eventually([&] { return statuses.load() >= 1; }, 5s));
  StdoutCapture out;

  // No account yet: only the required pieces.
  zel::Upload::upload_event(access_event("badge", kStart, kStart + 5, "dev-2"));
  zel::Upload::upload_event(access_event("badge", kStart, kStart + 5, "", "cred", "{}", "tag"));
  zel::Upload::upload_event(access_event("door \"held\"", kStart, kStart + 5, "dev-3"));
  ASSERT_TRUE(wait_sent(server, "transaction", 1));

  // An account id of 1 or more from the server's version request is sent from then on.
  server.request("version", R"({"account_id":42})", "v-1");
  ASSERT_TRUE(server.wait_for_reply("v-1", 5s));
  zel::Upload::upload_event(
      access_event("door_open", kStart, kStart + 5, "dev-1", "cred-7", "{\"door\":1}", "night"));
  zel::Upload::upload_event(
      access_event("door_open", kStart, kStart + 5, "dev-1", "cred-7", "{door:1}", "night"));
  zel::Upload::upload_event(access_event("tamper", kStart + 60, kStart + 61, "dev-4", "", "[1, 2]", ""));
  zel::Upload::upload_event(access_event("input", kStart + 60, kStart + 61, "dev-5", "", "", "t1"));
  ASSERT_TRUE(wait_sent(server, "transaction", 5));

  // Zero and below, or a number that is no number, mean no account again.
  server.request("version", R"({"account_id":-1})", "v-2");
  ASSERT_TRUE(server.wait_for_reply("v-2", 5s));
  zel::Upload::upload_event(access_event("late", kStart, kStart, "dev-6", "c-1"));
  ASSERT_TRUE(wait_sent(server, "transaction", 6));
  server.request("version", R"({"account_id":"9"})", "v-3");
  ASSERT_TRUE(server.wait_for_reply("v-3", 5s));
  zel::Upload::upload_event(access_event("later", kStart, kStart, "dev-7"));

  const std::string expected[] = {
      envelope("{\"apiVersion\":\"2\",\"method\":\"changed\",\"topic\":\"transaction\",\"subject\":"
               "\"transaction\",\"device_uuid\":\"dev-2\",\"model\":\"accessEvent\",\"properties\":{"
               "\"event_type\":\"badge\",\"start_at\":\"2021-03-01T12:00:00Z\",\"end_at\":"
               "\"2021-03-01T12:00:05Z\"}}"),
      envelope(""),
      envelope("{\"apiVersion\":\"2\",\"method\":\"changed\",\"topic\":\"transaction\",\"subject\":"
               "\"transaction\",\"account_id\":\"42\",\"device_uuid\":\"dev-1\",\"credential_uuid\":"
               "\"cred-7\",\"model\":\"accessEvent\",\"properties\":{\"event_type\":\"door_open\","
               "\"start_at\":\"2021-03-01T12:00:00Z\",\"end_at\":\"2021-03-01T12:00:05Z\",\"meta\":"
               "{\"door\":1},\"tag\":\"night\"}}"),
      envelope(""),
      envelope("{\"apiVersion\":\"2\",\"method\":\"changed\",\"topic\":\"transaction\",\"subject\":"
               "\"transaction\",\"account_id\":\"42\",\"device_uuid\":\"dev-4\",\"model\":\"accessEvent\","
               "\"properties\":{\"event_type\":\"tamper\",\"start_at\":\"2021-03-01T12:01:00Z\","
               "\"end_at\":\"2021-03-01T12:01:01Z\",\"meta\":[1,2]}}"),
      envelope("{\"apiVersion\":\"2\",\"method\":\"changed\",\"topic\":\"transaction\",\"subject\":"
               "\"transaction\",\"account_id\":\"42\",\"device_uuid\":\"dev-5\",\"model\":\"accessEvent\","
               "\"properties\":{\"event_type\":\"input\",\"start_at\":\"2021-03-01T12:01:00Z\","
               "\"end_at\":\"2021-03-01T12:01:01Z\",\"tag\":\"t1\"}}"),
      envelope("{\"apiVersion\":\"2\",\"method\":\"changed\",\"topic\":\"transaction\",\"subject\":"
               "\"transaction\",\"device_uuid\":\"dev-6\",\"credential_uuid\":\"c-1\",\"model\":"
               "\"accessEvent\",\"properties\":{\"event_type\":\"late\",\"start_at\":"
               "\"2021-03-01T12:00:00Z\",\"end_at\":\"2021-03-01T12:00:00Z\"}}"),
      envelope("{\"apiVersion\":\"2\",\"method\":\"changed\",\"topic\":\"transaction\",\"subject\":"
               "\"transaction\",\"device_uuid\":\"dev-7\",\"model\":\"accessEvent\",\"properties\":{"
               "\"event_type\":\"later\",\"start_at\":\"2021-03-01T12:00:00Z\",\"end_at\":"
               "\"2021-03-01T12:00:00Z\"}}"),
  };
  for (size_t i = 0; i < std::size(expected); ++i) {
    auto sent = wait_sent(server, "transaction", i);
    ASSERT_TRUE(sent) << i;
    EXPECT_EQ(stable(*sent), expected[i]) << i;
  }
  // The event without a device never got anywhere.
  EXPECT_EQ(count_sent(server, "transaction"), std::size(expected));

  // The two bodies that are not JSON, as they were built.
  EXPECT_EQ(out.take(),
            "Error parsing JSON: {\"apiVersion\": \"2\",\"method\": \"changed\",\"topic\": \"transaction\","
            "\"subject\": \"transaction\",\"device_uuid\": \"dev-3\",\"model\": \"accessEvent\","
            "\"properties\": {\"event_type\": \"door \"held\"\",\"start_at\": \"2021-03-01T12:00:00Z\","
            "\"end_at\": \"2021-03-01T12:00:05Z\"}}\n"
            "Error parsing JSON: {\"apiVersion\": \"2\",\"method\": \"changed\",\"topic\": \"transaction\","
            "\"subject\": \"transaction\",\"account_id\":\"42\",\"device_uuid\": \"dev-1\","
            "\"credential_uuid\":\"cred-7\",\"model\": \"accessEvent\",\"properties\": {\"event_type\": "
            "\"door_open\",\"start_at\": \"2021-03-01T12:00:00Z\",\"end_at\": \"2021-03-01T12:00:05Z\","
            "\"meta\":{door:1},\"tag\":\"night\"}}\n");
}

TEST(Events, EachPassTakesOneEventOfEachKind) {
  CloudServer server;
  DeviceSession device(server);
  ASSERT_TRUE(wait_sent(server, "version", 0));
  {
    // Queued together, so that the worker finds all of them at its next pass.
    std::lock_guard<std::recursive_mutex> lock(zel::Messaging::get().get_work_mutex());
    for (int i = 0; i < 3; ++i) {
      zel::Upload::upload_event(zel::EventInfo{1, "cam", kStart + i, kStart + i, "m" + std::to_string(i)});
      zel::Upload::upload_event(access_event("badge", kStart + i, kStart + i, "a" + std::to_string(i)));
    }
  }
  ASSERT_TRUE(wait_sent(server, "transaction", 5));
  std::vector<long long> motion;
  std::vector<long long> access;
  for (size_t i = 0; i < 6; ++i) {
    std::string text = *wait_sent(server, "transaction", i);
    if (content_string(text, "model") == "event") {
      EXPECT_EQ(property(text, "thumbnail"), "m" + std::to_string(motion.size()));
      motion.push_back(built_at(text));
    } else {
      EXPECT_EQ(content_string(text, "device_uuid"), "a" + std::to_string(access.size()));
      access.push_back(built_at(text));
    }
  }
  ASSERT_EQ(motion.size(), 3u);
  ASSERT_EQ(access.size(), 3u);
  for (size_t i = 0; i < 3; ++i) {
    // Built in the same pass ...
    EXPECT_LT(std::llabs(motion[i] - access[i]), 25000) << i;
    // ... and a pass (at least 50 ms) after the one before.
    if (i > 0) {
      EXPECT_GE(motion[i] - motion[i - 1], 40000) << i;
      EXPECT_GE(access[i] - access[i - 1], 40000) << i;
    }
  }
}

TEST(Events, EventsQueuedWhileTheLinkIsDownFollowInOrderOnePerPass) {
  CloudServer server;
  server.stop();
  DeviceSession device(server, connect_params(server), {}, false);
  constexpr int kMotion = 40;
  constexpr int kAccess = 10;
  // Two host threads at once, one per kind; each kind keeps its thread's order.
  std::thread motion_thread([&] {
    for (int i = 0; i < kMotion; ++i)
      zel::Upload::upload_event(zel::EventInfo{1 + i % 2, "cam", kStart + i, kStart + i + 1, "m" + std::to_string(i)});
  });
  std::thread access_thread([&] {
    for (int i = 0; i < kAccess; ++i) {
      zel::Upload::upload_event(access_event("badge", kStart + i, kStart + i, "")); // never queued
      zel::Upload::upload_event(access_event("badge", kStart + i, kStart + i, "a" + std::to_string(i)));
    }
  });
  motion_thread.join();
  access_thread.join();
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(count_sent(server, "transaction"), 0u);

  server.restart();
  zel::advance_clock(5);  // no need to wait for the next connection attempt
  ASSERT_TRUE(server.wait_for_connects(1, 10s));
  ASSERT_TRUE(wait_sent(server, "transaction", kMotion + kAccess - 1, 15s));

  std::vector<long long> motion;
  std::vector<long long> access;
  for (size_t i = 0; i < kMotion + kAccess; ++i) {
    std::string text = *wait_sent(server, "transaction", i);
    if (content_string(text, "model") == "event") {
      EXPECT_EQ(property(text, "thumbnail"), "m" + std::to_string(motion.size())) << i;
      EXPECT_EQ(property(text, "event_type"), motion.size() % 2 == 0 ? "MOTION" : "HYPERVIEW") << i;
      motion.push_back(built_at(text));
    } else {
      EXPECT_EQ(content_string(text, "device_uuid"), "a" + std::to_string(access.size())) << i;
      access.push_back(built_at(text));
    }
  }
  ASSERT_EQ(motion.size(), static_cast<size_t>(kMotion));
  ASSERT_EQ(access.size(), static_cast<size_t>(kAccess));
  for (size_t i = 1; i < motion.size(); ++i) EXPECT_GE(motion[i] - motion[i - 1], 40000) << i;
  for (size_t i = 1; i < access.size(); ++i) EXPECT_GE(access[i] - access[i - 1], 40000) << i;
  EXPECT_EQ(count_sent(server, "transaction"), static_cast<size_t>(kMotion + kAccess));
}

}  // namespace
}  // namespace zel_test

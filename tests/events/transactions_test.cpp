// The generic transaction the device sends, and the server's "transaction" and
// "transactionAck" requests: the version sent again, and uploaded clips confirmed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <string>
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

const char* const kOkay = "{\"status\":\"OK\",\"details\":\"OK\"}";
// Sends a request and returns the "content" of the device's reply ("" when none came).
std::string ask(CloudServer& server, const std::string& subject, const std::string& content_json,
                const std::string& id) {
  if (server.request(subject, content_json, id) != id) return "<request not sent>";
  auto reply = server.wait_for_reply(id, 5s);
  return reply ? json_member(*reply, "content") : "";
}

TEST(Transactions, SendTransactionFillsTheTemplate) {
  CloudServer server;
  DeviceSession device(server);
  ASSERT_TRUE(wait_sent(server, "version", 0));
  {
    zel::Messaging& m = zel::Messaging::get();
    std::lock_guard<std::recursive_mutex> lock(m.get_work_mutex());
    m.send_transaction("cameraSetting", "{\"a\":1}", "changed");
    m.send_transaction("door", " { \"b\" : [ 1, 2 ], \"c\" : null,\n \"b\" : \"again\" } ", "deleted");
    m.send_transaction("relay", "not json", "changed");
    m.send_transaction("relay", "", "changed");
    m.send_transaction("say \"x\"", "{}", "");
  }
  zel::Upload::cloud_sync();  // everything before it has gone out when it arrives
  ASSERT_TRUE(wait_sent(server, "cloudsync", 0));
  ASSERT_EQ(count_sent(server, "transaction"), 3u);
  auto first = wait_sent(server, "transaction", 0);
  auto second = wait_sent(server, "transaction", 1);
  auto third = wait_sent(server, "transaction", 2);
  EXPECT_EQ(stable(*first),
            envelope("jobs", "transaction",
                     "{\"topic\":\"transaction\",\"nvrMac\":\"00:aa:bb:cc:dd:ee\",\"model\":\"cameraSetting\","
                     "\"method\":\"changed\",\"apiVersion\":\"2\",\"properties\":{\"a\":1}}"));
  EXPECT_EQ(stable(*second),
            envelope("jobs", "transaction",
                     "{\"topic\":\"transaction\",\"nvrMac\":\"00:aa:bb:cc:dd:ee\",\"model\":\"door\","
                     "\"method\":\"deleted\",\"apiVersion\":\"2\",\"properties\":{\"b\":[1,2],\"c\":null,"
                     "\"b\":\"again\"}}"));
  EXPECT_EQ(stable(*third),
            envelope("jobs", "transaction",
                     "{\"topic\":\"transaction\",\"nvrMac\":\"00:aa:bb:cc:dd:ee\",\"model\":\"say \\\"x\\\"\","
                     "\"method\":\"\",\"apiVersion\":\"2\",\"properties\":{}}"));
}

TEST(Transactions, AUserTransactionMakesTheDeviceSendItsVersionAgain) {
  CloudServer server;
  DeviceSession device(server);
  ASSERT_TRUE(wait_sent(server, "version", 0));

  EXPECT_EQ(ask(server, "transaction", R"({"model":"User"})", "t-1"), kOkay);
  EXPECT_EQ(ask(server, "transaction", R"({"model":5})", "t-2"), kOkay);
  EXPECT_EQ(ask(server, "transaction", R"("user")", "t-3"), kOkay);
  EXPECT_EQ(ask(server, "transaction", R"({"properties":{"model":"user"}})", "t-4"), kOkay);
  EXPECT_EQ(ask(server, "transaction", R"({"model":"user "})", "t-5"), kOkay);
  EXPECT_EQ(ask(server, "transaction", "", "t-6"), kOkay);
  EXPECT_EQ(count_sent(server, "version"), 1u);

  EXPECT_EQ(ask(server, "transaction", R"({"model":"user","method":"changed","properties":{}})", "t-7"),
            kOkay);
  auto again = wait_sent(server, "version", 1);
  ASSERT_TRUE(again);
  EXPECT_EQ(stable(*again), envelope("zel-inbound", "version", kVersionPlain));
  EXPECT_EQ(count_sent(server, "version"), 2u);
}

struct Report {
  int state;
  std::string path;
  std::string camera_mac;
  int64_t start_time;
  std::string message;
};

TEST(Transactions, AnAckConfirmsAnUploadedClipOnce) {
  CloudServer server;
  DeviceSession device(server);
  ASSERT_TRUE(wait_sent(server, "version", 0));

  std::mutex reports_mu;
  std::vector<Report> reports;
  auto record = [&](int state, const zel::ClipInfo& clip, std::string message) {
    std::lock_guard<std::mutex> lock(reports_mu);
    reports.push_back(Report{state, clip.path, clip.camera_mac, clip.start_time, message});
  };
  const int64_t start = 1614600000;  // 2021-03-01T12:00:00Z
  auto entry = [&](const std::string& path, int64_t start_time, int state) {
    zel::PendingClip p;
    p.clip.path = path;
    p.clip.camera_mac = "0a1b2c3d4e5f";
    p.clip.start_time = start_time;
    p.clip.end_time = start_time + 60;
    p.clip.callback = record;
    p.opts.timeout_seconds = 3600;  // no expiry while the test runs
    p.last_change = zel::time_now();
    p.in_flight = true;
    p.state = state;
    return p;
  };
  zel::Messaging& m = zel::Messaging::get();
  {
    std::lock_guard<std::recursive_mutex> lock(m.get_work_mutex());
    m.get_unacked_clips()["0a1b2c3d4e5f2021-03-01T12:00:00Z"] = entry("/clips/a.mp4", start, zel::CLIP_UPLOADED);
    m.get_unacked_clips()["0a1b2c3d4e5f2021-03-01T12:05:00Z"] =
        entry("/clips/b.mp4", start + 300, zel::CLIP_UPLOAD_STARTED);
    m.get_unacked_clips()["0a1b2c3d4e5f2021-03-01T12:10:00Z"] = entry("/clips/c.mp4", start + 600, zel::CLIP_FAILED);
  }

  // Not awaiting confirmation, unknown, or not matching exactly: no effect, still "OK".
  const char* ignored[] = {
      R"({"type":"archive","from":"0a1b2c3d4e5f","start_at":"2021-03-01T12:05:00Z"})",
      R"({"type":"archive","from":"0a1b2c3d4e5f","start_at":"2021-03-01T12:10:00Z"})",
      R"({"type":"archive","from":"0a1b2c3d4e5f","start_at":"2021-03-01T12:00:01Z"})",
      R"({"type":"archive","from":"0A1B2C3D4E5F","start_at":"2021-03-01T12:00:00Z"})",
      R"({"type":"archive","from":"0a1b2c3d4e5f","start_at":"2021-03-01 12:00:00Z"})",
      R"({"type":"archive","from":123,"start_at":"2021-03-01T12:00:00Z"})",
      R"({"type":"archive","start_at":"2021-03-01T12:00:00Z"})",
      R"({"type":"archive","from":"0a1b2c3d4e5f"})",
      R"({})",
      R"(["0a1b2c3d4e5f","2021-03-01T12:00:00Z"])",
  };
  int n = 0;
  for (const char* content : ignored) {
    std::string id = "ig-" + std::to_string(n++);
    EXPECT_EQ(ask(server, "transactionAck", content, id), kOkay) << content;
  }
  {
    std::lock_guard<std::mutex> lock(reports_mu);
    EXPECT_TRUE(reports.empty());
  }
  {
    std::lock_guard<std::recursive_mutex> lock(m.get_work_mutex());
    ASSERT_EQ(m.get_unacked_clips().size(), 3u);
  }

  // The uploaded clip is confirmed with state 6 and leaves the table; "type" plays no part.
  EXPECT_EQ(ask(server, "transactionAck",
                R"({"type":"whatever","from":"0a1b2c3d4e5f","start_at":"2021-03-01T12:00:00Z"})", "a-1"),
            kOkay);
  EXPECT_EQ(ask(server, "transactionAck",
                R"({"type":"archive","from":"0a1b2c3d4e5f","start_at":"2021-03-01T12:00:00Z"})", "a-2"),
            kOkay);
  {
    std::lock_guard<std::mutex> lock(reports_mu);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].state, 6);
    EXPECT_EQ(reports[0].path, "/clips/a.mp4");
    EXPECT_EQ(reports[0].camera_mac, "0a1b2c3d4e5f");
    EXPECT_EQ(reports[0].start_time, start);
    EXPECT_EQ(reports[0].message, "");
  }
  std::lock_guard<std::recursive_mutex> lock(m.get_work_mutex());
  auto& table = m.get_unacked_clips();
  ASSERT_EQ(table.size(), 2u);
  EXPECT_EQ(table.count("0a1b2c3d4e5f2021-03-01T12:00:00Z"), 0u);
  EXPECT_EQ(table.at("0a1b2c3d4e5f2021-03-01T12:05:00Z").state, zel::CLIP_UPLOAD_STARTED);
  EXPECT_EQ(table.at("0a1b2c3d4e5f2021-03-01T12:10:00Z").state, zel::CLIP_FAILED);
  table.clear();  // their callbacks refer to this test's locals
}

}  // namespace
}  // namespace zel_test

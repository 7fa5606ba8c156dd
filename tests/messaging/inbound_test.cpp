// Inbound processing against what a server may really send: text that is not JSON,
// requests with pieces missing or of the wrong type, binary and fragmented frames, and
// host callbacks that throw. None of it may stop the worker from answering.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>

#include "messaging/messaging.h"
#include "support/cloud_server.h"
#include "support/device_session.h"
#include "support/log_capture.h"
#include "support/wire.h"
#include "zel/upload.h"

namespace zel_test {
namespace {

using namespace std::chrono_literals;

const char* const kOkay = "{\"status\":\"OK\",\"details\":\"OK\"}";

std::string reply_envelope(const std::string& to, const std::string& subject,
                           const std::string& content, const std::string& original_id) {
  return std::string("{\"id\":\"") + kDeviceMacLower + "<us>\",\"from\":\"" + kDeviceMacLower +
         "\",\"to\":\"" + to + "\",\"subject\":\"" + subject +
         "\",\"date\":\"<date>\",\"signature\":\"n/a\",\"content\":" + content +
         ",\"original_id\":\"" + original_id + "\"}";
}

int32_t missed_pongs() {
  zel::Messaging& m = zel::Messaging::get();
  std::lock_guard<std::recursive_mutex> lock(m.get_work_mutex());
  return m.get_missed_pongs();
}

// The worker handles inbound messages in order: once a later request is answered, every
// earlier one has been dealt with.
void expect_still_answering(CloudServer& server, const std::string& id) {
  server.request("setSshPassword", "{}", id);
  auto reply = server.wait_for_reply(id, 5s);
  ASSERT_TRUE(reply) << id;
  EXPECT_EQ(json_member(*reply, "content"), kOkay) << id;
}

TEST(Inbound, BadInputIsDroppedAndTheWorkerCarriesOn) {
  CloudServer server;
  LogCapture log;
  ASSERT_TRUE(server.set(R"({"auto_pong":false})"));  // only the test's own pong counts
  DeviceSession device(server);
  ASSERT_TRUE(wait_sent(server, "version", 0));

  // Not JSON: one warning with the text as it came.
  ASSERT_TRUE(server.send_text("hello"));
  ASSERT_TRUE(server.send_text("{\"id\":\"x-1\",\"subject\":"));
  ASSERT_TRUE(log.wait_for("Error parsing received message: 'hello'\n", 5s));
  ASSERT_TRUE(log.wait_for("Error parsing received message: '{\"id\":\"x-1\",\"subject\":'\n", 5s));
  EXPECT_EQ(log.level_of("Error parsing received message: 'hello'\n"), 2);

  // JSON without a subject (objects without one, and documents that are no object).
  const std::string no_subject = "Error: inbound message has no subject.  Cannot find handler.\n";
  for (const char* text : {"{\"id\":\"ns-1\",\"from\":\"zel-cloud\",\"content\":{}}", "[1,2]",
                           "\"status\"", "null", "42"})
    ASSERT_TRUE(server.send_text(text));
  ASSERT_TRUE(log.wait_for(no_subject, 5s, 5));
  EXPECT_EQ(log.level_of(no_subject), 1);
  expect_still_answering(server, "ok-1");
  EXPECT_EQ(log.count(no_subject), 5u);

  // A subject that is not a string: dropped, no reply, no crash.
  for (const char* text : {"{\"id\":\"sn-1\",\"from\":\"zel-cloud\",\"subject\":5}",
                           "{\"id\":\"sn-2\",\"from\":\"zel-cloud\",\"subject\":null}",
                           "{\"id\":\"sn-3\",\"from\":\"zel-cloud\",\"subject\":{\"s\":\"status\"}}",
                           "{\"id\":\"sn-4\",\"from\":\"zel-cloud\",\"subject\":[\"status\"]}"})
    ASSERT_TRUE(server.send_text(text));
  expect_still_answering(server, "ok-2");
  for (const char* id : {"sn-1", "sn-2", "sn-3", "sn-4"}) EXPECT_FALSE(server.wait_for_reply(id, 0ms)) << id;

  // A request that needs a reply but has no usable "id" or "from": no reply can be
  // addressed, so none goes out; a request needing no reply is still handled.
  ASSERT_TRUE(server.send_text("{\"from\":\"zel-cloud\",\"subject\":\"details\"}"));
  ASSERT_TRUE(server.send_text("{\"id\":\"nf-1\",\"subject\":\"status\"}"));
  ASSERT_TRUE(server.send_text("{\"id\":7,\"from\":\"zel-cloud\",\"subject\":\"status\"}"));
  ASSERT_TRUE(server.send_text("{\"id\":\"nf-2\",\"from\":9,\"subject\":\"status\"}"));
  ASSERT_TRUE(server.send_text("{\"id\":null,\"from\":null,\"subject\":\"version\"}"));
  ASSERT_TRUE(server.send_text("{\"id\":\"nf-3\",\"from\":\"\",\"subject\":\"status\"}"));
  // The ping sent at connect went unanswered; a pong without id or from still counts.
  ASSERT_TRUE(wait_sent(server, "ping", 0));
  EXPECT_EQ(missed_pongs(), 1);
  ASSERT_TRUE(server.send_text("{\"subject\":\"pong\"}"));
  expect_still_answering(server, "ok-3");
  EXPECT_EQ(missed_pongs(), 0);
  EXPECT_EQ(server.count_subject("details"), 0);
  EXPECT_EQ(server.count_subject("status"), 0);
  for (const char* id : {"nf-1", "nf-2", "nf-3"}) EXPECT_FALSE(server.wait_for_reply(id, 0ms)) << id;

  // A binary frame is taken like text.
  ASSERT_TRUE(server.send_binary(
      "{\"id\":\"b-1\",\"from\":\"zel-cloud\",\"subject\":\"cameraSettingWrite\",\"content\":{}}"));
  auto binary = server.wait_for_reply("b-1", 5s);
  ASSERT_TRUE(binary);
  EXPECT_EQ(stable(*binary), reply_envelope("zel-cloud", "cameraSettingWrite", kOkay, "b-1"));

  // Fragments are not put together: only the last piece counts.
  ASSERT_TRUE(server.send_fragments({"{\"id\":\"f-1\",\"from\":\"zel-cloud\",\"subject\":\"sta", "tus\"}"}));
  ASSERT_TRUE(log.wait_for("Error parsing received message: 'tus\"}'\n", 5s));
  ASSERT_TRUE(server.send_fragments(
      {"not even ", "json, ",
       "{\"id\":\"f-2\",\"from\":\"zel-cloud\",\"subject\":\"setSshPassword\",\"content\":\"x\"}"}));
  auto fragmented = server.wait_for_reply("f-2", 5s);
  ASSERT_TRUE(fragmented);
  EXPECT_EQ(stable(*fragmented), reply_envelope("zel-cloud", "setSshPassword", kOkay, "f-2"));
  ASSERT_TRUE(server.send_fragments(
      {"{\"id\":\"f-3\",\"from\":\"zel-cloud\",\"subject\":\"setSshPassword\",\"content\":\"x\"}"}, true));
  ASSERT_TRUE(log.wait_for("Error parsing received message: ''\n", 5s));
  EXPECT_FALSE(server.wait_for_reply("f-1", 0ms));
  EXPECT_FALSE(server.wait_for_reply("f-3", 0ms));

  expect_still_answering(server, "ok-4");
  EXPECT_EQ(device.connects(), 1);
  EXPECT_EQ(device.disconnects(), 0);
}

TEST(Inbound, AThrowingHostCallbackGetsAnErrorReplyAndTheWorkerCarriesOn) {
  CloudServer server;
  LogCapture log;
  std::atomic<int> calls{0};
  zel::Upload::register_perform_action([&](zel::ActionInfo info) -> zel::MsgResponse {
    ++calls;
    if (info.action == "jam") throw std::runtime_error("relay 4 jammed");
    return zel::MsgResponse::Okay();
  });
  zel::Upload::register_ota_update([](zel::UpdateInfo) -> zel::MsgResponse { throw 7; });
  zel::Upload::register_list_actions(
      [](std::string) -> zel::MsgResponse { throw std::out_of_range("list index"); });
  DeviceSession device(server);
  ASSERT_TRUE(wait_sent(server, "version", 0));

  const std::string failed = "{\"status\":\"ERROR\",\"details\":{\"error\":\"Host callback failed\"}}";
  server.request("action", "{\"action\":\"jam\",\"device\":\"relay-4\"}", "t-1");
  auto jammed = server.wait_for_reply("t-1", 5s);
  ASSERT_TRUE(jammed);
  EXPECT_EQ(stable(*jammed), reply_envelope("zel-cloud", "action", failed, "t-1"));

  // The exception's text is in the error log.
  std::string logged;
  for (const std::string& line : log.lines())
    if (line.find("relay 4 jammed") != std::string::npos) logged = line;
  ASSERT_FALSE(logged.empty());
  EXPECT_EQ(log.level_of(logged), 1);

  server.request("update", "{\"url\":\"u\"}", "t-2");
  server.request("updateFirmware", "{\"url\":\"u\"}", "t-3");
  server.request("actions", "{}", "t-4");
  for (const char* id : {"t-2", "t-3", "t-4"}) {
    auto reply = server.wait_for_reply(id, 5s);
    ASSERT_TRUE(reply) << id;
    EXPECT_EQ(json_member(*reply, "content"), failed) << id;
  }
  EXPECT_EQ(log.count_containing("list index"), 1u);

  // The cloud status callback is a host callback too.
  zel::Upload::register_cloud_status([](zel::CloudStatus s) {
    if (s.account_id == 13) throw std::runtime_error("status store is read-only");
  });
  server.request("version", "{\"account_id\":13}", "t-7");
  auto version = server.wait_for_reply("t-7", 5s);
  ASSERT_TRUE(version);
  EXPECT_EQ(stable(*version), reply_envelope("zel-cloud", "version", failed, "t-7"));
  EXPECT_EQ(log.count_containing("status store is read-only"), 1u);

  // The same callback, not throwing this time, answers normally.
  server.request("action", "{\"action\":\"open\"}", "t-5");
  auto opened = server.wait_for_reply("t-5", 5s);
  ASSERT_TRUE(opened);
  EXPECT_EQ(stable(*opened), reply_envelope("zel-cloud", "action", kOkay, "t-5"));
  EXPECT_EQ(calls, 2);
  expect_still_answering(server, "t-6");
  EXPECT_EQ(device.disconnects(), 0);
}

}  // namespace
}  // namespace zel_test

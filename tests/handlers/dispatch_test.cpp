// The server's subjects and what each one answers: direct calls of the dispatcher for
// the reply bodies and the host callbacks, and one round over the wire for the envelope
// a reply travels in.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "foundation/time_utils.h"
#include "handlers/zel_handler.h"
#include "messaging/messaging.h"
#include "support/cloud_server.h"
#include "support/device_session.h"
#include "support/wire.h"
#include "zel/upload.h"

namespace zel_test {
namespace {

using namespace std::chrono_literals;
using ::testing::AnyOf;
using ::testing::Eq;
using zel::MsgResponse;

const char* const kCouldNotParse = "{\"error\": \"Could not parse contents\"}";
const char* const kNotImplemented = "{\"error\": \"Not implemented\"}";

const std::string kVersionFull =
    "{\"version\":\"22.1.0\",\"account\":\"acme\",\"buildNumber\":1,\"partner\":\"p1\","
    "\"buildDate\":\"202007080000\",\"serialNumber\":\"SN1\",\"architecture\":\"pelmo_linux64\","
    "\"ui\":\"none\"}";

// The dispatcher as inbound processing calls it: on the singleton, under the work mutex.
MsgResponse dispatch(const std::string& subject, const std::string& contents) {
  zel::Messaging& m = zel::Messaging::get();
  std::lock_guard<std::recursive_mutex> lock(m.get_work_mutex());
  return zel::ZelHandler::handleMessage(&m, subject, contents, nullptr);
}

int32_t account_id() {
  zel::Messaging& m = zel::Messaging::get();
  std::lock_guard<std::recursive_mutex> lock(m.get_work_mutex());
  return m.get_account_id();
}

std::string details_body(const std::string& mac, const std::string& version, long now) {
  return "{\"mac\":\"" + mac + "\",\"version\":" + version +
         ",\"memory\":{\"free\":4130213000,\"total\":4130213888},\"wan\":[],\"lan\":[],\"time\":\"" +
         std::to_string(now) +
         "000\",\"recorder\":\"N/A\",\"builds\":\"N/A\",\"uname\":\"N/A\",\"pci_info\":\"N/A\","
         "\"cpu_info\":\"N/A\",\"hw_fingerprint\":\"N/A\",\"who\":\"\",\"ps\":\"\",\"uptime\":\"0\"}";
}

std::string status_body(const std::string& mac, const std::string& version, long now) {
  return "{\"mac\":\"" + mac + "\",\"version\":" + version +
         ",\"online_count\":10,\"offline_count\":5,\"memory\":{\"free\":4130213000,\"total\":"
         "4130213888},\"wan\":[],\"lan\":[],\"time\":\"" +
         std::to_string(now) + "000\"}";
}

class Dispatch : public ::testing::Test {
 protected:
  void TearDown() override { zel::Messaging::get().reset_for_tests(); }
};

TEST_F(Dispatch, FixedAnswersAndUnsupportedSubjects) {
  zel::Messaging& m = zel::Messaging::get();
  {
    std::lock_guard<std::recursive_mutex> lock(m.get_work_mutex());
    m.ping();  // no link: nothing goes out, but the count goes up
    m.ping();
    ASSERT_EQ(m.get_missed_pongs(), 2);
  }
  MsgResponse pong = dispatch("pong", "not json at all");
  EXPECT_TRUE(pong.ok);
  EXPECT_EQ(pong.content, "");
  EXPECT_EQ(m.get_missed_pongs(), 0);

  for (const char* contents : {"", "not json {", "{\"password\":\"s3cret\"}"}) {
    MsgResponse ssh = dispatch("setSshPassword", contents);
    EXPECT_TRUE(ssh.ok) << contents;
    EXPECT_EQ(ssh.content, "\"OK\"") << contents;
    MsgResponse setting = dispatch("cameraSettingWrite", contents);
    EXPECT_TRUE(setting.ok) << contents;
    EXPECT_EQ(setting.content, "\"OK\"") << contents;
  }

  // Exact, case-sensitive subjects; anything else comes back in the error as it came.
  struct Case {
    const char* subject;
    const char* body;
  };
  const Case unsupported[] = {
      {"Pong", "{\"from\":\"zel-upload-lib\",\"error\":\"Not supported subject: Pong\"}"},
      {"pong ", "{\"from\":\"zel-upload-lib\",\"error\":\"Not supported subject: pong \"}"},
      {"foo", "{\"from\":\"zel-upload-lib\",\"error\":\"Not supported subject: foo\"}"},
      {"", "{\"from\":\"zel-upload-lib\",\"error\":\"Not supported subject: \"}"},
      {"Status", "{\"from\":\"zel-upload-lib\",\"error\":\"Not supported subject: Status\"}"},
      {"ping", "{\"from\":\"zel-upload-lib\",\"error\":\"Not supported subject: ping\"}"},
      {"say \"hi\"", "{\"from\":\"zel-upload-lib\",\"error\":\"Not supported subject: say \"hi\"\"}"},
  };
  for (const Case& c : unsupported) {
    MsgResponse r = dispatch(c.subject, "{}");
    EXPECT_FALSE(r.ok) << c.subject;
    EXPECT_EQ(r.content, c.body) << c.subject;
  }

  MsgResponse storage = dispatch("getStorageAccess", "{not json");
  EXPECT_FALSE(storage.ok);
  EXPECT_EQ(storage.content, kCouldNotParse);

  // Transactions and their acknowledgements are always "OK", whatever came.
  for (const char* subject : {"transaction", "transactionAck"}) {
    for (const char* contents : {"", "not json", "[1,2]", "{\"model\":7}", "{}"}) {
      MsgResponse r = dispatch(subject, contents);
      EXPECT_TRUE(r.ok) << subject << " " << contents;
      EXPECT_EQ(r.content, "\"OK\"") << subject << " " << contents;
    }
  }
}

TEST_F(Dispatch, HostCallbacksGetTheFieldsAndTheirAnswerIsTheReply) {
  // Without callbacks every forwarding subject is "Not implemented" ...
  for (const char* subject : {"actions", "action", "update", "updateFirmware"}) {
    MsgResponse r = dispatch(subject, "{\"action\":\"open\",\"url\":\"u\"}");
    EXPECT_FALSE(r.ok) << subject;
    EXPECT_EQ(r.content, kNotImplemented) << subject;
  }

  std::vector<std::string> devices;
  std::vector<zel::ActionInfo> actions;
  std::vector<zel::UpdateInfo> updates;
  MsgResponse list_answer("[\"open\",\"close\"]");
  MsgResponse action_answer = MsgResponse::Error("{\"busy\":true}");
  MsgResponse update_answer = MsgResponse::EmptyResponse();
  zel::Upload::register_list_actions([&](std::string device) {
    devices.push_back(device);
    return list_answer;
  });
  zel::Upload::register_perform_action([&](zel::ActionInfo info) {
    actions.push_back(info);
    return action_answer;
  });
  zel::Upload::register_ota_update([&](zel::UpdateInfo info) {
    updates.push_back(info);
    return update_answer;
  });

  // ... and contents that are not JSON never reach the host.
  for (const char* subject : {"actions", "action", "update", "updateFirmware"}) {
    for (const char* contents : {"", "not json", "{\"action\":", "{'action':'open'}"}) {
      MsgResponse r = dispatch(subject, contents);
      EXPECT_FALSE(r.ok) << subject << " " << contents;
      EXPECT_EQ(r.content, kCouldNotParse) << subject << " " << contents;
    }
  }
  EXPECT_TRUE(devices.empty());
  EXPECT_TRUE(actions.empty());
  EXPECT_TRUE(updates.empty());

  // "actions": the device inside "options"; anything else there counts as missing.
  const char* list_contents[] = {
      "{\"options\":{\"device\":\"door-3\"}}",
      "{}",
      "{\"options\":[{\"device\":\"door-3\"}]}",
      "{\"options\":{\"device\":5}}",
      "{\"options\":\"door-3\"}",
      "{\"device\":\"door-3\"}",
      "[{\"options\":{\"device\":\"door-3\"}}]",
      "\"door-3\"",
  };
  for (const char* contents : list_contents) {
    MsgResponse r = dispatch("actions", contents);
    EXPECT_TRUE(r.ok) << contents;
    EXPECT_EQ(r.content, "[\"open\",\"close\"]") << contents;
  }
  EXPECT_THAT(devices, ::testing::ElementsAre("door-3", "", "", "", "", "", "", ""));

  // "action": value as compact JSON text, strings keeping their quotes.
  struct ActionCase {
    const char* contents;
    const char* device;
    const char* action;
    const char* value;
  };
  const ActionCase action_cases[] = {
      {"{\"action\":\"open\",\"value\":5}", "", "open", "5"},
      {"{\"action\":\"open\",\"device\":\"relay-2\",\"value\":\"on\"}", "relay-2", "open", "\"on\""},
      {"{\"device\":\"d\",\"action\":\"set\",\"value\": { \"level\" : 3, \"on\" : true } }", "d", "set",
       "{\"level\":3,\"on\":true}"},
      {"{\"action\":\"x\",\"value\":null}", "", "x", "null"},
      {"{\"action\":\"x\",\"value\":[1, \"a\", false]}", "", "x", "[1,\"a\",false]"},
      {"{\"value\":\"a\\\"b\"}", "", "", "\"a\\\"b\""},
      {"{\"value\":2.5}", "", "", "2.5"},
      {"{\"action\":\"open\"}", "", "open", ""},
      {"{\"action\":5,\"device\":[\"d\"]}", "", "", ""},
      {"{\"action\":{\"a\":1},\"device\":true,\"value\":{}}", "", "", "{}"},
      {"[]", "", "", ""},
  };
  for (const ActionCase& c : action_cases) {
    MsgResponse r = dispatch("action", c.contents);
    EXPECT_FALSE(r.ok) << c.contents;
    EXPECT_EQ(r.content, "{\"busy\":true}") << c.contents;
  }
  ASSERT_EQ(actions.size(), std::size(action_cases));
  for (size_t i = 0; i < actions.size(); ++i) {
    EXPECT_EQ(actions[i].device, action_cases[i].device) << action_cases[i].contents;
    EXPECT_EQ(actions[i].action, action_cases[i].action) << action_cases[i].contents;
    EXPECT_EQ(actions[i].value, action_cases[i].value) << action_cases[i].contents;
  }

  // "update" and "updateFirmware" are one handler; the fourth field stays empty.
  const char* full = "{\"url\":\"https://fw.test/fw-2.bin\",\"hash\":\"sha256:ab12\",\"device\":\"nvr\","
                     "\"reserved\":\"r\"}";
  for (const char* subject : {"update", "updateFirmware"}) {
    MsgResponse r = dispatch(subject, full);
    EXPECT_TRUE(r.ok) << subject;
    EXPECT_EQ(r.content, "") << subject;
  }
  dispatch("update", "{\"url\":7,\"hash\":null,\"device\":{\"id\":\"nvr\"}}");
  dispatch("updateFirmware", "{\"hash\":\"h\"}");
  ASSERT_EQ(updates.size(), 4u);
  for (size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(updates[i].url, "https://fw.test/fw-2.bin");
    EXPECT_EQ(updates[i].hash, "sha256:ab12");
    EXPECT_EQ(updates[i].device, "nvr");
    EXPECT_EQ(updates[i].reserved, "");
  }
  EXPECT_EQ(updates[2].url, "");
  EXPECT_EQ(updates[2].hash, "");
  EXPECT_EQ(updates[2].device, "");
  EXPECT_EQ(updates[3].url, "");
  EXPECT_EQ(updates[3].hash, "h");
  EXPECT_EQ(updates[3].device, "");

  // The host's answer is passed on as it is, whatever it says.
  list_answer = MsgResponse::Error("{\"error\":\"no such device\"}");
  MsgResponse r = dispatch("actions", "{}");
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.content, "{\"error\":\"no such device\"}");
  update_answer = MsgResponse::Okay();
  r = dispatch("update", "{}");
  EXPECT_TRUE(r.ok);
  EXPECT_EQ(r.content, "\"OK\"");
}

TEST_F(Dispatch, VersionReportsTheStatusAndAnswersWithTheStoredDocument) {
  CloudServer server;
  zel::CloudConnect cc = connect_params(server);
  cc.account = "acme";
  cc.partner = "p1";
  cc.serial_number = "SN1";
  DeviceSession device(server, cc);
  // The server's own version request is handled first (it gives account 42).
  ASSERT_TRUE(eventually([] { return account_id() == 42; }, 5s));

  std::vector<zel::CloudStatus> seen;
  std::mutex seen_mu;
  zel::Upload::register_cloud_status([&](zel::CloudStatus s) {
    std::lock_guard<std::mutex> lock(seen_mu);
    seen.push_back(s);
  });

  MsgResponse r = dispatch(
      "version",
      "{\"registered\":true,\"enabled\":false,\"account_id\":12,\"device_uuid\":\"u-9\",\"partner_id\":3}");
  EXPECT_TRUE(r.ok);
  EXPECT_EQ(r.content, kVersionFull);
  EXPECT_EQ(account_id(), 12);

  // Defaults: text that is not JSON, wrong member types, a document that is no object.
  for (const char* contents :
       {"", "not json",
        "{\"registered\":\"true\",\"enabled\":1,\"account_id\":\"9\",\"device_uuid\":5,"
        "\"partner_id\":null}",
        "[true,true,12]"}) {
    MsgResponse d = dispatch("version", contents);
    EXPECT_TRUE(d.ok) << contents;
    EXPECT_EQ(d.content, kVersionFull) << contents;
  }
  EXPECT_EQ(account_id(), 0);

  std::lock_guard<std::mutex> lock(seen_mu);
  ASSERT_EQ(seen.size(), 5u);
  EXPECT_TRUE(seen[0].registered);
  EXPECT_FALSE(seen[0].enabled);
  EXPECT_EQ(seen[0].account_id, 12);
  EXPECT_EQ(seen[0].device_uuid, "u-9");
  EXPECT_EQ(seen[0].partner_id, 3);
  for (size_t i = 1; i < seen.size(); ++i) {
    EXPECT_FALSE(seen[i].registered) << i;
    EXPECT_FALSE(seen[i].enabled) << i;
    EXPECT_EQ(seen[i].account_id, 0) << i;
    EXPECT_EQ(seen[i].device_uuid, "") << i;
    EXPECT_EQ(seen[i].partner_id, 0) << i;
  }
}

TEST_F(Dispatch, DetailsAndStatusAreTheFixedBodiesWithTheTimeInMilliseconds) {
  CloudServer server;
  zel::CloudConnect cc = connect_params(server);
  cc.account = "acme";
  cc.partner = "p1";
  cc.serial_number = "SN1";
  DeviceSession device(server, cc);

  long before = zel::time_now();
  MsgResponse details = dispatch("details", "not json");
  MsgResponse status = dispatch("status", "{\"verbose\":true}");
  long after = zel::time_now();
  EXPECT_TRUE(details.ok);
  EXPECT_TRUE(status.ok);
  EXPECT_THAT(details.content, AnyOf(Eq(details_body(kDeviceMacLower, kVersionFull, before)),
                                     Eq(details_body(kDeviceMacLower, kVersionFull, after))));
  EXPECT_THAT(status.content, AnyOf(Eq(status_body(kDeviceMacLower, kVersionFull, before)),
                                    Eq(status_body(kDeviceMacLower, kVersionFull, after))));

  // The time is the library's clock, whatever it says.
  zel::advance_clock(86400);
  before = zel::time_now();
  status = dispatch("status", "");
  after = zel::time_now();
  EXPECT_THAT(status.content, AnyOf(Eq(status_body(kDeviceMacLower, kVersionFull, before)),
                                    Eq(status_body(kDeviceMacLower, kVersionFull, after))));
}

std::string reply_envelope(const std::string& to, const std::string& subject,
                           const std::string& content, const std::string& original_id) {
  return std::string("{\"id\":\"") + kDeviceMacLower + "<us>\",\"from\":\"" + kDeviceMacLower +
         "\",\"to\":\"" + to + "\",\"subject\":\"" + subject +
         "\",\"date\":\"<date>\",\"signature\":\"n/a\",\"content\":" + content +
         ",\"original_id\":\"" + original_id + "\"}";
}

TEST_F(Dispatch, RepliesGoToTheSenderWithTheOriginalIdLast) {
  CloudServer server;
  DeviceSession device(server);
  ASSERT_TRUE(wait_sent(server, "version", 0));

  // A sender other than the server's own name gets the answer.
  ASSERT_TRUE(server.send_text(
      "{\"id\":\"ops-17\",\"from\":\"ops-console\",\"to\":\"00:aa:bb:cc:dd:ee\","
      "\"subject\":\"setSshPassword\",\"date\":\"2021-03-01T12:00:00Z\","
      "\"content\":{\"password\":\"x\"}}"));
  auto ssh = server.wait_for_reply("ops-17", 5s);
  ASSERT_TRUE(ssh);
  EXPECT_EQ(stable(*ssh), reply_envelope("ops-console", "setSshPassword",
                                         "{\"status\":\"OK\",\"details\":\"OK\"}", "ops-17"));

  long before = zel::time_now();
  ASSERT_EQ(server.request("status", "", "st-1"), "st-1");
  auto status = server.wait_for_reply("st-1", 5s);
  long after = zel::time_now();
  ASSERT_TRUE(status);
  auto status_reply = [](long t) {
    return reply_envelope("zel-cloud", "status",
                          "{\"status\":\"OK\",\"details\":" +
                              status_body(kDeviceMacLower, kVersionPlain, t) + "}",
                          "st-1");
  };
  EXPECT_THAT(stable(*status), AnyOf(Eq(status_reply(before)), Eq(status_reply(after))));

  // Failures travel with status "ERROR"; the details are the handler's text reprinted.
  server.request("actions", "{\"options\":{\"device\":\"d\"}}", "ac-1");
  auto actions = server.wait_for_reply("ac-1", 5s);
  ASSERT_TRUE(actions);
  EXPECT_EQ(stable(*actions),
            reply_envelope("zel-cloud", "actions",
                           "{\"status\":\"ERROR\",\"details\":{\"error\":\"Not implemented\"}}", "ac-1"));
  server.request("nope", "{}", "n-1");
  auto nope = server.wait_for_reply("n-1", 5s);
  ASSERT_TRUE(nope);
  EXPECT_EQ(stable(*nope),
            reply_envelope("zel-cloud", "nope",
                           "{\"status\":\"ERROR\",\"details\":{\"from\":\"zel-upload-lib\","
                           "\"error\":\"Not supported subject: nope\"}}",
                           "n-1"));

  // No reply at all: a pong, and a subject whose echo is not JSON.
  server.request("pong", "\"pong\"", "p-1");
  server.request("bad\"subject", "{}", "q-1");
  server.request("cameraSettingWrite", "{\"brightness\":50}", "cw-1");
  auto setting = server.wait_for_reply("cw-1", 5s);
  ASSERT_TRUE(setting);
  EXPECT_EQ(stable(*setting), reply_envelope("zel-cloud", "cameraSettingWrite",
                                             "{\"status\":\"OK\",\"details\":\"OK\"}", "cw-1"));
  EXPECT_FALSE(server.wait_for_reply("p-1", 0ms));
  EXPECT_FALSE(server.wait_for_reply("q-1", 0ms));
}

}  // namespace
}  // namespace zel_test

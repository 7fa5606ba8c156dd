// The server's requests and their answers: the dispatcher called as inbound processing
// calls it (reply bodies, host callbacks, files written), and the wire for host callbacks
// that throw.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <stdexcept>

#include "foundation/time_utils.h"
#include "handlers/zel_handler.h"
#include "messaging/messaging.h"
#include "support/cloud.h"

namespace zt {
namespace {

using zel::MsgResponse;
const char* const kCouldNotParse = "{\"error\": \"Could not parse contents\"}";
const char* const kNotImplemented = "{\"error\": \"Not implemented\"}";
const std::string kVersion =
    "{\"version\":\"22.1.0\",\"buildNumber\":1,\"buildDate\":\"202007080000\","
    "\"architecture\":\"pelmo_linux64\",\"ui\":\"none\"}";

class Dispatch : public ::testing::Test {
 protected:
  void SetUp() override {
    cc.mac_address = kMac;
    cc.cert_path = dir.path + "/client.pem";
    cc.key_path = dir.path + "/client.key";
    zel::Messaging::get().prepare_for_tests(cc);
  }
  void TearDown() override { zel::Messaging::get().reset_for_tests(); }
  static MsgResponse dispatch(const std::string& subject, const std::string& contents) {
    zel::Messaging& m = zel::Messaging::get();
    std::lock_guard<std::recursive_mutex> lock(m.get_work_mutex());
    return zel::ZelHandler::handleMessage(&m, subject, contents, nullptr);
  }
  TempDir dir;
  zel::CloudConnect cc;
  FrozenClock clock;
};

TEST_F(Dispatch, AnswersBySubject) {
  const std::string now = std::to_string(zel::time_now()) + "000";
  const std::string head = std::string("{\"mac\":\"") + kMacLower + "\",\"version\":" + kVersion;
  const std::string not_supported = "{\"from\":\"zel-upload-lib\",\"error\":\"Not supported subject: ";
  struct Row {
    const char* subject;
    const char* contents;
    bool ok;
    std::string body;
  } rows[] = {
      {"pong", "not json", true, ""},
      {"setSshPassword", "{\"password\":\"s3cret\"}", true, "\"OK\""},
      {"cameraSettingWrite", "", true, "\"OK\""},
      {"transaction", "not json", true, "\"OK\""},
      {"transactionAck", "[1,2]", true, "\"OK\""},
      {"Pong", "{}", false, not_supported + "Pong\"}"},
      {"say \"hi\"", "{}", false, not_supported + "say \"hi\"\"}"},
      {"getStorageAccess", "{not json", false, kCouldNotParse},
      {"issueCertificate", "{}", false, kCouldNotParse},
      {"actions", "{}", false, kNotImplemented},
      {"action", "{}", false, kNotImplemented},
      {"update", "{}", false, kNotImplemented},
      {"updateFirmware", "{}", false, kNotImplemented},
      {"action", "{'action':'open'}", false, kCouldNotParse},
      {"details", "", true,
       head + ",\"memory\":{\"free\":4130213000,\"total\":4130213888},\"wan\":[],\"lan\":[],\"time\":\"" +
           now + "\",\"recorder\":\"N/A\",\"builds\":\"N/A\",\"uname\":\"N/A\",\"pci_info\":\"N/A\","
                 "\"cpu_info\":\"N/A\",\"hw_fingerprint\":\"N/A\",\"who\":\"\",\"ps\":\"\",\"uptime\":\"0\"}"},
      {"status", "", true,
       head + ",\"online_count\":10,\"offline_count\":5,\"memory\":{\"free\":4130213000,\"total\":"
              "4130213888},\"wan\":[],\"lan\":[],\"time\":\"" + now + "\"}"},
      {"version", "{\"account_id\":42,\"partner_id\":7}", true, kVersion},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.subject) + " " + row.contents);
    MsgResponse r = dispatch(row.subject, row.contents);
    EXPECT_EQ(r.ok, row.ok);
    EXPECT_EQ(r.content, row.body);
  }
}

TEST_F(Dispatch, HostCallbacksGetTheFieldsAndTheirAnswerIsTheReply) {
  std::vector<std::string> seen;
  zel::Upload::register_list_actions([&](std::string device) {
    seen.push_back("actions " + device);
    return MsgResponse("[\"open\"]");
  });
  zel::Upload::register_perform_action([&](zel::ActionInfo a) {
    seen.push_back("action " + a.device + "|" + a.action + "|" + a.value);
    return MsgResponse::Error("{\"busy\":true}");
  });
  zel::Upload::register_ota_update([&](zel::UpdateInfo u) {
    seen.push_back("update " + u.url + "|" + u.hash + "|" + u.device + "|" + u.reserved);
    return MsgResponse::EmptyResponse();
  });
  zel::CloudStatus status;
  zel::Upload::register_cloud_status([&](zel::CloudStatus s) { status = s; });
  struct Row {
    const char* subject;
    const char* contents;
    std::string seen, body;
  } rows[] = {
      {"actions", "{\"options\":{\"device\":\"door-3\"}}", "actions door-3", "[\"open\"]"},
      {"actions", "{\"device\":\"door-3\"}", "actions ", "[\"open\"]"},
      {"action", "{\"device\":\"relay-2\",\"action\":\"open\",\"value\":\"on\"}",
       "action relay-2|open|\"on\"", "{\"busy\":true}"},
      {"action", "{\"action\":\"set\",\"value\": { \"level\" : 3 }}", "action |set|{\"level\":3}",
       "{\"busy\":true}"},
      {"action", "{\"action\":5,\"device\":[\"d\"]}", "action ||", "{\"busy\":true}"},
      {"update", "{\"url\":\"u1\",\"hash\":\"h1\",\"device\":\"nvr\",\"reserved\":\"r\"}",
       "update u1|h1|nvr|", ""},
      {"updateFirmware", "{\"url\":\"u2\",\"hash\":7}", "update u2|||", ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.contents);
    seen.clear();
    EXPECT_EQ(dispatch(row.subject, row.contents).content, row.body);
    EXPECT_EQ(seen, std::vector<std::string>{row.seen});
  }
  dispatch("version", "{\"registered\":true,\"enabled\":false,\"account_id\":42,\"partner_id\":7,"
                      "\"device_uuid\":\"u-1\"}");
  EXPECT_TRUE(status.registered);
  EXPECT_FALSE(status.enabled);
  EXPECT_EQ(status.account_id, 42);
  EXPECT_EQ(status.partner_id, 7);
  EXPECT_EQ(status.device_uuid, "u-1");
  EXPECT_EQ(zel::Messaging::get().get_account_id(), 42);
}

// A new client certificate and key replace the files whole, each with its own permissions.
TEST_F(Dispatch, IssuedCertificateReplacesTheFiles) {
  mode_t old_umask = umask(022);
  auto mode = [](const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? static_cast<int>(st.st_mode & 0777) : -1;
  };
  dir.file("client.pem", "old certificate");
  dir.file("client.key", "old key");
  EXPECT_EQ(dispatch("issueCertificate", "{\"contents\":{\"cert\":\"C1\\n\",\"key\":\"K\\u00e9\"}}").content,
            "\"OK\"");
  EXPECT_EQ(read_file(cc.cert_path), "C1\n");
  EXPECT_EQ(read_file(cc.key_path), "K\xc3\xa9");
  EXPECT_EQ(mode(cc.cert_path), 0644);
  EXPECT_EQ(mode(cc.key_path), 0600);
  dispatch("issueCertificate", "{\"contents\":{\"cert\":5}}");  // not a string: emptied
  EXPECT_EQ(read_file(cc.cert_path), "");
  EXPECT_EQ(read_file(cc.key_path), "K\xc3\xa9");
  umask(old_umask);
}

// Credentials are kept under the camera MAC and start second exactly as the server wrote them.
TEST_F(Dispatch, StorageAccessKeepsCredentialsUnderCameraAndStart) {
  dispatch("getStorageAccess", "{\"token\":\"t\",\"account\":\"a\",\"secret\":\"s\","
                               "\"start_at\":\"1700000000\",\"camera_mac\":\"aabbcc\"}");
  auto& creds = zel::Messaging::get().get_credentials();
  ASSERT_EQ(creds.count("aabbcc1700000000"), 1u);
  const zel::CloudCredentials& c = creds["aabbcc1700000000"];
  EXPECT_EQ(c.token + c.account + c.secret, "tas");
  EXPECT_EQ(c.expires_at, zel::time_now() + 240);
}

TEST(Inbound, AThrowingHostCallbackGetsAnErrorReplyAndTheWorkerCarriesOn) {
  Cloud cloud;
  LogCapture log;
  zel::Upload::register_perform_action([](zel::ActionInfo a) -> MsgResponse {
    if (a.action == "jam") throw std::runtime_error("relay 4 jammed");
    return MsgResponse::Okay();
  });
  zel::Upload::register_ota_update([](zel::UpdateInfo) -> MsgResponse { throw 7; });
  Device device(cloud);
  const std::string failed = "{\"status\":\"ERROR\",\"details\":{\"error\":\"Host callback failed\"}}";
  struct Row {
    const char *subject, *contents, *id;
    std::string body;
  } rows[] = {{"action", "{\"action\":\"jam\"}", "t1", failed},
              {"update", "{}", "t2", failed},
              {"action", "{\"action\":\"open\"}", "t3", "{\"status\":\"OK\",\"details\":\"OK\"}"}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.id);
    cloud.request(row.subject, row.contents, row.id);
    EXPECT_EQ(stable(cloud.reply(row.id).value_or("")), envelope("zel-cloud", row.subject, row.body, row.id));
  }
  EXPECT_EQ(log.count("1|Handler for 'action' failed: relay 4 jammed\n"), 1u);
  EXPECT_EQ(device.disconnects, 0);
}

}  // namespace
}  // namespace zt

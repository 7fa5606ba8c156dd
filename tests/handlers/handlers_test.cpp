// The server's requests through the dispatcher: reply bodies, host callbacks, files written.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "foundation/time_utils.h"
#include "handlers/zel_handler.h"
#include "messaging/messaging.h"
#include "support/peer.h"

namespace zt {
namespace {

using zel::MsgResponse;
const char* const kCouldNotParse = "{\"error\": \"Could not parse contents\"}";
const char* const kNotImplemented = "{\"error\": \"Not implemented\"}";
// Optional members in their places, for a device with account, partner and serial number.
const std::string kFullVersion = "{\"version\":\"22.1.0\",\"account\":\"acme\",\"buildNumber\":1,\"partner\":"
                                 "\"p1\",\"buildDate\":\"202007080000\",\"serialNumber\":\"SN1\",\"architecture\":"
                                 "\"pelmo_linux64\",\"ui\":\"none\"}";

class Dispatch : public ::testing::Test {
 protected:
  void SetUp() override {
    cc.mac_address = kMac, cc.account = "acme", cc.partner = "p1", cc.serial_number = "SN1";
    cc.cert_path = dir.path + "/client.pem", cc.key_path = dir.path + "/client.key";
    zel::Messaging::get().prepare_for_tests(cc);
  }
  void TearDown() override { zel::Messaging::get().reset_for_tests(); }
  static MsgResponse dispatch(const std::string& subject, const std::string& contents) {
    zel::Messaging& m = zel::Messaging::get();
    std::lock_guard<std::recursive_timed_mutex> lock(m.get_work_mutex());
    return zel::ZelHandler::handleMessage(&m, subject, contents, nullptr);
  }
  TempDir dir;
  zel::CloudConnect cc;
  FrozenClock clock;
};

TEST_F(Dispatch, AnswersBySubject) {
  const std::string now = std::to_string(zel::time_now()) + "000";  // seconds read as milliseconds
  const std::string head = std::string("{\"mac\":\"") + kMacLower + "\",\"version\":" + kFullVersion,
                    memory = "\"memory\":{\"free\":4130213000,\"total\":4130213888},\"wan\":[],\"lan\":[]",
                    not_supported = "{\"from\":\"zel-upload-lib\",\"error\":\"Not supported subject: ";
  struct Row {
    const char *subject, *contents;
    bool ok;
    std::string body;
  } rows[] = {
      {"pong", "not json", true, ""},
      {"setSshPassword", "{\"password\":\"s3cret\"}", true, "\"OK\""},
      {"Pong", "{}", false, not_supported + "Pong\"}"},
      {"getStorageAccess", "{not json", false, kCouldNotParse},
      {"issueCertificate", "{}", false, kCouldNotParse},
      {"actions", "{}", false, kNotImplemented},
      {"updateFirmware", "{}", false, kNotImplemented},
      {"action", "{'action':'open'}", false, kCouldNotParse},
      {"details", "", true, head + "," + memory + ",\"time\":\"" + now + "\",\"recorder\":\"N/A\",\"builds\":"
       "\"N/A\",\"uname\":\"N/A\",\"pci_info\":\"N/A\",\"cpu_info\":\"N/A\",\"hw_fingerprint\":\"N/A\",\"who\":"
       "\"\",\"ps\":\"\",\"uptime\":\"0\"}"},
      {"status", "", true, head + ",\"online_count\":10,\"offline_count\":5," + memory + ",\"time\":\"" + now + "\"}"},
      {"version", "{\"account_id\":42}", true, kFullVersion},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.subject) + " " + row.contents);
    MsgResponse r = dispatch(row.subject, row.contents);
    EXPECT_EQ(r.ok, row.ok);
    EXPECT_EQ(r.content, row.body);
  }
}

// The host's answer, here the fields it got, is the reply as it stands.
TEST_F(Dispatch, HostCallbacksGetTheFields) {
  zel::Upload::register_list_actions([](std::string device) { return MsgResponse(device); });
  zel::Upload::register_perform_action([](zel::ActionInfo a) { return MsgResponse::Error(a.device + "|" + a.action + "|" + a.value); });
  zel::Upload::register_ota_update([](zel::UpdateInfo u) { return MsgResponse(u.url + "|" + u.hash + "|" + u.device + "|" + u.reserved); });
  zel::CloudStatus s;
  zel::Upload::register_cloud_status([&](zel::CloudStatus status) { s = status; });
  const std::pair<std::string, std::string> rows[] = {
      {"actions {\"options\":{\"device\":\"door-3\"}}", "door-3"},
      {"action {\"device\":\"relay-2\",\"action\":\"open\",\"value\":\"on\"}", "relay-2|open|\"on\""},
      {"action {\"action\":\"set\",\"value\": { \"level\" : 3 }}", "|set|{\"level\":3}"},
      {"update {\"url\":\"u1\",\"hash\":\"h1\",\"device\":\"nvr\",\"reserved\":\"r\"}", "u1|h1|nvr|"},
      {"updateFirmware {\"url\":\"u2\",\"hash\":7}", "u2|||"},
  };
  for (const auto& [request, answer] : rows)
    EXPECT_EQ(dispatch(request.substr(0, request.find(' ')), request.substr(request.find(' ') + 1)).content, answer);
  dispatch("version", "{\"registered\":true,\"enabled\":false,\"account_id\":42,\"partner_id\":7,\"device_uuid\":\"u\"}");
  EXPECT_EQ(std::make_tuple(s.registered, s.enabled, s.account_id, s.partner_id, s.device_uuid),
            std::make_tuple(true, false, 42, 7, std::string("u")));
  EXPECT_EQ(zel::Messaging::get().get_account_id(), 42);
}

// The certificate and key are replaced whole and as a pair, or not at all; a certificate
// alone replaces only itself. Nothing is left beside them.
TEST_F(Dispatch, IssuedCertificateAndKeyAreReplacedAsAPair) {
  mode_t old_umask = umask(022);
  auto mode = [](const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? static_cast<int>(st.st_mode & 0777) : -1;
  };
  auto member = [](const char* name, const std::string& text) { return std::string("\"") + name + "\":" + json_quote(text); };
  const std::string c = read_file(cert("client.pem")), k = read_file(cert("client.key")), other = read_file(cert("server.key"));
  const std::string failed = "{\"error\": \"Could not write certificate\"}";
  dir.file("client.pem", "old certificate");
  dir.file("client.key", "old key");
  struct Row {
    std::string members, reply, cert_file, key_file, cert_path = "";
  } rows[] = {
      {member("cert", c) + "," + member("key", other), failed, "old certificate", "old key"},
      {member("cert", c) + "," + member("key", k), failed, "old certificate", "old key", dir.path + "/missing/client.pem"},
      {member("cert", c) + "," + member("key", k), "\"OK\"", c, k},
      {member("cert", "C2"), "\"OK\"", "C2", k},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.members.substr(0, 40) + row.cert_path);
    cc.cert_path = row.cert_path.empty() ? dir.path + "/client.pem" : row.cert_path;
    zel::Messaging::get().prepare_for_tests(cc);
    EXPECT_EQ(dispatch("issueCertificate", "{\"contents\":{" + row.members + "}}").content, row.reply);
    EXPECT_EQ(read_file(dir.path + "/client.pem") + read_file(cc.key_path), row.cert_file + row.key_file);
  }
  EXPECT_EQ(mode(dir.path + "/client.pem"), 0644);
  EXPECT_EQ(mode(cc.key_path), 0600);
  EXPECT_EQ(std::system(("test $(ls -A " + dir.path + " | wc -l) = 2").c_str()), 0);
  umask(old_umask);
}

}  // namespace
}  // namespace zt

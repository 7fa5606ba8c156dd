// Through an HTTP proxy (tinyproxy on loopback): the link and the uploads, credentials,
// no_proxy, refusals, and a proxy that goes away while connected.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "clips/clip_recorder.h"
#include "foundation/time_utils.h"
#include "support/device_session.h"
#include "support/log_capture.h"
#include "support/tinyproxy.h"
#include "support/wire.h"
#include "upload/shared_emulator.h"
#include "upload/upload_test_util.h"

namespace zel_test {
namespace {

using namespace std::chrono_literals;

// The proxy password, the wrong one tried, and both as Basic tokens.
const char* const kSecrets[] = {"s3c.r3t-K9", "wr0ng-K9",
                                "YWxpY2U6czNjLnIzdC1LOQ==", "YWxpY2U6d3IwbmctSzk="};

// Every case runs with ZEL_DEBUG; nothing written anywhere may hold a secret.
class Proxy : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(upload_test::emulator().ensure_running() && az.create_container("00aabbccddee"));
    setenv("ZEL_DEBUG", "1", 1);
    err = std::make_unique<upload_test::StderrCapture>();
  }
  void TearDown() override {
    zel::Upload::set_proxy("");
    for (const char* name : {"https_proxy", "no_proxy", "ZEL_DEBUG"}) unsetenv(name);
    std::string all = err->text() + said;
    for (const std::string& line : log.lines()) all += line;
    for (const char* secret : kSecrets) EXPECT_EQ(all.find(secret), std::string::npos) << secret;
  }
  zel::CloudConnect params(CloudServer& server) {
    zel::CloudConnect cc = connect_params(server);
    cc.mac_address = "00AABBCCDDEE";  // also the blob container
    return cc;
  }
  // Has the server hand out storage credentials, sends one clip and gives its last state.
  int upload_clip(CloudServer& server) {
    server.set(R"({"auto_storage":true,"auto_ack":true,"storage_account":"devstoreaccount1",)"
               R"("storage_secret":"clip-secret","storage_token":")" +
               az.account_sas() + "\"}");
    clip_test::ClipRecorder rec;
    zel::Upload::upload_clip(
        {clip, "0A1B2C3D4E5F", 1614600000, 1614600060, 50000, {}, "", rec.callback()});
    EXPECT_TRUE(rec.wait_for_final(30s));
    for (int state : rec.states()) said += rec.message_of(state) + "\n";
    return rec.states().empty() ? -1 : rec.states().back();
  }
  // What the server saw of the handshake and the first messages, comparable across runs.
  std::vector<std::string> first_bytes(CloudServer& server) {
    std::vector<std::string> seen{stable(wait_sent(server, "version", 0).value_or("")),
                                  stable(wait_sent(server, "transaction", 0).value_or(""))};
    for (const auto& e : server.events())
      for (const auto& [name, value] : e.headers)  // connect events only
        if (name != "sec-websocket-key")
          seen.push_back(name + ": " + value + e.origin + e.path + (e.client_cert ? "+" : ""));
    return seen;
  }

  std::string blob_host() { return "devstoreaccount1.blob.localhost:" + std::to_string(az.port()); }

  zel_test::Azurite& az = upload_test::emulator().az;
  std::string clip = upload_test::make_clip("proxied.mp4", 50000);
  std::unique_ptr<upload_test::StderrCapture> err;
  LogCapture log;
  std::string said;  // every clip message
};

TEST_F(Proxy, LinkAndUploadPassUnchangedAndTheLinkOutlivesAProxyRestart) {
  std::vector<std::string> direct;
  {
    CloudServer server;
    DeviceSession device(server, params(server), {"cam-1"});
    direct = first_bytes(server);
  }
  Tinyproxy proxy;
  setenv("https_proxy", proxy.uri().c_str(), 1);
  CloudServer server;
  DeviceSession device(server, params(server), {"cam-1"});
  EXPECT_EQ(first_bytes(server), direct);
  EXPECT_EQ(upload_clip(server), zel::CLIP_CONFIRMED) << said;
  EXPECT_EQ(proxy.connects_to("127.0.0.1:" + std::to_string(server.port())), 1u);
  EXPECT_EQ(proxy.connects_to(blob_host()), 1u);
  std::string blob = az.get_blob("00aabbccddee/0a1b2c3d4e5f/2021-03-01/1614600000.mp4");
  EXPECT_EQ(upload_test::openssl_decrypt(blob, "clip-secret"), upload_test::read_file(clip));

  proxy.stop();
  ASSERT_TRUE(server.wait_for_close(5s));
  proxy.start();
  auto back = std::chrono::steady_clock::now();
  ASSERT_TRUE(server.wait_for_connects(2, 8s));
  EXPECT_LE(std::chrono::steady_clock::now() - back, 5500ms);
}

TEST_F(Proxy, CredentialsAndNoProxyDecideEachPathOnItsOwn) {
  Tinyproxy proxy("BasicAuth alice s3c.r3t-K9");
  // The link through the proxy and the upload straight, then the other way round; tinyproxy
  // answers wrong credentials with 401.
  for (auto [userinfo, no_proxy, link_through, state, message] :
       {std::tuple{"alice:s3c%2Er3t-K9", "other.example, .blob.localhost", 1u, 6,
                   std::string("Uploaded")},
        {"alice:wr0ng-K9", "127.0.0.1", 0u, 7,
         " - Proxy 127.0.0.1:" + std::to_string(proxy.port) +
             " refused CONNECT with status 401\n"}}) {
    setenv("no_proxy", no_proxy, 1);
    ASSERT_TRUE(zel::Upload::set_proxy(proxy.uri(userinfo)));
    size_t blob_tunnels = proxy.connects_to(blob_host());
    CloudServer server;
    DeviceSession device(server, params(server));
    EXPECT_EQ(upload_clip(server), state) << said;
    EXPECT_THAT(said, ::testing::HasSubstr(message));
    EXPECT_EQ(proxy.connects_to("127.0.0.1:" + std::to_string(server.port())), link_through);
    EXPECT_EQ(proxy.connects_to(blob_host()) - blob_tunnels, 1u - link_through);
  }
}

TEST_F(Proxy, RefusedOrAbsentProxyIsLoggedAndRetriedEveryFiveSeconds) {
  Tinyproxy auth("BasicAuth alice s3c.r3t-K9"), forbidding("ConnectPort 1"), gone;
  gone.stop();
  EXPECT_FALSE(zel::Upload::set_proxy("socks5://" + gone.uri().substr(7)));
  for (auto [proxy, userinfo, what] : {std::tuple{&auth, "", "refused CONNECT with status 407"},
                                       {&forbidding, "", "refused CONNECT with status 403"},
                                       {&gone, "", "unreachable"}}) {
    ASSERT_TRUE(zel::Upload::set_proxy(proxy->uri(userinfo)));
    CloudServer server;
    DeviceSession device(server, params(server), {}, false);
    std::string line = "Proxy 127.0.0.1:" + std::to_string(proxy->port) + " " + what + "\n";
    ASSERT_TRUE(log.wait_for(line, 5s));
    zel::advance_clock(5);
    EXPECT_TRUE(log.wait_for(line, 5s, 2));
    EXPECT_FALSE(server.wait_for_connects(1, 100ms));
  }
}

}  // namespace
}  // namespace zel_test

// Through an HTTP proxy (tinyproxy on loopback): the link and the uploads, credentials,
// no_proxy, refusals, and a proxy that goes away while connected.
#include <gtest/gtest.h>

#include <regex>

#include "foundation/time_utils.h"
#include "messaging/messaging.h"
#include "support/peer.h"

namespace zt {
namespace {

// tinyproxy run by tools/cloud/http_proxy.py; "stop" kills it as a crash would.
struct Tinyproxy {
  explicit Tinyproxy(std::vector<std::string> args = {})
      : peer("http_proxy.py", (args.insert(args.end(), {"--machine", dir.path}), args)) {}
  long port() { return peer.listening().num("port"); }
  std::string uri(const std::string& user = "") { return "http://" + user + (user.empty() ? "" : "@") + "127.0.0.1:" + std::to_string(port()); }
  long connects_to(const std::string& host_port) { return peer.command("{\"cmd\":\"tunnels\",\"to\":\"" + host_port + "\"}").num("count"); }
  TempDir dir;
  Peer peer;
};

// The proxy password, the wrong one tried, and both as Basic tokens.
const char* const kSecrets[] = {"s3c.r3t-K9", "wr0ng-K9", "YWxpY2U6czNjLnIzdC1LOQ==", "YWxpY2U6d3IwbmctSzk="};

// Every case runs with ZEL_DEBUG and keeps every line the library writes (libcurl's verbose
// output included) and every clip message: none may hold a secret.
class Proxy : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("ZEL_DEBUG", "1", 1);
    zel::Upload::register_log([this](int, const std::string& line) { note(line); });
  }
  void TearDown() override {
    zel::Upload::register_log(nullptr), zel::Upload::set_proxy("");
    for (const char* name : {"https_proxy", "no_proxy", "ZEL_DEBUG"}) unsetenv(name);
    for (const char* secret : kSecrets) EXPECT_EQ(log().find(secret), std::string::npos) << secret;
  }
  int upload() {  // one clip; its last state
    Reports r;
    zel::Upload::upload_clip({clip, "0A1B2C3D4E5F", 1614600000, 1614600060, 50000, {}, "", r.callback()});
    eventually([&] { return r.states().size() > 0 && r.states().back() >= zel::CLIP_CONFIRMED; }, 30s);
    for (int state : r.states()) note(r.message(state));
    return r.states().empty() ? -1 : r.states().back();
  }
  // The handshake and the first messages as the server saw them, comparable across runs.
  std::string seen(Cloud& cloud) {
    auto hello = cloud.wait([](const Event& e) { return e.kind == "connect"; });
    std::string port = std::to_string(cloud.listening().num("port"));
    return std::regex_replace(hello ? hello->raw : "", std::regex("\"Sec-WebSocket-Key\": \"[^\"]*\"|" + port), "") +
           stable(cloud.sent("version").value_or("")) + stable(cloud.sent("transaction").value_or(""));
  }
  std::string link_host(Cloud& cloud) { return "127.0.0.1:" + std::to_string(cloud.listening().num("port")); }
  std::string blob_host() { return "devstoreaccount1" + storage().listening().str("blob_domain"); }
  void note(const std::string& line) { std::lock_guard<std::mutex> lock(mu); said += line + "\n"; }
  std::string log() { std::lock_guard<std::mutex> lock(mu); return said; }  // library threads write on
  std::mutex mu;
  std::string said;
  TempDir dir;
  std::string clip = dir.file("proxied.mp4", random_bytes(50000, 5));
};

TEST_F(Proxy, LinkAndUploadPassUnchangedAndTheLinkOutlivesAProxyRestart) {
  std::string direct;
  {
    Cloud cloud{true, storage_flags(storage_token(), "clip-secret")};
    Device device(cloud, cloud.params(kUploadMac), {"cam-1"});
    direct = seen(cloud);
  }
  Tinyproxy proxy;
  setenv("https_proxy", proxy.uri().c_str(), 1);
  Cloud cloud{true, storage_flags(storage_token(), "clip-secret")};
  Device device(cloud, cloud.params(kUploadMac), {"cam-1"});
  EXPECT_EQ(seen(cloud), direct);
  EXPECT_EQ(upload(), zel::CLIP_CONFIRMED) << log();
  EXPECT_EQ(proxy.connects_to(link_host(cloud)), 1);
  EXPECT_EQ(proxy.connects_to(blob_host()), 1);
  Event blob = storage().command("{\"cmd\":\"blob\",\"path\":\"0011223344aa/0a1b2c3d4e5f/2021-03-01/1614600000.mp4\"}");
  EXPECT_EQ(blob.str("sha256"), sha256_hex(openssl_enc(clip, "clip-secret")));

  ASSERT_TRUE(proxy.peer.ok("{\"cmd\":\"stop\"}"));
  ASSERT_NE(cloud.close_code(0, 5s), -1);
  ASSERT_TRUE(proxy.peer.ok("{\"cmd\":\"start\"}"));
  const long offset = zel::clock_offset();
  next_attempt_now();
  EXPECT_TRUE(cloud.sent("version", 1, 5s));
  zel::advance_clock(offset - zel::clock_offset());
}

TEST_F(Proxy, CredentialsAndNoProxyDecideEachPathOnItsOwn) {
  Tinyproxy proxy({"--auth", "alice:s3c.r3t-K9"});
  // The link through the proxy and the upload straight, then the other way round; tinyproxy
  // answers wrong credentials with 401.
  for (auto [userinfo, no_proxy, link_through, state, message] :
       {std::tuple{"alice:s3c%2Er3t-K9", "other.example, .blob.localhost", 1L, 6, std::string("Uploaded")},
        {"alice:wr0ng-K9", "127.0.0.0/8", 0L, 7,
         " - Proxy 127.0.0.1:" + std::to_string(proxy.port()) + " refused CONNECT with status 401\n"}}) {
    setenv("no_proxy", no_proxy, 1);
    ASSERT_TRUE(zel::Upload::set_proxy(proxy.uri(userinfo)));
    long blob_tunnels = proxy.connects_to(blob_host());
    Cloud cloud{true, storage_flags(storage_token(), "clip-secret")};
    Device device(cloud, cloud.params(kUploadMac));
    EXPECT_EQ(upload(), state) << log();
    EXPECT_NE(log().find(message), std::string::npos) << log();
    EXPECT_EQ(proxy.connects_to(link_host(cloud)), link_through);
    EXPECT_EQ(proxy.connects_to(blob_host()) - blob_tunnels, 1 - link_through);
  }
  EXPECT_NE(log().find("> Proxy-Authorization: [hidden]"), std::string::npos);  // libcurl's, as shown
}

TEST_F(Proxy, RefusedOrAbsentProxyIsLoggedAndRetriedEveryFiveSeconds) {
  Tinyproxy auth({"--auth", "alice:s3c.r3t-K9"}), forbidding({"--conf", "ConnectPort 1"}), gone;
  gone.peer.ok("{\"cmd\":\"stop\"}");
  LogCapture log;
  for (auto [proxy, what] : {std::pair{&auth, "refused CONNECT with status 407"},
                             {&forbidding, "refused CONNECT with status 403"}, {&gone, "unreachable"}}) {
    ASSERT_TRUE(zel::Upload::set_proxy(proxy->uri()));
    Cloud cloud;
    ASSERT_TRUE(zel::Upload::connect(cloud.params(), nullptr, nullptr, {}));
    std::string line = "1|Proxy 127.0.0.1:" + std::to_string(proxy->port()) + " " + what + "\n";
    EXPECT_TRUE(log.wait(line, 1, 5s));
    const long offset = zel::clock_offset();
    next_attempt_now();
    EXPECT_TRUE(log.wait(line, 2, 5s));
    zel::advance_clock(offset - zel::clock_offset());
    EXPECT_FALSE(cloud.wait([](const Event& e) { return e.kind == "connect"; }, 0, 100ms));
    EXPECT_TRUE(zel::Upload::disconnect());
    zel::Messaging::get().reset_for_tests();
  }
}

}  // namespace
}  // namespace zt

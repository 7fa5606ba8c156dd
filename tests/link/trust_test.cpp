// Trust beyond the chain: host names, pinned keys, a bundle of roots and a clock not yet set,
// against the local cloud's servers presenting certificates of each kind (make_certs.sh).
#include <gtest/gtest.h>

#include "foundation/time_utils.h"
#include "support/peer.h"

namespace zt {
namespace {

std::string pin(const std::string& name) { return read_file(cert((name + ".pin").c_str())).substr(0, 44); }
std::string clock_line(const char* reads) {
  return std::string("1|System clock is not set (it reads ") + reads + "): certificates cannot be checked until it is\n";
}
const std::string kChainRefused = "1|Connection LWS_CALLBACK_CLIENT_CONNECTION_ERROR\n";

struct Trust : ::testing::Test {
  void TearDown() override { EXPECT_TRUE(zel::Upload::set_tls_policy({})); }
};

// Each server certificate with a ca_path and a policy connects or is refused with its reason.
TEST_F(Trust, HostNamesPinsAndRootsDecideTheLink) {
  LogCapture log;
  for (std::string bad : {std::string("abc"), pin("server").substr(0, 43) + "x", pin("server") + ";x"})
    EXPECT_FALSE(zel::Upload::set_tls_policy({false, {}, {bad}})) << bad;  // malformed pins never apply
  EXPECT_TRUE(log.wait("1|TLS policy not changed: pin \"abc\" is not the base64 of a SHA-256\n"));
  struct Row { const char *served, *ca; zel::TlsPolicy policy; std::string refusal; /* "" connects */ } rows[] = {
      {"other", "ca.pem", {}, ""},  // another name of the same CA: the default takes it
      {"other", "ca.pem", {true, {}, {}}, "1|Server certificate does not match host 127.0.0.1\n"},
      {"server", "ca.pem", {true, {}, {}}, ""},  // its IP address entry matches the IP URI
      {"server", "ca.pem", {false, {pin("blob"), pin("server")}, {}}, ""},
      {"server", "ca.pem", {false, {pin("blob")}, {}}, "1|No certificate in the server's chain matches a pinned key\n"},
      {"chain", "ca.pem", {true, {pin("inter")}, {}}, ""},
      {"chain", "ca.pem", {false, {pin("ca")}, {}}, ""},  // the root from ca_path counts
      {"server", "roots.pem", {}, ""},
      {"root2", "roots.pem", {}, ""},
      {"root2", "ca.pem", {}, kChainRefused},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.served) + " " + row.ca + " " + row.refusal);
    FrozenClock clock;
    Cloud cloud(true, "{}", row.served);
    ASSERT_TRUE(zel::Upload::set_tls_policy(row.policy));
    zel::CloudConnect cc = cloud.params();
    cc.ca_path = cert(row.ca);
    size_t before = log.count(row.refusal);
    ASSERT_TRUE(zel::Upload::connect(cc, [] {}, [] {}, {}));
    // Refused: logged, and again on the next attempt.
    EXPECT_TRUE(row.refusal.empty() || (log.wait(row.refusal, before + 1) && (next_attempt_now(), log.wait(row.refusal, before + 2))));
    EXPECT_EQ(cloud.sent("version", 0, row.refusal.empty() ? 10s : 0s).has_value(), row.refusal.empty());
    EXPECT_TRUE(zel::Upload::disconnect());
  }
}

// A recorder without a battery-backed clock boots in 1970: every handshake fails, and it says
// why once a minute until the clock is set; then it connects on the next attempt.
TEST_F(Trust, AClockIn1970IsSaidPlainlyAndTheLinkComesUpOnceItIsSet) {
  FrozenClock clock;
  LogCapture log;
  Cloud cloud;
  const long now = zel::time_now();
  zel::advance_clock(12 - now);
  ASSERT_TRUE(zel::Upload::connect(cloud.params(), [] {}, [] {}, {}));
  EXPECT_TRUE(log.wait(clock_line("1970-01-01T00:00:12Z")) && zel::Upload::stats().clock_unset);
  const long waited = next_attempt_now();  // 5 to 10 s later: not said again within the minute
  EXPECT_TRUE(log.wait(kChainRefused, 2) && log.count(clock_line(zel::toISOTime(12 + waited).c_str())) == 0);
  zel::advance_clock(60 - waited);
  EXPECT_TRUE(log.wait(clock_line("1970-01-01T00:01:12Z")));
  zel::advance_clock(now - 72);
  EXPECT_TRUE(cloud.sent("version", 0, 10s) && !zel::Upload::stats().clock_unset);
  EXPECT_TRUE(zel::Upload::disconnect());
}

// The blob emulator has a key of its own: the storage pins judge it alone, through the bundle
// of roots; a wrong one fails the clip, naming the pin, while the pinned link stays up.
TEST_F(Trust, StoragePinsJudgeTheBlobServerAndAWrongOneFailsTheClipNotTheLink) {
  TempDir dir;
  const std::string clip = dir.file("pinned.mp4", random_bytes(20000, 9));
  const std::pair<std::string, std::string> rows[] = {
      {pin("blob"), "Uploaded: " + clip},
      {pin("server"), "curl_easy_perform() failed: SSL public key does not match pinned public key"}};
  for (const auto& [storage_pin, message] : rows) {
    ASSERT_TRUE(zel::Upload::set_tls_policy({true, {pin("server")}, {storage_pin}}));
    Cloud cloud{true, storage_flags(storage_token(), "clip-secret")};
    zel::CloudConnect cc = cloud.params(kUploadMac);
    Device device(cloud, (cc.ca_path = cert("roots.pem"), cc));
    EXPECT_FALSE(zel::Upload::set_tls_policy({}));  // not while connected
    Reports r;
    zel::Upload::upload_clip({clip, "0A1B2C3D4E5F", 1614600000, 1614600060, 20000, {}, "", r.callback()});
    const int state = storage_pin == pin("blob") ? zel::CLIP_UPLOADED : zel::CLIP_FAILED;
    ASSERT_TRUE(r.wait(state));
    EXPECT_EQ(r.message(state).substr(0, message.size()), message);
    EXPECT_TRUE(zel::Upload::stats().link_up && device.disconnects == 0);
  }
}

}  // namespace
}  // namespace zt

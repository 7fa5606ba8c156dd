// Trust beyond the chain: host names, pinned keys, a bundle of roots and a clock not yet set,
// against the local cloud's servers presenting certificates of each kind (make_certs.sh).
#include <gtest/gtest.h>

#include "foundation/time_utils.h"
#include "support/peer.h"

namespace zt {
namespace {

std::string pin(const std::string& name) { return read_file(cert((name + ".pin").c_str())).substr(0, 44); }

const std::string kHostRefused = "1|Server certificate does not match host 127.0.0.1\n";
const std::string kPinRefused = "1|No certificate in the server's chain matches a pinned key\n";
const std::string kChainRefused = "1|Connection LWS_CALLBACK_CLIENT_CONNECTION_ERROR\n";

class Trust : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_TRUE(zel::Upload::set_tls_policy({})); }
};

// Each server certificate with a ca_path and a policy: it connects, or is refused with the
// reason logged, and refused again on the next attempt 5 s later.
TEST_F(Trust, HostNamesPinsAndRootsDecideTheLink) {
  struct Row {
    const char* served;
    const char* ca;
    zel::TlsPolicy policy;
    std::string refusal;  // "" connects
  } rows[] = {
      {"other", "ca.pem", {}, ""},  // another name of the same CA: the design's default takes it
      {"other", "ca.pem", {true, {}, {}}, kHostRefused},
      {"server", "ca.pem", {true, {}, {}}, ""},  // its IP address entry matches the IP URI
      {"server", "ca.pem", {false, {pin("blob"), pin("server")}, {}}, ""},
      {"server", "ca.pem", {false, {pin("blob")}, {}}, kPinRefused},
      {"chain", "ca.pem", {true, {pin("inter")}, {}}, ""},
      {"chain", "ca.pem", {false, {pin("ca")}, {}}, ""},  // the root from ca_path counts
      {"server", "roots.pem", {}, ""},
      {"root2", "roots.pem", {}, ""},
      {"root2", "ca.pem", {}, kChainRefused},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.served) + " " + row.ca + " " + row.refusal);
    FrozenClock clock;
    LogCapture log;
    Cloud cloud(true, "{}", row.served);
    ASSERT_TRUE(zel::Upload::set_tls_policy(row.policy));
    zel::CloudConnect cc = cloud.params();
    cc.ca_path = cert(row.ca);
    ASSERT_TRUE(zel::Upload::connect(cc, [] {}, [] {}, {}));
    if (row.refusal.empty()) {
      EXPECT_TRUE(cloud.sent("version", 0, 10s));
    } else {
      EXPECT_TRUE(log.wait(row.refusal));
      zel::advance_clock(5);
      EXPECT_TRUE(log.wait(row.refusal, 2));
      EXPECT_FALSE(cloud.sent("version", 0, 0ms));
    }
    EXPECT_TRUE(zel::Upload::disconnect());
  }
}

TEST_F(Trust, PolicyIsRefusedWithAMalformedPinOrWhileConnected) {
  LogCapture log;
  for (std::string bad : {std::string("abc"), pin("server").substr(0, 43) + "x", pin("server") + ";sha256//x"})
    EXPECT_FALSE(zel::Upload::set_tls_policy({false, {}, {bad}})) << bad;
  EXPECT_TRUE(log.wait("1|TLS policy not changed: pin \"abc\" is not the base64 of a SHA-256\n"));
  ASSERT_TRUE(zel::Upload::set_tls_policy({false, {pin("server")}, {}}));
  Cloud cloud;
  Device device(cloud);
  EXPECT_FALSE(zel::Upload::set_tls_policy({}));
  EXPECT_EQ(log.count("1|TLS policy not changed: set it before connect\n"), 1u);
}

// A recorder without a battery-backed clock boots in 1970: every handshake fails, and it says
// why once a minute until the clock is set; then it connects on the next attempt.
TEST_F(Trust, AClockIn1970IsSaidPlainlyAndTheLinkComesUpOnceItIsSet) {
  FrozenClock clock;
  LogCapture log;
  Cloud cloud;
  const long now = zel::time_now();
  zel::advance_clock(12 - now);
  const std::string said = "1|System clock is not set (it reads 1970-01-01T00:00:12Z): certificates cannot be "
                           "checked until it is\n";
  ASSERT_TRUE(zel::Upload::connect(cloud.params(), [] {}, [] {}, {}));
  EXPECT_TRUE(log.wait(said));
  EXPECT_TRUE(zel::Upload::stats().clock_unset);
  zel::advance_clock(5);
  EXPECT_TRUE(log.wait(kChainRefused, 2));
  EXPECT_EQ(log.count(said), 1u);
  zel::advance_clock(55);
  EXPECT_TRUE(log.wait("1|System clock is not set (it reads 1970-01-01T00:01:12Z): certificates cannot be "
                       "checked until it is\n"));
  zel::advance_clock(now - 72);
  EXPECT_TRUE(cloud.sent("version", 0, 10s));
  EXPECT_FALSE(zel::Upload::stats().clock_unset);
  EXPECT_TRUE(zel::Upload::disconnect());
}

// The blob emulator has a key of its own: the storage pins judge it alone, through the bundle
// of roots; a wrong one fails the clip, naming the pin, while the pinned link stays up.
TEST_F(Trust, StoragePinsJudgeTheBlobServerAndAWrongOneFailsTheClipNotTheLink) {
  TempDir dir;
  std::string clip = dir.file("pinned.mp4", random_bytes(20000, 9));
  struct Row {
    std::string storage_pin;
    int last_state;
    std::string message;
  } rows[] = {
      {pin("blob"), zel::CLIP_UPLOADED, "Uploaded: " + clip},
      {pin("server"), zel::CLIP_FAILED, "curl_easy_perform() failed: SSL public key does not match pinned public key"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.storage_pin);
    ASSERT_TRUE(zel::Upload::set_tls_policy({true, {pin("server")}, {row.storage_pin}}));
    Cloud cloud{true, storage_flags(storage_token(), "clip-secret")};
    zel::CloudConnect cc = cloud.params(kUploadMac);
    cc.ca_path = cert("roots.pem");
    Device device(cloud, cc);
    Reports r;
    zel::Upload::upload_clip({clip, "0A1B2C3D4E5F", 1614600000, 1614600060, 20000, {}, "", r.callback()});
    ASSERT_TRUE(r.wait(row.last_state));
    EXPECT_EQ(r.message(row.last_state).substr(0, row.message.size()), row.message);
    EXPECT_TRUE(zel::Upload::stats().link_up);
    EXPECT_EQ(device.disconnects, 0);
  }
}

}  // namespace
}  // namespace zt

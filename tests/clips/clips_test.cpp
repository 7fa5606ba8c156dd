// The clip pipeline: intake checks, the pending limit, credentials, expiry and the record
// messages driven on the tables at exact boundaries (clock frozen), then whole clips
// against the messaging server and blob storage, openssl judging the stored bytes.
#include <gtest/gtest.h>
#include <unistd.h>

#include <stdexcept>

#include "foundation/time_utils.h"
#include "messaging/messaging.h"
#include "support/cloud.h"

namespace zt {
namespace {

constexpr int64_t kStart = 1614600000;  // 2021-03-01T12:00:00Z

// Every state a clip reports, in order, with its message.
class Reports {
 public:
  zel::ClipCallback callback() {
    return [this](int state, const zel::ClipInfo&, std::string message) {
      std::lock_guard<std::mutex> lock(mu_);
      seen_.emplace_back(state, std::move(message));
    };
  }
  std::vector<int> states() {
    std::lock_guard<std::mutex> lock(mu_);
    std::vector<int> out;
    for (const auto& r : seen_) out.push_back(r.first);
    return out;
  }
  std::string message(int state) {
    std::lock_guard<std::mutex> lock(mu_);
    for (const auto& r : seen_)
      if (r.first == state) return r.second;
    return "<never>";
  }
  bool wait(int state, Ms timeout = 30s) {
    return eventually([&] { return message(state) != "<never>"; }, timeout);
  }

 private:
  std::mutex mu_;
  std::vector<std::pair<int, std::string>> seen_;
};

zel::ClipInfo clip(const std::string& path, int64_t start, Reports& r) {
  zel::ClipInfo c;
  c.path = path;
  c.camera_mac = "0A1B2C3D4E5F";
  c.start_time = start;
  c.end_time = start + 60;
  c.size = static_cast<int64_t>(read_file(path).size());
  c.keyframe_times = {0, 2.5, 7654321};
  c.metadata = "meta-1";
  c.callback = r.callback();
  return c;
}

using States = std::vector<int>;

class Intake : public ::testing::Test {
 protected:
  void SetUp() override { m.reset_for_tests(); }
  void TearDown() override { m.reset_for_tests(); }
  zel::Messaging& m = zel::Messaging::get();
  FrozenClock clock;
  TempDir dir;
};

TEST_F(Intake, ChecksComeInOrderWithTheirMessages) {
  std::string path = dir.file("ok.mp4", "abc");
  std::string big = dir.file("big.mp4", "");
  struct Row {
    std::function<void(zel::ClipInfo&)> spoil;
    const char* message;
  } rows[] = {
      {[](zel::ClipInfo& c) { c.end_time = c.start_time; c.path.clear(); }, "Start time >= End time"},
      {[](zel::ClipInfo& c) { c.camera_mac.clear(); c.path.clear(); }, "Camera mac address is empty"},
      {[](zel::ClipInfo& c) { c.path.clear(); }, "Path is empty"},
      {[&](zel::ClipInfo& c) { c.path = dir.path + "/missing"; }, "Issue reading the file"},
      {[](zel::ClipInfo& c) { c.size = 5; }, "File sizes differ expected: 5 got: 3"},
      {[&](zel::ClipInfo& c) { c.path = big, c.size = 256000001, truncate(big.c_str(), c.size); },
       "File size is too large: 256000001"},
      {[&](zel::ClipInfo& c) { c.path = big, c.size = 256000000, truncate(big.c_str(), c.size); }, ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.message);
    Reports r;
    zel::ClipInfo c = clip(path, kStart, r);
    row.spoil(c);
    m.upload_clip(c);
    EXPECT_EQ(r.states(), *row.message ? States{zel::CLIP_REJECTED} : States{zel::CLIP_QUEUED});
    if (*row.message) {
      EXPECT_EQ(r.message(zel::CLIP_REJECTED), row.message);
    }
    m.clear_queued_clips();
  }
  Reports first;
  m.upload_clip(clip(path, kStart + 1, first));
  m.clear_queued_clips();
  EXPECT_EQ(first.states(), (States{zel::CLIP_QUEUED, zel::CLIP_FAILED}));
  EXPECT_EQ(first.message(zel::CLIP_FAILED), "User cancelled");
}

// One pending clip per upload thread; credentials that came before their clip left the
// queue start it in the same pass, and are kept 240 s under the lower-case MAC.
TEST_F(Intake, PendingLimitAndCredentialsThatCameFirst) {
  std::string path = dir.file("p.mp4", "0123456789");
  Reports a, b;
  std::lock_guard<std::recursive_mutex> lock(m.get_work_mutex());
  m.set_credentials(zel::CloudCredentials{"acct", "tok", "sec", std::to_string(kStart), "0a1b2c3d4e5f", 0});
  EXPECT_EQ(m.get_credentials().at("0a1b2c3d4e5f" + std::to_string(kStart)).expires_at, zel::time_now() + 240);
  m.upload_clip(clip(path, kStart, a));
  m.upload_clip(clip(path, kStart + 100, b));
  m.process_clip();
  m.process_clip();
  EXPECT_EQ(a.states(), (States{0, 2, 3}));
  EXPECT_EQ(b.states(), (States{0}));
  EXPECT_EQ(m.get_pending_clips().at("0a1b2c3d4e5f" + std::to_string(kStart)).credentials.token, "tok");
}

TEST_F(Intake, ExpiryBoundaries) {
  LogCapture log;
  std::lock_guard<std::recursive_mutex> lock(m.get_work_mutex());
  const int64_t now = zel::time_now();
  Reports waited_10, waited_11, late, never;
  auto entry = [&](Reports& r, int64_t age, bool uploaded, int confirm_timeout = 30) {
    zel::PendingClip p;
    p.clip.camera_mac = "cam";
    p.clip.callback = r.callback();
    p.last_change = now - age;
    p.in_flight = uploaded;
    p.state = uploaded ? zel::CLIP_UPLOADED : zel::CLIP_WAITING_CREDENTIALS;
    p.opts.confirm_timeout = confirm_timeout;
    return p;
  };
  m.get_pending_clips()["w10"] = entry(waited_10, 10, false);
  m.get_pending_clips()["w11"] = entry(waited_11, 11, false);
  m.get_unacked_clips()["late"] = entry(late, 11, true);
  m.get_unacked_clips()["never"] = entry(never, 11, true, 0);  // 0: no confirmation time-out
  m.get_credentials()["a"] = zel::CloudCredentials{"", "", "", "100", "camA", now};
  m.get_credentials()["b"] = zel::CloudCredentials{"", "", "", "200", "camB", now - 1};
  m.expire_clip();
  m.expire_clip();
  EXPECT_EQ(waited_10.states(), States{});
  EXPECT_EQ(waited_11.states(), States{zel::CLIP_FAILED});
  EXPECT_EQ(waited_11.message(7), "Credentials took more than 10 seconds");
  EXPECT_EQ(late.states(), States{zel::CLIP_FAILED});  // once only
  EXPECT_EQ(late.message(7), "Upload confirmation took more than 10 seconds");
  EXPECT_EQ(never.states(), States{});
  EXPECT_EQ(m.get_credentials().count("a"), 1u);  // expiring this very second: kept
  EXPECT_EQ(m.get_credentials().count("b"), 0u);
  EXPECT_EQ(log.count("2|Credentials for camB/200 expired.\n"), 1u);

  // Over 1000 confirmations outstanding, the recently changed entries go, in key order.
  m.get_unacked_clips().clear();
  for (int i = 0; i < 1003; ++i) {
    Reports unused;
    zel::PendingClip p = entry(unused, i % 2 ? 299 : 300, false, 0);
    p.clip.callback = nullptr;
    p.clip.start_time = i;
    m.get_unacked_clips()[std::string("k") + char('0' + i / 1000) + std::to_string(1000 + i % 1000)] = p;
  }
  m.expire_clip();
  m.expire_clip();
  EXPECT_EQ(m.get_unacked_clips().size(), 1000u);
  for (const char* key : {"k01001", "k01003", "k01005"}) EXPECT_EQ(m.get_unacked_clips().count(key), 0u) << key;
  EXPECT_EQ(m.get_unacked_clips().count("k01007"), 1u);
  EXPECT_EQ(log.count("2|Transaction for cam/1 expired.\n"), 1u);
}

TEST_F(Intake, RecordMessagesKeepTheirFormat) {
  zel::PendingClip p;
  p.clip.camera_mac = "0a1b2c3d4e5f";
  p.clip.start_time = kStart;
  p.clip.end_time = kStart + 60;
  p.clip.size = 4096;
  p.clip.metadata = "m";
  p.clip.keyframe_times = {0, 2.5, 7654321};
  p.last_change = kStart + 100;
  p.uploaded_bytes = 4112;
  const std::string now = zel::getISOTime();
  EXPECT_EQ(m.upload_record_start(p),
            "{\"type\":\"storage_access_request\",\"subject\":\"storage_access_request\",\"nvrId\":\"\","
            "\"provider\":\"azure\",\"properties\":{\"provider\":\"azure\",\"cameraMac\":\"0a1b2c3d4e5f\","
            "\"start_at\":\"2021-03-01T12:00:00Z\",\"end_at\":\"2021-03-01T12:01:00Z\",\"bytes\":\"4096\","
            "\"created_at\":\"" + now + "\",\"updated_at\":\"" + now + "\"}}");
  EXPECT_EQ(m.upload_record_end(p),
            "{\"topic\":\"transaction\",\"model\":\"archive\",\"method\":\"changed\",\"nvrMac\":\"\","
            "\"apiVersion\":\"2\",\"properties\":{\"mac_address\":\"0a1b2c3d4e5f\",\"start_at\":"
            "\"2021-03-01T12:00:00Z\",\"end_at\":\"2021-03-01T12:01:00Z\",\"created_at\":\"" + now +
            "\",\"updated_at\":\"" + now + "\",\"upload_start_at\":\"2021-03-01T12:01:40Z\","
            "\"upload_end_at\":\"" + now + "\",\"keyframe_times\":\"[0,2.5,7.65432e+06]\",\"metadata\":"
            "\"m\",\"duration\":\"60\",\"bytes\":\"4112\"},\"subject\":\"transaction\"}");
}

// The messaging server answers storage requests with credentials for blob storage and
// acknowledges record-end transactions, as far as the test lets it.
class Pipeline : public ::testing::Test {
 protected:
  void answer(bool storage, bool ack) {
    EXPECT_TRUE(cloud.ok(std::string("{\"cmd\":\"set\",\"auto_storage\":") + (storage ? "true" : "false") +
                         ",\"auto_ack\":" + (ack ? "true" : "false") + ",\"storage_token\":\"" +
                         storage_token() + "\",\"storage_secret\":\"clip-secret-1\"}"));
  }
  zel::CloudConnect params() {
    zel::CloudConnect cc = cloud.params();
    cc.mac_address = "0011223344AA";  // the blob container is the lower-cased MAC
    return cc;
  }
  bool archives(size_t n) {
    return eventually([&] { return cloud.count([](const Event& e) {
      return e.kind == "message" && e.text.find("\"model\":\"archive\"") != std::string::npos; }) == n; });
  }
  Cloud cloud;
  TempDir dir;
};

TEST_F(Pipeline, OneClipRunsFromIntakeToConfirmation) {
  answer(true, true);
  LogCapture log;
  Device device(cloud, params());
  std::string path = dir.file("whole.mp4", random_bytes(100000, 7));
  Reports r;
  zel::ClipInfo c = clip(path, kStart, r);
  auto record = r.callback();
  c.callback = [record](int state, const zel::ClipInfo& info, std::string message) {
    record(state, info, message);
    if (state == zel::CLIP_UPLOADING) throw std::runtime_error("host bug");  // changes nothing
  };
  zel::Upload::upload_clip(c);
  ASSERT_TRUE(r.wait(zel::CLIP_CONFIRMED)) << r.message(zel::CLIP_FAILED);
  EXPECT_EQ(r.states(), (States{0, 2, 3, 4, 5, 6}));
  EXPECT_EQ(r.message(5).rfind("Uploaded: " + path + "\nTo: https://devstoreaccount1.blob.localhost:", 0), 0u);
  EXPECT_EQ(log.count("1|Clip callback for 0a1b2c3d4e5f/1614600000 (state 4) failed: host bug\n"), 1u);
  EXPECT_NE(cloud.sent("storage_access_request").value_or("").find("\"to\":\"zel-inbound\""), std::string::npos);
  Event blob = storage().command("{\"cmd\":\"blob\",\"path\":\"0011223344aa/0a1b2c3d4e5f/2021-03-01/1614600000.mp4\"}");
  EXPECT_EQ(blob.num("length"), 100016);
  EXPECT_EQ(blob.str("sha256"), sha256_hex(openssl_enc(path, "clip-secret-1")));
  EXPECT_TRUE(archives(1));
  EXPECT_TRUE(zel::Messaging::get().get_unacked_clips().empty());
}

// Late credentials and a lost confirmation time out (clock seam); a clip given again while
// its confirmation is outstanding asks again, and the acknowledgement reaches the first.
TEST_F(Pipeline, LateCredentialsAndConfirmationsTimeOut) {
  FrozenClock clock;
  answer(false, false);
  Device device(cloud, params());
  std::string path = dir.file("late.mp4", random_bytes(2000, 6));
  Reports waiting;
  zel::Upload::upload_clip(clip(path, kStart + 8000, waiting));
  ASSERT_TRUE(waiting.wait(zel::CLIP_WAITING_CREDENTIALS, 5s));
  zel::advance_clock(11);
  ASSERT_TRUE(waiting.wait(zel::CLIP_FAILED, 5s));
  EXPECT_EQ(waiting.message(7), "Credentials took more than 10 seconds");

  answer(true, false);
  Reports unacked, again;
  zel::ClipInfo c = clip(path, kStart + 9000, unacked);
  c.camera_mac = "0a1b2c3d4e5f";  // a confirmation is keyed by the MAC as given
  zel::Upload::upload_clip(c);
  ASSERT_TRUE(unacked.wait(zel::CLIP_UPLOADED)) << unacked.message(7);
  ASSERT_TRUE(archives(1));  // the clock may move once the record-end has left
  zel::advance_clock(11);
  ASSERT_TRUE(unacked.wait(zel::CLIP_FAILED, 5s));
  EXPECT_EQ(unacked.message(7), "Upload confirmation took more than 10 seconds");
  c.callback = again.callback();
  zel::Upload::upload_clip(c);
  EXPECT_EQ(again.states(), States{zel::CLIP_UPLOADED});
  EXPECT_EQ(again.message(5), "Re-sending upload confirmation");
  ASSERT_TRUE(archives(2));
  cloud.request("transactionAck", "{\"type\":\"archive\",\"from\":\"0a1b2c3d4e5f\",\"start_at\":\"" +
                zel::toISOTime(kStart + 9000) + "\"}", "ack-1");
  ASSERT_TRUE(unacked.wait(zel::CLIP_CONFIRMED, 5s));
  EXPECT_EQ(unacked.states(), (States{0, 2, 3, 4, 5, 7, 6}));
  EXPECT_EQ(again.states(), States{zel::CLIP_UPLOADED});
}

// A refused upload ends its clip; no clip keeps a pending slot past a disconnect.
TEST_F(Pipeline, RefusedUploadAndDisconnectEndTheirClips) {
  answer(true, false);
  Reports refused, stranded;
  {
    Device device(cloud, params());
    EXPECT_TRUE(cloud.ok("{\"cmd\":\"set\",\"storage_token\":\"" + storage_token("rl") + "\"}"));
    zel::Upload::upload_clip(clip(dir.file("refused.mp4", "x"), kStart + 5000, refused));
    ASSERT_TRUE(refused.wait(zel::CLIP_FAILED));
    EXPECT_EQ(refused.states(), (States{0, 2, 3, 4, 7}));
    EXPECT_EQ(refused.message(7), "curl_easy_perform() failed: No error HTTP Status Code: 403");
    zel::Messaging& m = zel::Messaging::get();
    std::lock_guard<std::recursive_mutex> lock(m.get_work_mutex());
    zel::PendingClip p;  // handed to the pool, no outcome yet
    p.in_flight = true;
    p.clip.callback = stranded.callback();
    m.get_pending_clips()["cam1"] = p;
  }
  EXPECT_EQ(stranded.states(), States{zel::CLIP_FAILED});
  EXPECT_EQ(stranded.message(7), "Upload interrupted by disconnect");
}

}  // namespace
}  // namespace zt

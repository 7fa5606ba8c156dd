// The clip pipeline on its tables at exact boundaries (clock frozen), then whole clips
// against the local cloud, openssl judging the stored bytes.
#include <gtest/gtest.h>
#include <unistd.h>


#include "foundation/time_utils.h"
#include "handlers/zel_handler.h"
#include "messaging/messaging.h"
#include "support/peer.h"

namespace zt {
namespace {

constexpr int64_t kStart = 1614600000;  // 2021-03-01T12:00:00Z

zel::ClipInfo clip(const std::string& path, int64_t start, Reports& r) {
  return {path, "0A1B2C3D4E5F", start, start + 60, static_cast<int64_t>(read_file(path).size()),
          {0, 2.5, 7654321}, "meta-1", r.callback()};
}

class Intake : public ::testing::Test {
 protected:
  void TearDown() override { m.reset_for_tests(); }
  zel::Messaging& m = zel::Messaging::get();
  FrozenClock clock;
  TempDir dir;
};

TEST_F(Intake, ChecksComeInOrderWithTheirMessages) {
  std::string path = dir.file("ok.mp4", "abc"), big = dir.file("big.mp4", "");
  const std::pair<std::function<void(zel::ClipInfo&)>, std::string> rows[] = {
      {[](zel::ClipInfo& c) { c.end_time = c.start_time, c.path.clear(); }, "Start time >= End time"},
      {[](zel::ClipInfo& c) { c.camera_mac.clear(), c.path.clear(); }, "Camera mac address is empty"},
      {[](zel::ClipInfo& c) { c.path.clear(); }, "Path is empty"},
      {[&](zel::ClipInfo& c) { c.path = dir.path + "/missing"; }, "Issue reading the file"},
      {[](zel::ClipInfo& c) { c.size = 5; }, "File sizes differ expected: 5 got: 3"},
      {[&](zel::ClipInfo& c) { c.path = big, c.size = 256000001, truncate(big.c_str(), c.size); },
       "File size is too large: 256000001"},
      {[&](zel::ClipInfo& c) { c.path = big, c.size = 256000000, truncate(big.c_str(), c.size); }, ""},
  };
  for (const auto& [spoil, rejection] : rows) {
    SCOPED_TRACE(rejection);
    Reports r;
    zel::ClipInfo c = clip(path, kStart, r);
    spoil(c);
    m.upload_clip(c);
    m.clear_queued_clips();
    EXPECT_EQ(r.states(), (rejection.empty() ? States{0, 7} : States{1}));
    EXPECT_EQ(r.message(rejection.empty() ? 7 : 1), rejection.empty() ? "User cancelled" : rejection);
  }
}

// One pending clip per upload thread; credentials that came first (kept 240 s under the MAC
// and start the server gave) start their clip in the same pass.
TEST_F(Intake, PendingLimitAndCredentialsThatCameFirst) {
  std::string path = dir.file("p.mp4", "0123456789"), key = "0a1b2c3d4e5f" + std::to_string(kStart);
  Reports a, b;
  std::lock_guard<std::recursive_timed_mutex> lock(m.get_work_mutex());
  zel::ZelHandler::handleMessage(&m, "getStorageAccess", "{\"account\":\"acct\",\"token\":\"tok\",\"secret\":"
                                 "\"s\",\"start_at\":\"" + std::to_string(kStart) + "\",\"camera_mac\":\"0a1b2c3d4e5f\"}",
                                 nullptr);
  EXPECT_EQ(m.get_credentials()[key].expires_at, zel::time_now() + 240);
  m.upload_clip(clip(path, kStart, a));
  m.upload_clip(clip(path, kStart + 100, b));
  m.process_clip();
  m.process_clip();
  EXPECT_EQ(a.states(), (States{0, 2, 3}));
  EXPECT_EQ(b.states(), (States{0}));
  EXPECT_EQ(m.get_pending_clips()[key].credentials.token, "tok");
}

TEST_F(Intake, ExpiryBoundaries) {
  LogCapture log;
  std::lock_guard<std::recursive_timed_mutex> lock(m.get_work_mutex());
  const int64_t now = zel::time_now();
  Reports waited_10, waited_11, late;
  auto entry = [&](zel::ClipCallback cb, int64_t age, bool uploaded, int confirm_timeout = 30) {
    zel::PendingClip p;
    p.clip.camera_mac = "cam", p.clip.callback = cb, p.last_change = now - age, p.in_flight = uploaded;
    p.state = uploaded ? zel::CLIP_UPLOADED : zel::CLIP_WAITING_CREDENTIALS;
    p.opts.confirm_timeout = confirm_timeout;
    return p;
  };
  m.get_pending_clips()["w10"] = entry(waited_10.callback(), 10, false);
  m.get_pending_clips()["w11"] = entry(waited_11.callback(), 11, false);
  m.get_unacked_clips()["late"] = entry(late.callback(), 11, true);
  m.get_credentials()["a"] = zel::CloudCredentials{"", "", "", "100", "camA", now};
  m.get_credentials()["b"] = zel::CloudCredentials{"", "", "", "200", "camB", now - 1};
  m.expire_clip();
  m.expire_clip();
  EXPECT_EQ(waited_10.states(), States{});
  EXPECT_EQ(waited_11.message(7), "Credentials took more than 10 seconds");
  EXPECT_EQ(late.states(), States{7});  // once only
  EXPECT_EQ(late.message(7), "Upload confirmation took more than 10 seconds");
  EXPECT_EQ(m.get_credentials().count("a") * 10 + m.get_credentials().count("b"), 10u) << "expiring now: kept";
  EXPECT_EQ(log.count("2|Credentials for camB/200 expired.\n"), 1u);

  // Over 1000 confirmations outstanding, the recently changed entries go, in key order.
  m.get_unacked_clips().clear();
  for (int i = 0; i < 1003; ++i) {
    zel::PendingClip p = entry(nullptr, i % 2 ? 299 : 300, false, 0);
    p.clip.start_time = i;
    m.get_unacked_clips()["k" + std::to_string(10000 + i)] = p;
  }
  m.expire_clip();
  m.expire_clip();
  EXPECT_EQ(m.get_unacked_clips().size(), 1000u);
  for (const char* key : {"k10001", "k10003", "k10005"}) EXPECT_EQ(m.get_unacked_clips().count(key), 0u) << key;
  EXPECT_EQ(m.get_unacked_clips().count("k10007"), 1u);
}

// Every submission ends: a second one replaces a first that is queued or waiting for
// credentials, and is refused while the first uploads.
TEST_F(Intake, ResubmissionEndsTheFirstOrIsRefused) {
  const std::string path = dir.file("r.mp4", "r"), key = "0a1b2c3d4e5f" + std::to_string(kStart);
  Reports r[4];
  std::lock_guard<std::recursive_timed_mutex> lock(m.get_work_mutex());
  m.upload_clip(clip(path, kStart, r[0]));
  m.upload_clip(clip(path, kStart, r[1]));
  m.process_clip();
  m.upload_clip(clip(path, kStart, r[2]));
  m.process_clip();
  m.get_pending_clips()[key].in_flight = true;
  m.upload_clip(clip(path, kStart, r[3]));
  for (auto [i, states] : {std::pair{0, States{0, 7}}, {1, {0, 2, 7}}, {2, {0, 2}}, {3, {1}}}) EXPECT_EQ(r[i].states(), states) << i;
  EXPECT_EQ(r[1].message(7), "Replaced by a newer submission of the same clip");
  EXPECT_EQ(r[3].message(1), "Clip is already uploading");
}

// A clip given again while unconfirmed asks again; the acknowledgement (keyed by camera and
// ISO start) reaches the clip that was uploaded.
TEST_F(Intake, ConfirmationAskedAgainAndAcknowledged) {
  Reports first, again;
  std::lock_guard<std::recursive_timed_mutex> lock(m.get_work_mutex());
  zel::ClipInfo c = clip(dir.file("c", "c"), kStart, first);
  c.camera_mac = "0a1b2c3d4e5f";
  m.get_unacked_clips()["0a1b2c3d4e5f2021-03-01T12:00:00Z"] = zel::PendingClip{c, {}, {}, "", 0, 4, false, 7};
  c.callback = again.callback();
  m.upload_clip(c);
  EXPECT_EQ(again.message(5), "Re-sending upload confirmation");
  for (int i = 0; i < 2; ++i)  // a repeated acknowledgement changes nothing
    zel::ZelHandler::handleMessage(&m, "transactionAck", "{\"type\":\"archive\",\"from\":\"0a1b2c3d4e5f\","
                                   "\"start_at\":\"2021-03-01T12:00:00Z\"}", nullptr);
  EXPECT_EQ(first.states(), States{6});
  EXPECT_EQ(again.states(), States{5});
  EXPECT_TRUE(m.get_unacked_clips().empty());
}

TEST_F(Intake, RecordMessagesKeepTheirFormat) {
  Reports r;
  zel::PendingClip p;
  p.clip = clip(dir.file("c", std::string(4096, 'c')), kStart, r);
  p.clip.camera_mac = "0a1b2c3d4e5f", p.last_change = kStart + 100, p.uploaded_bytes = 4112;
  const std::string now = zel::getISOTime(), clip_times = "\"start_at\":\"2021-03-01T12:00:00Z\",\"end_at\":"
                                                          "\"2021-03-01T12:01:00Z\",";
  EXPECT_EQ(m.upload_record_start(p),
            "{\"type\":\"storage_access_request\",\"subject\":\"storage_access_request\",\"nvrId\":\"\","
            "\"provider\":\"azure\",\"properties\":{\"provider\":\"azure\",\"cameraMac\":\"0a1b2c3d4e5f\"," +
            clip_times + "\"bytes\":\"4096\",\"created_at\":\"" + now + "\",\"updated_at\":\"" + now + "\"}}");
  EXPECT_EQ(m.upload_record_end(p),
            "{\"topic\":\"transaction\",\"model\":\"archive\",\"method\":\"changed\",\"nvrMac\":\"\",\"apiVersion\":"
            "\"2\",\"properties\":{\"mac_address\":\"0a1b2c3d4e5f\"," + clip_times + "\"created_at\":\"" + now +
            "\",\"updated_at\":\"" + now + "\",\"upload_start_at\":\"2021-03-01T12:01:40Z\",\"upload_end_at\":\"" +
            now + "\",\"keyframe_times\":\"[0,2.5,7.65432e+06]\",\"metadata\":\"meta-1\",\"duration\":\"60\","
            "\"bytes\":\"4112\"},\"subject\":\"transaction\"}");
}

// The server hands out blob storage credentials and acknowledges record-end transactions.
class Pipeline : public ::testing::Test {
 protected:
  void TearDown() override { zel::Upload::register_log(nullptr); }
  const std::string token = storage_token();
  Cloud cloud{true, storage_flags(token, "clip-secret-1")};
  zel::CloudConnect cc = cloud.params(kUploadMac);
  TempDir dir;
};

// A whole clip under the upload cap: its progress reports show the capped rate over 5 s.
TEST_F(Pipeline, OneClipRunsFromIntakeToConfirmationUnderTheCap) {
  Device device(cloud, cc);
  std::string path = dir.file("whole.mp4", random_bytes(8 << 20, 7));
  std::mutex mu;
  std::vector<std::pair<std::chrono::steady_clock::time_point, int64_t>> sent;
  zel::UploadOpts opts{1, 10, 30, [&](const std::string&, int, int64_t, int64_t now) {
                         std::lock_guard<std::mutex> lock(mu);
                         return sent.emplace_back(std::chrono::steady_clock::now(), now), 0;
                       }};
  zel::Upload::set_upload_rate_limit(1 << 20);
  Reports r;
  zel::Upload::upload_clip(clip(path, kStart, r), opts);
  ASSERT_TRUE(r.wait(zel::CLIP_CONFIRMED)) << r.message(zel::CLIP_FAILED);
  zel::Upload::set_upload_rate_limit(0);
  EXPECT_EQ(r.states(), (States{0, 2, 3, 4, 5, 6}));
  EXPECT_EQ(r.message(5).rfind("Uploaded: " + path + "\nTo: https://devstoreaccount1.blob.localhost:", 0), 0u);
  Event blob = storage().command("{\"cmd\":\"blob\",\"path\":\"0011223344aa/0a1b2c3d4e5f/2021-03-01/1614600000.mp4\"}");
  EXPECT_EQ(blob.str("sha256"), sha256_hex(openssl_enc(path, "clip-secret-1")));
  EXPECT_NE(cloud.sent("transaction").value_or("").find("\"model\":\"archive\""), std::string::npos);
  EXPECT_TRUE(zel::Messaging::get().get_unacked_clips().empty());
  std::lock_guard<std::mutex> lock(mu);
  ASSERT_GE(sent.size(), 6u);
  double rate = (sent[5].second - sent[0].second) / std::chrono::duration<double>(sent[5].first - sent[0].first).count();
  EXPECT_NEAR(rate, 1 << 20, 0.15 * (1 << 20));
}

// The snapshot through a clip's life and a refused upload.
TEST_F(Pipeline, SnapshotFollowsClipsAndTheLink) {
  FrozenClock clock;
  Device device(cloud, cc);
  Reports done, failed;
  zel::Upload::upload_clip(clip(dir.file("a.mp4", std::string(4096, 'a')), kStart, done));
  ASSERT_TRUE(done.wait(zel::CLIP_CONFIRMED));
  EXPECT_TRUE(cloud.ok("{\"cmd\":\"set\",\"storage_token\":\"" + storage_token("rl") + "\"}"));
  zel::Upload::upload_clip(clip(dir.file("b.mp4", std::string(4096, 'b')), kStart + 100, failed));
  ASSERT_TRUE(failed.wait(zel::CLIP_FAILED));
  zel::CloudStats s = zel::Upload::stats();
  EXPECT_EQ((std::vector<int64_t>{s.link_up, s.connections, s.last_disconnected_at, s.clips_uploaded, s.clips_confirmed,
                                  s.clips_failed, s.bytes_uploaded, s.credentials_held, s.upload_threads}),
            (std::vector<int64_t>{1, 1, 0, 1, 1, 1, 4112, 1, 1}));  // the failed clip's credentials are kept
  EXPECT_EQ(s.clips_queued + s.clips_waiting_credentials + s.clips_uploading + s.clips_awaiting_confirmation, 0);
  EXPECT_EQ(s.last_upload_error, failed.message(zel::CLIP_FAILED));
  EXPECT_TRUE(cloud.ok("{\"cmd\":\"drop\"}"));
  ASSERT_TRUE(eventually([] { return !zel::Upload::stats().link_up; }));
  Reports queued;  // while the link is down: counted at once
  zel::Upload::upload_clip(clip(dir.file("d.mp4", "d"), kStart + 200, queued));
  for (int i = 0; i < 5; ++i) zel::Upload::upload_event(zel::EventInfo{1, "0a1b2c3d4e5f", kStart, kStart + 1, ""});
  EXPECT_EQ(zel::Upload::stats().motion_events_queued * 10 + zel::Upload::stats().clips_queued, 51);
  next_attempt_now();
  ASSERT_TRUE(cloud.sent("version", 1, 10s));
  ASSERT_TRUE(eventually([] { return zel::Upload::stats().connections == 2; }));
  EXPECT_GT(zel::Upload::stats().last_disconnected_at, 0);
}

// Block mode's fresh credentials mid-clip: a token the storage refuses brings one more
// storage access request and the clip goes on; a token about to run out (the clock moved
// a day on) brings another whose new secret starts the clip again from its first block.
TEST_F(Pipeline, BlocksAskForFreshCredentialsMidClip) {
  for (uint64_t refused : {uint64_t{262128}, uint64_t{262152}, uint64_t{104857616}}) EXPECT_FALSE(zel::Upload::set_block_upload(refused));
  ASSERT_TRUE(zel::Upload::set_block_upload(262144));
  Device device(cloud, cc);
  std::string path = dir.file("m.mp4", random_bytes(3 * 262144 + 5, 9)), spoilt = token;
  spoilt.replace(spoilt.find("sig=") + 4, 4, "AAAA");
  auto blob = [] { return storage().command("{\"cmd\":\"blob\",\"path\":\"0011223344aa/0a1b2c3d4e5f/2021-03-01/" +
                                            std::to_string(kStart) + ".mp4\"}").str("sha256"); };
  EXPECT_TRUE(cloud.ok("{\"cmd\":\"set\",\"storage_token\":\"" + spoilt + "\"}"));
  Reports r;
  zel::Upload::upload_clip(clip(path, kStart, r));
  ASSERT_TRUE(cloud.sent("storage_access_request"));
  EXPECT_TRUE(cloud.ok("{\"cmd\":\"set\",\"storage_token\":\"" + token + "\"}"));
  ASSERT_TRUE(r.wait(zel::CLIP_CONFIRMED)) << r.message(zel::CLIP_FAILED);
  EXPECT_EQ(r.states(), (States{0, 2, 3, 4, 5, 6}));
  EXPECT_EQ(blob(), sha256_hex(openssl_enc(path, "clip-secret-1")));

  zel::Upload::set_upload_rate_limit(1 << 19);
  Reports again;
  bool moved = false;
  zel::Upload::upload_clip(clip(path, kStart, again), {1, 10, 30, [&](const std::string&, int, int64_t, int64_t) {
                             if (!moved) moved = true, zel::advance_clock(86400);
                             return 0;
                           }});
  ASSERT_TRUE(cloud.sent("storage_access_request", 2));
  std::string two_days = storage().command("{\"cmd\":\"sas\",\"valid_s\":172800}").str("token");
  EXPECT_TRUE(cloud.ok("{\"cmd\":\"set\",\"storage_token\":\"" + two_days + "\",\"storage_secret\":\"clip-secret-2\"}"));
  ASSERT_TRUE(again.wait(zel::CLIP_CONFIRMED)) << again.message(zel::CLIP_FAILED);
  zel::Upload::set_upload_rate_limit(0);
  zel::advance_clock(-zel::clock_offset());
  EXPECT_EQ(blob(), sha256_hex(openssl_enc(path, "clip-secret-2")));
  EXPECT_TRUE(cloud.sent("storage_access_request", 3));
  EXPECT_FALSE(cloud.sent("storage_access_request", 4, 200ms));
  EXPECT_EQ(zel::Upload::stats().credentials_refreshed, 2);
  zel::Upload::set_block_upload(0);
}

// The host's own log: every line without its newline, libcurl's too, and no secret in any
// line, whatever the server sends: credentials in fragments, cut short, under a bad subject.
TEST_F(Pipeline, HostLogGetsExactLinesAndNoSecret) {
  setenv("ZEL_DEBUG", "1", 1);
  std::mutex mu;
  std::vector<std::string> lines;
  zel::Upload::register_log([&](int level, const std::string& line) {
    std::lock_guard<std::mutex> lock(mu);
    lines.push_back(std::to_string(level) + "|" + line);
  });
  const std::string grant = "\"token\":\"" + token + "\",\"secret\":\"clip-secret-1\"";
  {
    EXPECT_TRUE(cloud.ok("{\"cmd\":\"set\",\"auto_storage\":false}"));
    Device device(cloud, cc);
    zel::Upload::send_camera_setting("0A1B2C3D4E5F", "big", "\"" + std::string(1 << 20, 'x') + "\"");
    zel::Upload::send_camera_setting("0A1B2C3D4E5F", "bad", "{\"password\":\"pw-secret\"");
    Reports r;
    zel::Upload::upload_clip(clip(dir.file("c.mp4", "c"), kStart, r));
    ASSERT_TRUE(cloud.sent("storage_access_request"));
    // Cut in the middle of the token and of the secret, as an intermediary may.
    const std::string access = "{\"id\":\"g1\",\"from\":\"zel-cloud\",\"subject\":\"getStorageAccess\",\"content\":{"
                               "\"account\":\"devstoreaccount1\"," + grant + ",\"start_at\":\"1614600000\","
                               "\"camera_mac\":\"0a1b2c3d4e5f\"}}";
    const size_t cut1 = access.find("sig=") + 6, cut2 = access.find("clip-secret") + 5;
    EXPECT_TRUE(cloud.ok("{\"cmd\":\"send_fragments\",\"parts\":[" + json_quote(access.substr(0, cut1)) + "," +
                         json_quote(access.substr(cut1, cut2 - cut1)) + "," + json_quote(access.substr(cut2)) + "]}"));
    ASSERT_TRUE(r.wait(zel::CLIP_CONFIRMED)) << r.message(zel::CLIP_FAILED);
    EXPECT_EQ(r.message(5).find("sig="), std::string::npos);
    for (const std::string& text : {access.substr(access.find(",\"secret\"")),  // no JSON from its first byte
                                    "{\"subject\":5,\"content\":{" + grant + "}}",
                                    envelope("d", "issueCertificate", "{\"contents\":{\"key\":\"SECRETKEY\",\"cert\":\"C\"}}"),
                                    envelope("d", "odd\\\"", "{" + grant + "}")})
      EXPECT_TRUE(cloud.ok("{\"cmd\":\"send\",\"text\":" + json_quote(text) + "}"));
    cloud.request("status", "", "sync");
    EXPECT_TRUE(cloud.reply("sync"));
  }
  unsetenv("ZEL_DEBUG");
  zel::Upload::register_log(nullptr);
  std::lock_guard<std::mutex> lock(mu);
  for (const std::string& l : lines) {
    for (const std::string& secret : {token.substr(token.find("sig=") + 4), std::string("clip-secret-1"),
                                      std::string("SECRETKEY"), std::string("pw-secret")})
      EXPECT_EQ(l.find(secret), std::string::npos) << l;
    EXPECT_NE(l.back(), '\n');
  }
  auto has = [&](const std::string& head, const std::string& part) {
    return std::any_of(lines.begin(), lines.end(),
                       [&](const std::string& l) { return l.rfind(head, 0) == 0 && l.find(part) != std::string::npos; });
  };
  EXPECT_TRUE(has("4|> PUT /", "")) << "libcurl's verbose lines were expected";
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "4|Attempting to connect to messaging server..."), 1);
  EXPECT_TRUE(has("2|Payload(", ") bigger than buffer(1048576), skipping"));
  EXPECT_TRUE(has("2|Error parsing received message: '<", " bytes>'"));
  EXPECT_TRUE(has("1|Error: inbound message subject is not a string, dropped: '<", " bytes>'"));
  EXPECT_TRUE(has("1|Could not parse details: \n{\"from\":\"zel-upload-lib\",\"error\":\"Not supported subject: odd\"\"", ""));
  EXPECT_TRUE(has("2|Error parsing stringified_value: '{\"password\":\"***\"'", ""));
}

}  // namespace
}  // namespace zt

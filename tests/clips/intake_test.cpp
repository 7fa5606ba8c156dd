// Clip intake, the pending limit, credentials and expiry, driven directly on the
// Messaging tables (no link needed): exact messages and exact boundaries.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <mutex>

#include "clips/clip_recorder.h"
#include "foundation/time_utils.h"
#include "handlers/zel_handler.h"
#include "messaging/messaging.h"
#include "support/certs.h"
#include "support/log_capture.h"

namespace clip_test {
namespace {

using ::testing::ElementsAre;

class Intake : public ::testing::Test {
 protected:
  void SetUp() override {
    zel::Messaging::get().reset_for_tests();
    zel::freeze_clock(true);
  }
  void TearDown() override {
    zel::freeze_clock(false);
    zel::Messaging::get().reset_for_tests();
  }
  std::string file(const std::string& name, size_t size) {
    std::string path = dir + "/" + name;
    std::ofstream out(path, std::ios::binary);
    out.write(std::string(size, 'c').data(), static_cast<std::streamsize>(size));
    return path;
  }
  zel::ClipInfo clip(const std::string& path, int64_t size, ClipRecorder& rec, int64_t start = 1614600000) {
    zel::ClipInfo c;
    c.path = path;
    c.camera_mac = "0A1B2C3D4E5F";
    c.start_time = start;
    c.end_time = start + 60;
    c.size = size;
    c.callback = rec.callback();
    return c;
  }
  zel::Messaging& m = zel::Messaging::get();
  std::string dir = zel_test::make_temp_dir("zel-intake-");
};

TEST_F(Intake, ChecksComeInOrderWithTheirMessages) {
  struct Case {
    std::function<void(zel::ClipInfo&)> spoil;
    std::string message;
  };
  std::string path = file("ok.mp4", 3);
  std::vector<Case> cases = {
      {[](zel::ClipInfo& c) { c.end_time = c.start_time; c.path.clear(); }, "Start time >= End time"},
      {[](zel::ClipInfo& c) { c.camera_mac.clear(); c.path.clear(); }, "Camera mac address is empty"},
      {[](zel::ClipInfo& c) { c.path.clear(); }, "Path is empty"},
      {[&](zel::ClipInfo& c) { c.path = dir + "/missing"; c.size = 0; }, "Issue reading the file"},
      {[](zel::ClipInfo& c) { c.size = 5; }, "File sizes differ expected: 5 got: 3"},
  };
  for (const Case& k : cases) {
    ClipRecorder rec;
    zel::ClipInfo c = clip(path, 3, rec);
    k.spoil(c);
    m.upload_clip(c);
    EXPECT_THAT(rec.states(), ElementsAre(zel::CLIP_REJECTED)) << k.message;
    EXPECT_EQ(rec.message_of(zel::CLIP_REJECTED), k.message);
  }

  // The largest clip accepted is 256000000 bytes (sparse files keep this cheap).
  std::string big = dir + "/big.mp4";
  std::ofstream(big).close();
  ASSERT_EQ(truncate(big.c_str(), 256000001), 0);
  ClipRecorder too_big;
  m.upload_clip(clip(big, 256000001, too_big));
  EXPECT_EQ(too_big.message_of(zel::CLIP_REJECTED), "File size is too large: 256000001");
  ASSERT_EQ(truncate(big.c_str(), 256000000), 0);
  ClipRecorder largest;
  m.upload_clip(clip(big, 256000000, largest));
  EXPECT_THAT(largest.states(), ElementsAre(zel::CLIP_QUEUED));
}

TEST_F(Intake, ClearingTheQueueCancelsEachQueuedClipInOrder) {
  std::string path = file("q.mp4", 10);
  ClipRecorder first, second;
  m.clear_queued_clips();  // nothing queued: nothing happens
  m.upload_clip(clip(path, 10, first, 100));
  m.upload_clip(clip(path, 10, second, 200));
  m.clear_queued_clips();
  EXPECT_THAT(first.states(), ElementsAre(zel::CLIP_QUEUED, zel::CLIP_FAILED));
  EXPECT_EQ(first.message_of(zel::CLIP_FAILED), "User cancelled");
  EXPECT_THAT(second.states(), ElementsAre(zel::CLIP_QUEUED, zel::CLIP_FAILED));
  std::lock_guard<std::recursive_mutex> lock(m.get_work_mutex());
  m.process_clip();
  EXPECT_TRUE(m.get_pending_clips().empty());
}

TEST_F(Intake, OneClipPerPassUpToTheLimitAndKnownCredentialsStartAtOnce) {
  std::string path = file("p.mp4", 10);
  ClipRecorder a, b;
  std::lock_guard<std::recursive_mutex> lock(m.get_work_mutex());
  // Credentials that arrive before their clip leaves the queue are kept for it.
  m.set_credentials(zel::CloudCredentials{"acct", "tok", "sec", "1614600000", "0a1b2c3d4e5f", 0});
  ASSERT_EQ(m.get_credentials().count("0a1b2c3d4e5f1614600000"), 1u);
  EXPECT_EQ(m.get_credentials().at("0a1b2c3d4e5f1614600000").expires_at, zel::time_now() + 240);
  m.upload_clip(clip(path, 10, a));
  m.upload_clip(clip(path, 10, b, 1614600100));
  m.process_clip();
  EXPECT_THAT(a.states(), ElementsAre(0, 2, 3));  // 3 in the same pass, no request needed
  const zel::PendingClip& pending = m.get_pending_clips().at("0a1b2c3d4e5f1614600000");
  EXPECT_TRUE(pending.in_flight);
  EXPECT_EQ(pending.clip.camera_mac, "0a1b2c3d4e5f");
  EXPECT_EQ(pending.credentials.token, "tok");
  m.process_clip();  // the one pending slot (one upload thread) is taken
  EXPECT_THAT(b.states(), ElementsAre(0));
  // Credentials for a clip already uploading change nothing.
  m.set_credentials(zel::CloudCredentials{"other", "t2", "s2", "1614600000", "0a1b2c3d4e5f", 0});
  EXPECT_THAT(a.states(), ElementsAre(0, 2, 3));
  EXPECT_EQ(m.get_pending_clips().at("0a1b2c3d4e5f1614600000").credentials.account, "acct");
}

TEST_F(Intake, StorageAccessRepliesOkWhateverItCarries) {
  std::lock_guard<std::recursive_mutex> lock(m.get_work_mutex());
  zel::MsgResponse empty = zel::ZelHandler::handleMessage(&m, "getStorageAccess", "{}", nullptr);
  EXPECT_TRUE(empty.ok);
  EXPECT_EQ(empty.content, "\"OK\"");
  ASSERT_EQ(m.get_credentials().count(""), 1u);  // five empty strings, stored and left to expire
  // Members of the wrong type count as missing; nothing waits for them.
  zel::ZelHandler::handleMessage(
      &m, "getStorageAccess",
      "{\"account\":1,\"token\":[\"t\"],\"secret\":null,\"start_at\":1614600000,\"camera_mac\":\"cam\"}",
      nullptr);
  ASSERT_EQ(m.get_credentials().count("cam"), 1u);
  EXPECT_EQ(m.get_credentials().at("cam").account, "");
  EXPECT_EQ(m.get_credentials().at("cam").start_at, "");
  zel::MsgResponse bad = zel::ZelHandler::handleMessage(&m, "getStorageAccess", "{nope", nullptr);
  EXPECT_FALSE(bad.ok);
  EXPECT_EQ(bad.content, "{\"error\": \"Could not parse contents\"}");
  EXPECT_EQ(m.get_credentials().size(), 2u);
}

TEST_F(Intake, ExpiryBoundaries) {
  zel_test::LogCapture log;
  std::lock_guard<std::recursive_mutex> lock(m.get_work_mutex());
  const int64_t now = zel::time_now();
  ClipRecorder waiting_10, waiting_11;
  auto pending = [&](int64_t age, ClipRecorder& rec, int64_t start) {
    zel::PendingClip p;
    p.clip.camera_mac = "cam";
    p.clip.start_time = start;
    p.clip.callback = rec.callback();
    p.last_change = now - age;
    m.get_pending_clips()["cam" + std::to_string(start)] = p;
  };
  pending(10, waiting_10, 1);
  pending(11, waiting_11, 2);
  m.get_credentials()["a"] = zel::CloudCredentials{"", "", "", "100", "camA", now};
  m.get_credentials()["b"] = zel::CloudCredentials{"", "", "", "200", "camB", now - 1};
  m.expire_clip();
  EXPECT_TRUE(waiting_10.states().empty());
  EXPECT_THAT(waiting_11.states(), ElementsAre(zel::CLIP_FAILED));
  EXPECT_EQ(waiting_11.message_of(7), "Credentials took more than 10 seconds");
  EXPECT_EQ(m.get_pending_clips().size(), 1u);
  EXPECT_EQ(m.get_credentials().count("a"), 1u);  // expiry equal to now: kept this pass
  EXPECT_EQ(m.get_credentials().count("b"), 0u);
  EXPECT_EQ(log.count("Credentials for camB/200 expired.\n"), 1u);
  EXPECT_EQ(log.level_of("Credentials for camB/200 expired.\n"), 2);
}

TEST_F(Intake, ConfirmationTimeOutAndTheTableLimit) {
  zel_test::LogCapture log;
  std::lock_guard<std::recursive_mutex> lock(m.get_work_mutex());
  const int64_t now = zel::time_now();
  ClipRecorder late, never;
  zel::PendingClip p;
  p.state = zel::CLIP_UPLOADED;
  p.in_flight = true;
  p.clip.camera_mac = "late";
  p.clip.callback = late.callback();
  p.last_change = now - 11;
  m.get_unacked_clips()["late"] = p;
  p.clip.camera_mac = "never";
  p.clip.callback = never.callback();
  p.opts.confirm_timeout = 0;  // no confirmation time-out for this one
  m.get_unacked_clips()["never"] = p;
  m.expire_clip();
  m.expire_clip();
  EXPECT_THAT(late.states(), ElementsAre(zel::CLIP_FAILED));  // once only
  EXPECT_EQ(late.message_of(7), "Upload confirmation took more than 10 seconds");
  EXPECT_TRUE(never.states().empty());
  EXPECT_FALSE(m.get_unacked_clips().at("late").in_flight);
  EXPECT_TRUE(m.get_unacked_clips().at("never").in_flight);

  // Over 1000 entries, the recently changed ones go first, in key order, down to 1000.
  m.get_unacked_clips().clear();
  for (int i = 0; i < 1003; ++i) {
    zel::PendingClip e;
    e.clip.camera_mac = "c";
    e.clip.start_time = i;
    e.opts.confirm_timeout = 0;
    e.last_change = (i % 2 == 0) ? now - 300 : now - 299;  // odd ones changed recently
    char key[16];
    std::snprintf(key, sizeof key, "k%04d", i);
    m.get_unacked_clips()[key] = e;
  }
  m.expire_clip();
  EXPECT_EQ(m.get_unacked_clips().size(), 1000u);
  EXPECT_EQ(m.get_unacked_clips().count("k0001"), 0u);
  EXPECT_EQ(m.get_unacked_clips().count("k0003"), 0u);
  EXPECT_EQ(m.get_unacked_clips().count("k0005"), 0u);
  EXPECT_EQ(m.get_unacked_clips().count("k0007"), 1u);
  EXPECT_EQ(m.get_unacked_clips().count("k0000"), 1u);
  EXPECT_EQ(log.count("Transaction for c/1 expired.\n"), 1u);
  EXPECT_EQ(log.count_containing("Transaction for"), 3u);
  m.expire_clip();
  EXPECT_EQ(m.get_unacked_clips().size(), 1000u);  // exactly 1000: nothing more goes
}

TEST_F(Intake, RecordMessagesKeepTheirFormat) {
  zel::PendingClip p;
  p.clip.camera_mac = "0a1b2c3d4e5f";
  p.clip.start_time = 1614600000;
  p.clip.end_time = 1614600060;
  p.clip.size = 4096;
  p.clip.metadata = "m";
  p.last_change = 1614600100;
  p.uploaded_bytes = 4112;
  std::string now = zel::getISOTime();
  EXPECT_EQ(m.upload_record_end(p),
            "{\"topic\":\"transaction\",\"model\":\"archive\",\"method\":\"changed\",\"nvrMac\":\"\","
            "\"apiVersion\":\"2\",\"properties\":{\"mac_address\":\"0a1b2c3d4e5f\",\"start_at\":"
            "\"2021-03-01T12:00:00Z\",\"end_at\":\"2021-03-01T12:01:00Z\",\"created_at\":\"" + now +
                "\",\"updated_at\":\"" + now + "\",\"upload_start_at\":\"2021-03-01T12:01:40Z\","
                "\"upload_end_at\":\"" + now + "\",\"keyframe_times\":\"[]\",\"metadata\":\"m\","
                "\"duration\":\"60\",\"bytes\":\"4112\"},\"subject\":\"transaction\"}");
  p.clip.keyframe_times = {0, 2.5, 7654321};
  EXPECT_NE(m.upload_record_end(p).find("\"keyframe_times\":\"[0,2.5,7.65432e+06]\""), std::string::npos);
  EXPECT_EQ(m.upload_record_start(p),
            "{\"type\":\"storage_access_request\",\"subject\":\"storage_access_request\",\"nvrId\":\"\","
            "\"provider\":\"azure\",\"properties\":{\"provider\":\"azure\",\"cameraMac\":\"0a1b2c3d4e5f\","
            "\"start_at\":\"2021-03-01T12:00:00Z\",\"end_at\":\"2021-03-01T12:01:00Z\",\"bytes\":\"4096\","
            "\"created_at\":\"" + now + "\",\"updated_at\":\"" + now + "\"}}");
}

}  // namespace
}  // namespace clip_test

// What a host operating the library sees: the status snapshot through a clip's life, a
// failed upload and a reconnection; its own log, with no secret in it; the upload cap.
#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <thread>

#include "clips/clip_recorder.h"
#include "foundation/time_utils.h"
#include "messaging/messaging.h"
#include "support/cloud_server.h"
#include "support/device_session.h"
#include "upload/https_recorder.h"
#include "upload/upload_test_util.h"
#include "zel/upload.h"

namespace clip_test {
namespace {

using namespace std::chrono_literals;
using zel::Upload;

const std::string kToken = "sv=2020-08-04&sig=SAS-SIGNATURE-123";
const std::string kSecret = "clip-Secret-456";

class Operating : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server.set(R"({"auto_storage":true,"auto_ack":true,"storage_account":"acct",)"
                           R"("storage_token":")" + kToken + R"(","storage_secret":")" + kSecret + "\"}"));
  }
  void TearDown() override {
    Upload::register_log(nullptr);
    Upload::set_upload_rate_limit(0);
    unsetenv("ZEL_DEBUG");
  }
  void use_storage(const upload_test::HttpsRecorder& storage) {
    setenv("ZEL_BLOB_DOMAIN", (".blob.localhost:" + std::to_string(storage.port())).c_str(), 1);
  }
  zel::ClipInfo clip(int64_t start, size_t size, ClipRecorder& rec) {
    zel::ClipInfo c{upload_test::make_clip("op-" + std::to_string(start), size), "0A1B2C3D4E5F",
                    start, start + 60, static_cast<int64_t>(size), {}, "", rec.callback()};
    return c;
  }
  zel_test::CloudServer server;
};

TEST_F(Operating, SnapshotFollowsClipsAndTheLink) {
  upload_test::HttpsRecorder ok_storage;
  upload_test::HttpsRecorder refusing({"HTTP/1.1 403 Forbidden", "", "", true});
  use_storage(ok_storage);
  zel_test::DeviceSession device(server);
  ClipRecorder done, failed;
  Upload::upload_clip(clip(1614600000, 4096, done));
  ASSERT_TRUE(done.wait_for_state(zel::CLIP_CONFIRMED, 10s));
  use_storage(refusing);
  Upload::upload_clip(clip(1614600100, 4096, failed));
  ASSERT_TRUE(failed.wait_for_state(zel::CLIP_FAILED, 10s));
  std::this_thread::sleep_for(200ms);  // a pass publishes the tables

  zel::CloudStats s = Upload::stats();
  EXPECT_TRUE(s.link_up);
  EXPECT_EQ(s.connections, 1);
  EXPECT_GT(s.last_connected_at, 0);
  EXPECT_EQ(s.last_disconnected_at, 0);
  EXPECT_EQ(s.clips_uploaded, 1);
  EXPECT_EQ(s.clips_confirmed, 1);
  EXPECT_EQ(s.clips_failed, 1);
  EXPECT_EQ(s.bytes_uploaded, 4112);  // 4096 bytes and a block of padding
  EXPECT_EQ(s.last_upload_error, failed.message_of(zel::CLIP_FAILED));
  EXPECT_GT(s.last_upload_error_at, 0);
  EXPECT_EQ(s.clips_queued + s.clips_waiting_credentials + s.clips_uploading +
                s.clips_awaiting_confirmation,
            0);
  EXPECT_EQ(s.credentials_held, 1);  // the failed clip's, kept for a re-submission
  EXPECT_EQ(s.upload_threads, 1);

  ASSERT_TRUE(server.drop());
  zel::advance_clock(5);
  EXPECT_TRUE(server.wait_for_connects(2, 10s));
  zel::advance_clock(-5);
  std::this_thread::sleep_for(200ms);
  s = Upload::stats();
  EXPECT_EQ(s.connections, 2);
  EXPECT_GT(s.last_disconnected_at, 0);
  device.disconnect();
  s = Upload::stats();
  EXPECT_FALSE(s.link_up);
  EXPECT_EQ(s.clips_confirmed, 1);  // kept until the next connect
}

TEST_F(Operating, HostLogGetsExactLinesAndNoSecret) {
  upload_test::HttpsRecorder storage;
  use_storage(storage);
  setenv("ZEL_DEBUG", "1", 1);
  std::mutex mu;
  std::vector<std::pair<int, std::string>> lines;
  Upload::register_log([&](int level, const std::string& line) {
    std::lock_guard<std::mutex> lock(mu);
    lines.emplace_back(level, line);
  });
  zel_test::DeviceSession device(server);
  for (int i = 0; i < 100 && !Upload::stats().link_up; ++i) std::this_thread::sleep_for(20ms);
  Upload::send_camera_setting("0A1B2C3D4E5F", "big", "\"" + std::string(1048576, 'x') + "\"");
  ClipRecorder rec;
  Upload::upload_clip(clip(1614600200, 1000, rec));
  ASSERT_TRUE(rec.wait_for_state(zel::CLIP_CONFIRMED, 10s));
  EXPECT_EQ(rec.message_of(zel::CLIP_UPLOADED).find("SAS-SIGNATURE"), std::string::npos);
  device.disconnect();

  std::lock_guard<std::mutex> lock(mu);
  auto has = [&](int level, const std::string& text) {
    for (const auto& l : lines)
      if (l.first == level && l.second == text) return true;
    return false;
  };
  EXPECT_TRUE(has(4, "Attempting to connect to messaging server..."));
  bool oversize = false, put = false;
  for (const auto& l : lines) {
    oversize |= l.first == 2 && l.second.rfind("Payload(", 0) == 0 &&
                l.second.find(") bigger than buffer(1048576), skipping") != std::string::npos;
    put |= l.first == 4 && l.second.rfind("> PUT /", 0) == 0;
    EXPECT_EQ(l.second.find("SAS-SIGNATURE"), std::string::npos) << l.second;
    EXPECT_EQ(l.second.find(kSecret), std::string::npos) << l.second;
    EXPECT_NE(l.second.back(), '\n');
  }
  EXPECT_TRUE(oversize);
  EXPECT_TRUE(put) << "libcurl's verbose lines were expected";
}

TEST_F(Operating, CapHoldsASingleUpload) {
  upload_test::HttpsRecorder storage;
  use_storage(storage);
  zel_test::DeviceSession device(server);
  constexpr uint64_t kCap = 1 << 20;
  Upload::set_upload_rate_limit(kCap);
  std::mutex mu;
  std::vector<std::pair<std::chrono::steady_clock::time_point, int64_t>> samples;
  zel::UploadOpts opts{1, 10, 30, [&](const std::string&, int, int64_t, int64_t sent) {
                         std::lock_guard<std::mutex> lock(mu);
                         samples.emplace_back(std::chrono::steady_clock::now(), sent);
                         return 0;
                       }};
  ClipRecorder rec;
  Upload::upload_clip(clip(1614600300, 8 * kCap, rec), opts);
  ASSERT_TRUE(rec.wait_for_state(zel::CLIP_CONFIRMED, 20s));
  std::lock_guard<std::mutex> lock(mu);
  ASSERT_GE(samples.size(), 6u);
  // From the first sample to the one 5 s later: the rate the cap allowed.
  auto& first = samples[0];
  auto& last = samples[5];
  double rate = (last.second - first.second) /
                std::chrono::duration<double>(last.first - first.first).count();
  EXPECT_NEAR(rate, kCap, 0.15 * kCap);
}

}  // namespace
}  // namespace clip_test

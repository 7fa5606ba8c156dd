// Host code that calls back into the library from its callbacks, and a storage peer that
// takes the connection and never answers: every call returns or is refused at once, and
// disconnect stays bounded. A hang trips the watchdog long before the ctest time-out.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <future>
#include <thread>

#include "clips/clip_recorder.h"
#include "foundation/time_utils.h"
#include "messaging/messaging.h"
#include "support/cloud_server.h"
#include "support/device_session.h"
#include "support/log_capture.h"
#include "upload/upload_test_util.h"
#include "zel/upload.h"

namespace clip_test {
namespace {

using namespace std::chrono_literals;
using zel::Upload;
using zel_test::CloudServer;

// Runs fn; if it has not returned within limit the process ends, failing the test.
void within(std::chrono::seconds limit, const std::function<void()>& fn) {
  std::promise<void> done;
  std::thread t([&] { fn(); done.set_value(); });
  if (done.get_future().wait_for(limit) != std::future_status::ready) {
    std::fprintf(stderr, "watchdog: still blocked after %lld s\n",
                 static_cast<long long>(limit.count()));
    std::_Exit(1);
  }
  t.join();
}

// A storage endpoint that accepts connections (the kernel does, from the backlog) and
// never reads or answers: a transfer to it makes no progress at all.
class SilentPeer {
 public:
  SilentPeer() {
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    bind(fd_, reinterpret_cast<sockaddr*>(&a), len);
    listen(fd_, 16);
    getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len);
    setenv("ZEL_BLOB_DOMAIN", (".blob.localhost:" + std::to_string(ntohs(a.sin_port))).c_str(), 1);
  }
  ~SilentPeer() { close(fd_); }

 private:
  int fd_ = -1;
};

class Reentry : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server.set(R"({"auto_storage":true,"storage_account":"devstoreaccount1"})"));
  }
  zel::ClipInfo clip(int64_t start, ClipRecorder& rec) {
    zel::ClipInfo c;
    c.path = path;
    c.camera_mac = "0A1B2C3D4E5F";
    c.start_time = start;
    c.end_time = start + 60;
    c.size = 4096;
    c.callback = rec.callback();
    return c;
  }
  void connect() {
    EXPECT_TRUE(Upload::connect(zel_test::connect_params(server), nullptr, nullptr, {}));
    EXPECT_TRUE(server.wait_for_connects(++connects, 10s));
  }
  void disconnect_within_bound() {
    within(40s, [] {
      auto t0 = std::chrono::steady_clock::now();
      EXPECT_TRUE(Upload::disconnect());
      EXPECT_LT(std::chrono::steady_clock::now() - t0, 32s);
    });
  }
  void TearDown() override { zel::Messaging::get().reset_for_tests(); }

  SilentPeer peer;
  CloudServer server;
  zel_test::LogCapture log;
  const std::string path = upload_test::make_clip("reentry.bin", 4096);
  size_t connects = 0;
  const zel::UploadOpts no_limit{0, 10, 0, {}};
};

TEST_F(Reentry, ProgressFunctionCallsInAndDisconnectStillEnds) {
  connect();
  std::atomic<int> calls{0};
  std::atomic<int> refused{0};
  zel::UploadOpts opts = no_limit;
  opts.upload_callback = [&](const std::string&, int, int64_t, int64_t) {
    if (calls >= 2) return 0;
    Upload::clear_queued_clips();
    Upload::upload_event(zel::EventInfo{1, "0a1b2c3d4e5f", 1614600000, 1614600010, ""});
    refused += !Upload::disconnect() + !Upload::stop() +
               !Upload::connect(zel_test::connect_params(server), nullptr, nullptr, {});
    Upload::set_upload_threads(0);
    ++calls;
    return 0;
  };
  ClipRecorder rec;
  Upload::upload_clip(clip(1614600000, rec), opts);
  ASSERT_TRUE(rec.wait_for_state(zel::CLIP_UPLOADING, 10s));
  for (int i = 0; i < 50 && calls < 2; ++i) std::this_thread::sleep_for(100ms);
  ASSERT_GE(calls, 2);
  EXPECT_EQ(refused, 3 * calls);
  EXPECT_GE(log.count_containing("Can't resize the upload pool from an upload thread"), 2u);

  disconnect_within_bound();
  EXPECT_EQ(rec.states().back(), zel::CLIP_FAILED);
  EXPECT_EQ(rec.message_of(zel::CLIP_FAILED), "Upload interrupted by disconnect");
}

TEST_F(Reentry, StalledUploadFailsAndFreesItsSlot) {
  connect();
  ClipRecorder first, second;
  Upload::upload_clip(clip(1614600000, first), no_limit);
  Upload::upload_clip(clip(1614600100, second), no_limit);
  ASSERT_TRUE(first.wait_for_state(zel::CLIP_UPLOADING, 10s));
  std::this_thread::sleep_for(1500ms);  // the progress check takes its first sample
  zel::advance_clock(61);
  EXPECT_TRUE(first.wait_for_state(zel::CLIP_FAILED, 5s));
  EXPECT_NE(first.message_of(zel::CLIP_FAILED).find("stalled"), std::string::npos)
      << first.message_of(zel::CLIP_FAILED);
  EXPECT_TRUE(second.wait_for_state(zel::CLIP_UPLOADING, 5s));
  zel::advance_clock(-61);
  disconnect_within_bound();
}

TEST_F(Reentry, PoolSizeSurvivesReconnectionAndShrinkingDoesNotWait) {
  connect();
  Upload::set_upload_threads(3);
  disconnect_within_bound();
  connect();
  ClipRecorder rec[3];
  for (int i = 0; i < 3; ++i) Upload::upload_clip(clip(1614600000 + 100 * i, rec[i]), no_limit);
  for (auto& r : rec) EXPECT_TRUE(r.wait_for_state(zel::CLIP_UPLOADING, 10s));

  auto t0 = std::chrono::steady_clock::now();
  Upload::set_upload_threads(1);  // three uploads are stuck; none is waited for
  EXPECT_LT(std::chrono::steady_clock::now() - t0, 1s);
  disconnect_within_bound();
  for (auto& r : rec) EXPECT_EQ(r.message_of(zel::CLIP_FAILED), "Upload interrupted by disconnect");
}

TEST_F(Reentry, ClipCallbackCallingConnectDuringDisconnect) {
  connect();
  std::atomic<int> answered{0};
  ClipRecorder rec;
  zel::ClipInfo c = clip(1614600000, rec);
  c.callback = [&, record = rec.callback()](int state, const zel::ClipInfo& info, std::string m) {
    if (state == zel::CLIP_FAILED) {
      answered += Upload::connect(zel_test::connect_params(server), nullptr, nullptr, {}) ? 2 : 1;
    }
    record(state, info, m);
  };
  Upload::upload_clip(c, no_limit);
  ASSERT_TRUE(rec.wait_for_state(zel::CLIP_UPLOADING, 10s));
  disconnect_within_bound();
  EXPECT_EQ(answered, 1);  // refused at once, with its log line
  EXPECT_EQ(log.count_containing("Can't connect from a callback, use different thread"), 1u);
}

// Host threads report while another cycles connect and disconnect: the identity that
// connect writes is read under the same lock (ThreadSanitizer judges).
TEST_F(Reentry, ReportsRaceConnectAndDisconnect) {
  std::atomic<bool> stop{false};
  auto reporter = [&] {
    while (!stop) {
      Upload::register_camera("0A1B2C3D4E5F");
      Upload::send_camera_setting("0A1B2C3D4E5F", "name", "\"x\"");
      Upload::cloud_sync();
      std::this_thread::sleep_for(1ms);
    }
  };
  std::thread a(reporter), b(reporter);
  for (int i = 0; i < 3; ++i) {
    connect();
    disconnect_within_bound();
  }
  stop = true;
  a.join();
  b.join();
}

}  // namespace
}  // namespace clip_test

// Callbacks calling back in, and storage that never answers: every call returns or is
// refused at once, and disconnect stays bounded (a hang trips the watchdog).
#include <gtest/gtest.h>

#include <unistd.h>

#include <future>

#include "foundation/time_utils.h"
#include "messaging/messaging.h"
#include "support/peer.h"

namespace zt {
namespace {

using zel::Upload;

class Reentry : public ::testing::Test {
 protected:
  // Storage that takes connections and never reads.
  void SetUp() override {
    long port = storage().command("{\"cmd\":\"silent\"}").num("port");
    setenv("ZEL_BLOB_DOMAIN", (".blob.localhost:" + std::to_string(port)).c_str(), 1);
  }
  void TearDown() override {
    setenv("ZEL_BLOB_DOMAIN", storage().listening().str("blob_domain").c_str(), 1);
    zel::Messaging::get().reset_for_tests();
  }
  zel::ClipInfo clip(int64_t start, Reports& r) { return {path, "0A1B2C3D4E5F", start, start + 60, 4096, {}, "", r.callback()}; }
  void connect() {
    EXPECT_TRUE(Upload::connect(cloud.params(), nullptr, nullptr, {}));
    EXPECT_TRUE(cloud.sent("version", connects++, 10s));
  }
  void disconnect_within_bound(bool expected = true) {  // still blocked after 40 s: the watchdog ends the process
    auto done = std::async(std::launch::async, [=, t0 = std::chrono::steady_clock::now()] {
      EXPECT_EQ(Upload::disconnect(), expected);
      EXPECT_LT(std::chrono::steady_clock::now() - t0, 32s);
    });
    if (done.wait_for(40s) != std::future_status::ready) std::fprintf(stderr, "Watchdog: disconnect still blocked\n"), std::_Exit(1);
  }
  Cloud cloud{true, "{\"auto_storage\":true}"};
  LogCapture log;
  TempDir dir;
  const std::string path = dir.file("reentry.bin", std::string(4096, 'r'));
  size_t connects = 0;
  const zel::UploadOpts no_limit{0, 10, 0, {}};
};

TEST_F(Reentry, ProgressFunctionCallsInAndDisconnectStillEnds) {
  connect();
  std::atomic<int> calls{0}, refused{0};
  zel::UploadOpts opts = no_limit;
  opts.upload_callback = [&](const std::string&, int, int64_t, int64_t) {
    if (calls >= 2) return 0;
    Upload::clear_queued_clips();
    Upload::upload_event(zel::EventInfo{1, "0a1b2c3d4e5f", 1614600000, 1614600010, ""});
    refused += !Upload::disconnect() + !Upload::stop() + !Upload::connect(cloud.params(), nullptr, nullptr, {});
    Upload::set_upload_threads(0);
    return ++calls, 0;
  };
  Reports r;
  zel::ClipInfo c = clip(1614600000, r);
  std::atomic<int> connect_in_drain{-1};  // the last report comes during disconnect
  c.callback = [&, record = r.callback()](int state, const zel::ClipInfo& info, std::string m) {
    if (state == zel::CLIP_FAILED) connect_in_drain = Upload::connect(cloud.params(), nullptr, nullptr, {});
    record(state, info, m);
  };
  Upload::upload_clip(c, opts);
  ASSERT_TRUE(r.wait(zel::CLIP_UPLOADING, 10s));
  ASSERT_TRUE(eventually([&] { return calls >= 2; }));
  EXPECT_EQ(refused, 3 * calls);
  EXPECT_GE(log.count("1|Can't resize the upload pool from an upload thread\n"), 2u);
  disconnect_within_bound();
  EXPECT_EQ(r.states().back(), zel::CLIP_FAILED);
  EXPECT_EQ(r.message(zel::CLIP_FAILED), "Upload interrupted by disconnect");
  EXPECT_EQ(connect_in_drain, 0);  // refused at once, not a deadlock
}

TEST_F(Reentry, StalledUploadFailsAndFreesItsSlot) {
  connect();
  Reports first, second;
  Upload::upload_clip(clip(1614600000, first), no_limit);
  Upload::upload_clip(clip(1614600100, second), no_limit);
  ASSERT_TRUE(first.wait(zel::CLIP_UPLOADING, 10s));
  std::this_thread::sleep_for(1500ms);  // the progress check takes its first sample
  zel::advance_clock(61);
  EXPECT_TRUE(first.wait(zel::CLIP_FAILED, 5s));
  EXPECT_NE(first.message(zel::CLIP_FAILED).find("stalled"), std::string::npos) << first.message(7);
  EXPECT_TRUE(second.wait(zel::CLIP_UPLOADING, 5s));
  zel::advance_clock(-61);
  disconnect_within_bound();
}

TEST_F(Reentry, PoolSizeSurvivesReconnectionAndShrinkingDoesNotWait) {
  connect();
  Upload::set_upload_threads(0);  // a pool without threads would strand every clip
  EXPECT_TRUE(log.wait("1|Can't set 0 upload threads while connected; disconnect empties the pool\n"));
  Upload::set_upload_threads(1000);
  EXPECT_TRUE(log.wait("2|Upload threads capped at 64 (asked for 1000)\n"));
  EXPECT_EQ(Upload::stats().upload_threads, 64);
  Upload::set_upload_threads(3);
  disconnect_within_bound();
  std::atomic<bool> stop{false};
  auto reporter = [&] {
    for (; !stop; std::this_thread::sleep_for(1ms))
      Upload::register_camera("0A1B2C3D4E5F"), Upload::send_camera_setting("0A1B2C3D4E5F", "n", "1"), Upload::cloud_sync();
  };
  std::thread a(reporter), b(reporter);
  EXPECT_TRUE(Upload::connect(cloud.params(), nullptr, nullptr, {}));  // the identity, rewritten as both report
  stop = true, a.join(), b.join();
  EXPECT_TRUE(cloud.sent("version", connects++, 10s));
  EXPECT_EQ(Upload::stats().connections, 1);  // counted from this connect
  Reports r[3];
  for (int i = 0; i < 3; ++i) Upload::upload_clip(clip(1614600000 + 100 * i, r[i]), no_limit);
  for (auto& one : r) EXPECT_TRUE(one.wait(zel::CLIP_UPLOADING, 10s));
  auto t0 = std::chrono::steady_clock::now();
  Upload::set_upload_threads(1);  // three uploads are stuck; none is waited for
  EXPECT_LT(std::chrono::steady_clock::now() - t0, 1s);
  disconnect_within_bound();
  for (auto& one : r) EXPECT_EQ(one.message(zel::CLIP_FAILED), "Upload interrupted by disconnect");
}

// While disconnect waits for an upload thread stuck in its progress function, a callback on
// a host thread takes the library and keeps it: disconnect gives up within its bound, and
// the next one finishes the job.
TEST_F(Reentry, DisconnectKeepsItsBoundWhileHostCallbacksHoldOn) {
  std::promise<void> link_down, release, stuck;
  auto held = release.get_future().share();
  EXPECT_TRUE(Upload::connect(cloud.params(), nullptr, [&] { link_down.set_value(); }, {}));
  ASSERT_TRUE(cloud.sent("version", connects++, 10s));
  Reports uploading, queued;
  zel::UploadOpts opts = no_limit;
  opts.upload_callback = [&, once = std::make_shared<std::once_flag>()](auto...) {
    std::call_once(*once, [&] { stuck.set_value(), held.wait(); });
    return 0;
  };
  Upload::upload_clip(clip(1614600000, uploading), opts);
  stuck.get_future().wait();
  zel::ClipInfo c = clip(1614600100, queued);  // one thread: this one waits in the queue
  c.callback = [held](int state, const zel::ClipInfo&, std::string) { state == zel::CLIP_FAILED ? held.wait() : void(); };
  Upload::upload_clip(c, no_limit);
  std::thread host([&] {
    link_down.get_future().wait();
    std::this_thread::sleep_for(2s);  // the worker has ended, the pool is stopping
    Upload::clear_queued_clips();
  });
  disconnect_within_bound(false);
  release.set_value();
  host.join();
  disconnect_within_bound();
  EXPECT_EQ(uploading.message(zel::CLIP_FAILED), "Upload interrupted by disconnect");
}

// A host that exits while connected, from any thread, in or out of a callback: status 0
// within the alarm, never an abort or a hang.
TEST_F(Reentry, ExitWhileConnectedNeitherCrashesNorHangs) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  if (const char* emulator = std::getenv("ZEL_TEST_EMULATOR"); emulator && *emulator) {  // its child too
    std::vector<std::string> argv = ::testing::internal::GetArgvs();
    ::testing::internal::SetInjectableArgvs((argv.insert(argv.begin(), emulator), argv));
  }
  auto stuck = [](auto...) -> int { for (;;) pause(); };
  auto upload_with = [this](zel::UploadProgressCallback progress) {
    Reports r;
    zel::UploadOpts opts = no_limit;
    opts.upload_callback = progress;
    Upload::upload_clip(clip(1614600000, r), opts);
    EXPECT_TRUE(r.wait(zel::CLIP_UPLOADING, 10s));
  };
  const std::vector<std::function<void()>> ways = {
      [] { std::exit(0); },
      [this] {  // from the update callback, on the worker
        Upload::register_ota_update([](zel::UpdateInfo) -> zel::MsgResponse { std::exit(0); });
        cloud.request("update", "{\"url\":\"u\",\"hash\":\"h\"}", "u-1");
      },
      [&] { upload_with([](auto...) -> int { std::exit(0); }); },  // from a progress function
      [&] {  // while the worker and an upload thread are stuck in host callbacks
        upload_with(stuck);
        std::atomic<bool> acting{false};
        Upload::register_perform_action([&](zel::ActionInfo) -> zel::MsgResponse { acting = true, stuck(); return {}; });
        cloud.request("action", "{\"device\":\"d\",\"action\":\"a\",\"value\":1}", "a-1");
        if (eventually([&] { return acting.load(); })) std::exit(0);
      }};
  for (const auto& way : ways)
    EXPECT_EXIT((connect(), alarm(5), way(), sleep(10), std::_Exit(3)), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace zt

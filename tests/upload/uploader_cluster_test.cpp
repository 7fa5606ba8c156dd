// The upload pool against the blob emulator: statuses per clip, pool sizing, work queued
// while every thread is busy, and the hand-back of work no thread has started.
//
// To hold an upload in progress, a clip's progress function blocks on a gate. The function
// is asked only when a new whole second has passed since queuing, so such clips are queued
// with the library's clock set back a few seconds (a seam instead of waiting): their very
// first progress tick already asks. They are queued while the pool has no thread, so no
// thread can start them before the clock is put right again.
#include "upload/uploader_cluster.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "foundation/time_utils.h"
#include "shared_emulator.h"
#include "upload/uploader.h"
#include "upload_test_util.h"

using namespace upload_test;
using zel::PendingClip;
using zel::UploaderCluster;
using zel::UploadStatus;

namespace {

const char kSecret[] = "pool-password";
constexpr auto kPatience = std::chrono::seconds(60);

class Gate {
 public:
  // The progress function that holds its upload until the gate opens.
  zel::UploadProgressCallback hold() {
    return [this](const std::string&, int, int64_t, int64_t) {
      std::unique_lock<std::mutex> lock(mutex_);
      ++entered_;
      cv_.notify_all();
      cv_.wait(lock, [this] { return open_; });
      return 0;
    };
  }
  bool wait_entered(int n) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cv_.wait_for(lock, kPatience, [&] { return entered_ >= n; });
  }
  int entered() {
    std::lock_guard<std::mutex> lock(mutex_);
    return entered_;
  }
  void open() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    cv_.notify_all();
  }
  ~Gate() { open(); }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  int entered_ = 0;
  bool open_ = false;
};

std::string key_of(const PendingClip& p) {
  return p.clip.camera_mac + std::to_string(p.clip.start_time);
}

class UploaderClusterTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(emulator().ensure_running()) << emulator().error; }

  static zel_test::Azurite& az() { return emulator().az; }

  PendingClip pending(const std::string& path, int64_t start_time) {
    PendingClip p;
    p.clip.path = path;
    p.clip.camera_mac = kCamera;
    p.clip.start_time = start_time;
    p.clip.end_time = start_time + 10;
    p.clip.size = static_cast<int64_t>(std::filesystem::file_size(path));
    p.opts.upload_option = 1;
    p.opts.timeout_seconds = 10;
    p.opts.confirm_timeout = 60;
    p.credentials.account = zel_test::Azurite::kAccount;
    p.credentials.token = az().account_sas();
    p.credentials.secret = kSecret;
    p.credentials.start_at = "2024-01-01T00:00:00Z";
    p.credentials.camera_mac = kCamera;
    p.credentials.expires_at = zel::time_now() + 240;
    p.nvr_mac = kNvr;
    return p;
  }

  static void queue_seen_as_waiting(UploaderCluster& pool, const PendingClip& p) {
    zel::advance_clock(-5);
    pool.upload(p);
    zel::advance_clock(5);
  }

  // Collects statuses until every key has reached 5 or 7 (or patience runs out).
  static std::map<std::string, std::vector<UploadStatus>> collect(UploaderCluster& pool,
                                                                  std::vector<std::string> keys) {
    std::map<std::string, std::vector<UploadStatus>> by_key;
    auto deadline = std::chrono::steady_clock::now() + kPatience;
    auto done = [&] {
      for (const auto& k : keys) {
        auto it = by_key.find(k);
        if (it == by_key.end() || it->second.empty() || it->second.back().state < 5) return false;
      }
      return true;
    };
    while (!done() && std::chrono::steady_clock::now() < deadline) {
      for (const UploadStatus& s : pool.get_statuses()) by_key[s.key].push_back(s);
      if (!done()) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return by_key;
  }
};

TEST_F(UploaderClusterTest, EachClipReportsStartThenOutcomeExactlyOnce) {
  std::string good_clip = make_clip("pool-good.mp4", 300000, 41);
  std::string expected_cipher = openssl_encrypt(good_clip, kSecret);
  UploaderCluster pool(zel_test::test_certs().ca);
  EXPECT_TRUE(pool.get_statuses().empty());
  EXPECT_EQ(pool.size(), 1u);

  PendingClip good = pending(good_clip, 1704067200);
  PendingClip refused = pending(good_clip, 1704067260);
  refused.credentials.token = az().account_sas(zel_test::Azurite::kAccount, "rl");
  pool.upload(good);
  pool.upload(refused);
  auto by_key = collect(pool, {key_of(good), key_of(refused)});

  ASSERT_EQ(key_of(good), "aabbccddeeff1704067200");
  ASSERT_EQ(by_key[key_of(good)].size(), 2u);
  const UploadStatus& started = by_key[key_of(good)][0];
  const UploadStatus& uploaded = by_key[key_of(good)][1];
  EXPECT_EQ(started.state, 4);
  EXPECT_EQ(started.message, "");
  EXPECT_EQ(started.bytes, 0);
  EXPECT_EQ(uploaded.state, 5);
  EXPECT_EQ(uploaded.message.rfind("Uploaded: " + good_clip + "\nTo: https://devstoreaccount1", 0),
            0u)
      << uploaded.message;
  EXPECT_EQ(uploaded.bytes, static_cast<int64_t>(expected_cipher.size()));

  ASSERT_EQ(by_key[key_of(refused)].size(), 2u);
  EXPECT_EQ(by_key[key_of(refused)][0].state, 4);
  const UploadStatus& failed = by_key[key_of(refused)][1];
  EXPECT_EQ(failed.state, 7);
  EXPECT_EQ(failed.bytes, 0);
  EXPECT_EQ(failed.message, std::string("curl_easy_perform() failed: ") +
                                curl_easy_strerror(CURLE_OK) + " HTTP Status Code: 403");

  EXPECT_TRUE(pool.get_statuses().empty()) << "statuses are delivered once";
  std::string stored =
      az().get_blob(std::string(kNvr) + "/" + kCamera + "/2024-01-01/1704067200.mp4");
  EXPECT_TRUE(openssl_decrypt(stored, kSecret) == read_file(good_clip));
}

TEST_F(UploaderClusterTest, TheJobIsACopyTakenWhenQueued) {
  std::string clip = make_clip("pool-copy.mp4", 5000, 42);
  UploaderCluster pool(zel_test::test_certs().ca);
  pool.set_size(0);
  {
    PendingClip p = pending(clip, 1704067300);
    pool.upload(p);
    p.clip.path = "/nonexistent";
    p.credentials.token = "sig=broken";
    p.credentials.secret = "other";
  }  // and gone
  PendingClip wrong_size = pending(clip, 1704067301);
  wrong_size.clip.size = 4999;
  pool.upload(wrong_size);
  EXPECT_EQ(pool.queued(), 2u);
  pool.set_size(1);
  auto by_key = collect(pool, {"aabbccddeeff1704067300", "aabbccddeeff1704067301"});
  ASSERT_EQ(by_key["aabbccddeeff1704067300"].size(), 2u);
  EXPECT_EQ(by_key["aabbccddeeff1704067300"][1].state, 5)
      << by_key["aabbccddeeff1704067300"][1].message;
  std::string stored =
      az().get_blob(std::string(kNvr) + "/" + kCamera + "/2024-01-01/1704067300.mp4");
  EXPECT_TRUE(openssl_decrypt(stored, kSecret) == read_file(clip));
  ASSERT_EQ(by_key["aabbccddeeff1704067301"].size(), 2u);
  EXPECT_EQ(by_key["aabbccddeeff1704067301"][1].state, 7);
  EXPECT_EQ(by_key["aabbccddeeff1704067301"][1].message,
            "Clip file size changed: expected 4999 got 5000");
}

TEST_F(UploaderClusterTest, PoolSizeIsTheNumberOfUploadsInProgress) {
  std::string clip = make_clip("pool-size.mp4", 2 * 1024 * 1024, 43);
  UploaderCluster pool(zel_test::test_certs().ca);
  {
    // Three threads: three uploads held at once, nothing left waiting.
    Gate gate;
    pool.set_size(0);
    std::vector<std::string> keys;
    for (int i = 0; i < 3; ++i) {
      PendingClip p = pending(clip, 1704068000 + i);
      p.opts.upload_callback = gate.hold();
      queue_seen_as_waiting(pool, p);
      keys.push_back(key_of(p));
    }
    pool.set_size(3);
    EXPECT_EQ(pool.size(), 3u);
    ASSERT_TRUE(gate.wait_entered(3)) << "only " << gate.entered() << " uploads started";
    EXPECT_EQ(pool.queued(), 0u);

    // Same size again: nothing happens, in particular no thread is stopped and joined
    // (which would wait for a held upload).
    auto same = std::async(std::launch::async, [&] { pool.set_size(3); });
    EXPECT_EQ(same.wait_for(kPatience), std::future_status::ready);

    // Shrinking does not wait: the threads that go finish their uploads in the background.
    auto shrink = std::async(std::launch::async, [&] { pool.set_size(1); });
    EXPECT_EQ(shrink.wait_for(kPatience), std::future_status::ready);
    EXPECT_EQ(pool.size(), 1u);
    gate.open();
    auto by_key = collect(pool, keys);
    for (const auto& k : keys) {
      ASSERT_EQ(by_key[k].size(), 2u) << k;
      EXPECT_EQ(by_key[k][1].state, 5) << k << ": " << by_key[k][1].message;
    }
  }
  {
    // One thread: one upload held, the next waits in the queue, then follows in order.
    Gate gate;
    pool.set_size(0);
    EXPECT_EQ(pool.size(), 0u);
    PendingClip first = pending(clip, 1704068100);
    first.opts.upload_callback = gate.hold();
    PendingClip second = pending(clip, 1704068101);
    queue_seen_as_waiting(pool, first);
    pool.upload(second);
    pool.set_size(1);
    ASSERT_TRUE(gate.wait_entered(1));
    EXPECT_EQ(pool.queued(), 1u);
    gate.open();
    auto by_key = collect(pool, {key_of(first), key_of(second)});
    EXPECT_EQ(by_key[key_of(first)].size(), 2u);
    EXPECT_EQ(by_key[key_of(second)].size(), 2u);
    EXPECT_EQ(by_key[key_of(second)].back().state, 5);
  }
}

// Work queued while the only thread is uploading is picked up when that upload ends,
// without any further call to the pool.
TEST_F(UploaderClusterTest, WorkQueuedWhileEveryThreadIsBusyIsNotLost) {
  std::string clip = make_clip("pool-busy.mp4", 1024 * 1024, 44);
  UploaderCluster pool(zel_test::test_certs().ca);
  Gate gate;
  pool.set_size(0);
  PendingClip busy = pending(clip, 1704069000);
  busy.opts.upload_callback = gate.hold();
  queue_seen_as_waiting(pool, busy);
  pool.set_size(1);
  ASSERT_TRUE(gate.wait_entered(1));

  PendingClip later = pending(clip, 1704069001);
  pool.upload(later);  // its notification arrives while the thread is held
  gate.open();
  auto by_key = collect(pool, {key_of(busy), key_of(later)});
  ASSERT_EQ(by_key[key_of(later)].size(), 2u) << "the clip queued while busy was never started";
  EXPECT_EQ(by_key[key_of(later)][0].state, 4);
  EXPECT_EQ(by_key[key_of(later)][1].state, 5) << by_key[key_of(later)][1].message;
}

TEST_F(UploaderClusterTest, QueuedWorkCanBeTakenBackUnstarted) {
  std::string clip = make_clip("pool-take.mp4", 1024 * 1024, 45);
  UploaderCluster pool(zel_test::test_certs().ca);
  {
    Gate gate;
    pool.set_size(0);
    PendingClip held = pending(clip, 1704070000);
    held.opts.upload_callback = gate.hold();
    PendingClip b = pending(clip, 1704070001);
    PendingClip c = pending(clip, 1704070002);
    queue_seen_as_waiting(pool, held);
    pool.upload(b);
    pool.upload(c);
    pool.set_size(1);
    ASSERT_TRUE(gate.wait_entered(1));
    EXPECT_EQ(pool.take_queued_keys(), (std::vector<std::string>{key_of(b), key_of(c)}));
    EXPECT_EQ(pool.queued(), 0u);
    EXPECT_TRUE(pool.take_queued_keys().empty());
    gate.open();
    auto by_key = collect(pool, {key_of(held)});
    EXPECT_EQ(by_key[key_of(held)].size(), 2u);
    pool.set_size(0);
    for (const UploadStatus& s : pool.get_statuses()) by_key[s.key].push_back(s);
    EXPECT_EQ(by_key.count(key_of(b)), 0u) << "a taken-back clip was uploaded";
    EXPECT_EQ(by_key.count(key_of(c)), 0u) << "a taken-back clip was uploaded";
    EXPECT_EQ(az().blob_properties(std::string(kNvr) + "/" + kCamera + "/2024-01-01/1704070001.mp4")
                  .status,
              404);
  }
  {
    // Disconnect: with no thread left, whatever is queued stays there to be handed back.
    PendingClip d = pending(clip, 1704070003);
    pool.upload(d);
    EXPECT_EQ(pool.queued(), 1u);
    EXPECT_EQ(pool.take_queued_keys(), (std::vector<std::string>{key_of(d)}));
    EXPECT_TRUE(pool.get_statuses().empty());
  }
}

TEST_F(UploaderClusterTest, AFailingHostCallbackFailsTheClipAndTheThreadCarriesOn) {
  std::string clip = make_clip("pool-throw.mp4", 100000, 46);
  UploaderCluster pool(zel_test::test_certs().ca);
  pool.set_size(0);
  PendingClip throwing = pending(clip, 1704071000);
  throwing.opts.upload_callback = [](const std::string&, int, int64_t, int64_t) -> int {
    throw std::runtime_error("host callback broke");
  };
  PendingClip next = pending(clip, 1704071001);
  queue_seen_as_waiting(pool, throwing);
  pool.upload(next);
  pool.set_size(1);
  auto by_key = collect(pool, {key_of(throwing), key_of(next)});
  ASSERT_EQ(by_key[key_of(throwing)].size(), 2u);
  EXPECT_EQ(by_key[key_of(throwing)][1].state, 7);
  EXPECT_NE(by_key[key_of(throwing)][1].message.find("host callback broke"), std::string::npos)
      << by_key[key_of(throwing)][1].message;
  ASSERT_EQ(by_key[key_of(next)].size(), 2u);
  EXPECT_EQ(by_key[key_of(next)][1].state, 5) << by_key[key_of(next)][1].message;
}

}  // namespace

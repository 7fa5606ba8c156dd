// Clips from intake to confirmation against the real peers: the messaging server and
// the blob storage emulator over HTTPS, with openssl as the judge of the encryption.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <regex>
#include <thread>

#include "clips/clip_recorder.h"
#include "foundation/time_utils.h"
#include "messaging/messaging.h"
#include "support/cloud_server.h"
#include "support/device_session.h"
#include "support/log_capture.h"
#include "support/wire.h"
#include "upload/shared_emulator.h"
#include "upload/upload_test_util.h"
#include "zel/upload.h"

namespace clip_test {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using zel_test::CloudServer;
using zel_test::DeviceSession;
using zel_test::wait_sent;

const char* kSecret = "clip-secret-1";
const std::string kNvr = "00aabbccddee";  // the device MAC, lower-cased: also the container
constexpr int64_t kStart = 1614600000;          // 2021-03-01T12:00:00Z

class Pipeline : public ::testing::Test {
 protected:
  void SetUp() override {
    auto& em = upload_test::emulator();
    ASSERT_TRUE(em.ensure_running()) << em.error;
    ASSERT_TRUE(em.az.create_container(kNvr)) << em.az.output();
  }
  // The server answers storage requests with credentials for the emulator and
  // acknowledges record-end transactions, unless a test switches that off.
  void auto_answer(CloudServer& server, bool storage, bool ack, const std::string& token = "") {
    auto& az = upload_test::emulator().az;
    std::string sas = token.empty() ? az.account_sas() : token;
    ASSERT_TRUE(server.set(std::string("{\"auto_storage\":") + (storage ? "true" : "false") +
                           ",\"auto_ack\":" + (ack ? "true" : "false") +
                           ",\"storage_account\":\"devstoreaccount1\",\"storage_token\":\"" + sas +
                           "\",\"storage_secret\":\"" + kSecret + "\"}"));
  }
  // Blob containers take no colons, so this recorder's MAC is written without them.
  zel::CloudConnect params(CloudServer& server) {
    zel::CloudConnect cc = zel_test::connect_params(server);
    cc.mac_address = "00AABBCCDDEE";
    return cc;
  }
  zel::ClipInfo clip(const std::string& path, int64_t start, ClipRecorder& rec,
                     const std::string& camera = "0A1B2C3D4E5F") {
    zel::ClipInfo c;
    c.path = path;
    c.camera_mac = camera;
    c.start_time = start;
    c.end_time = start + 60;
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (f != nullptr) {
      std::fseek(f, 0, SEEK_END);
      c.size = std::ftell(f);
      std::fclose(f);
    }
    c.keyframe_times = {0, 2.5, 7654321};
    c.metadata = "meta-1";
    c.callback = rec.callback();
    return c;
  }
};

bool is_archive(const std::string& text) {
  return text.find("\"model\":\"archive\"") != std::string::npos;
}

// Waits until the server has received exactly n record-end transactions.
bool wait_for_archives(CloudServer& server, size_t n, std::chrono::milliseconds timeout) {
  return server.wait_for(
      [n](const std::vector<CloudServer::Event>& events) {
        size_t seen = 0;
        for (const auto& e : events) seen += e.kind == "message" && is_archive(e.text);
        return seen == n;
      },
      timeout);
}

std::string now_free(const std::string& text) {
  static const std::regex iso("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}Z");
  return std::regex_replace(text, iso, "<t>");
}

TEST_F(Pipeline, OneClipRunsFromIntakeToConfirmation) {
  CloudServer server;
  auto_answer(server, true, true);
  DeviceSession device(server, params(server));
  std::string path = upload_test::make_clip("whole.mp4", 100000, 7);
  ClipRecorder rec;
  zel::Upload::upload_clip(clip(path, kStart, rec));
  ASSERT_TRUE(rec.wait_for_final(30s));
  EXPECT_THAT(rec.states(), ElementsAre(0, 2, 3, 4, 5, 6)) << rec.message_of(7);
  EXPECT_THAT(rec.message_of(5), HasSubstr("Uploaded: " + path + "\nTo: https://devstoreaccount1"));

  // The storage access request and the record-end transaction, byte for byte.
  auto request = wait_sent(server, "storage_access_request", 0);
  ASSERT_TRUE(request);
  std::string req_content = zel_test::json_member(*request, "content");
  std::string created = zel_test::json_string(zel_test::json_member(req_content, "properties"), "created_at");
  EXPECT_EQ(req_content,
            "{\"type\":\"storage_access_request\",\"subject\":\"storage_access_request\",\"nvrId\":\"" +
                kNvr +
                "\",\"provider\":\"azure\",\"properties\":{\"provider\":\"azure\",\"cameraMac\":"
                "\"0a1b2c3d4e5f\",\"start_at\":\"2021-03-01T12:00:00Z\",\"end_at\":"
                "\"2021-03-01T12:01:00Z\",\"bytes\":\"100000\",\"created_at\":\"" + created +
                "\",\"updated_at\":\"" + created + "\"}}");
  EXPECT_EQ(zel_test::json_string(*request, "to"), "zel-inbound");

  std::optional<std::string> archive;
  for (size_t i = 0; !archive; ++i) {
    auto t = wait_sent(server, "transaction", i);
    ASSERT_TRUE(t);
    if (is_archive(*t)) archive = t;
  }
  EXPECT_EQ(now_free(zel_test::json_member(*archive, "content")),
            "{\"topic\":\"transaction\",\"model\":\"archive\",\"method\":\"changed\",\"nvrMac\":\"" + kNvr +
                "\",\"apiVersion\":\"2\",\"properties\":{\"mac_address\":\"0a1b2c3d4e5f\","
                "\"start_at\":\"<t>\",\"end_at\":\"<t>\",\"created_at\":\"<t>\",\"updated_at\":\"<t>\","
                "\"upload_start_at\":\"<t>\",\"upload_end_at\":\"<t>\",\"keyframe_times\":"
                "\"[0,2.5,7.65432e+06]\",\"metadata\":\"meta-1\",\"duration\":\"60\",\"bytes\":\"100016\"},"
                "\"subject\":\"transaction\"}");
  EXPECT_THAT(*archive, HasSubstr("\"start_at\":\"2021-03-01T12:00:00Z\",\"end_at\":\"2021-03-01T12:01:00Z\""));
  EXPECT_EQ(zel_test::json_string(*archive, "to"), "jobs");

  // The blob: where the name says, a block blob of the encrypted size, and openssl
  // turns it back into the clip.
  auto& az = upload_test::emulator().az;
  std::string blob = az.get_blob(kNvr + "/0a1b2c3d4e5f/2021-03-01/1614600000.mp4");
  EXPECT_EQ(blob.size(), 100016u);
  EXPECT_EQ(upload_test::openssl_decrypt(blob, kSecret), upload_test::read_file(path));
  EXPECT_TRUE(zel::Messaging::get().get_unacked_clips().empty());
}

TEST_F(Pipeline, PendingClipsNeverOutnumberUploadThreads) {
  CloudServer server;
  auto_answer(server, false, true);
  DeviceSession device(server, params(server));
  zel::Upload::set_upload_threads(3);
  ClipRecorder recs[5];
  std::string path = upload_test::make_clip("five.mp4", 5000, 3);
  for (int i = 0; i < 5; ++i) zel::Upload::upload_clip(clip(path, kStart + i * 100, recs[i]));
  ASSERT_TRUE(wait_sent(server, "storage_access_request", 2));
  EXPECT_FALSE(wait_sent(server, "storage_access_request", 3, 1500ms));
  EXPECT_EQ(zel_test::count_sent(server, "storage_access_request"), 3u);

  // One answer frees one slot once its clip is uploaded; only then the fourth request.
  std::string sas = upload_test::emulator().az.account_sas();
  server.request("getStorageAccess",
                 "{\"account\":\"devstoreaccount1\",\"token\":\"" + sas + "\",\"secret\":\"s\","
                 "\"start_at\":\"" + std::to_string(kStart + 100) + "\",\"camera_mac\":\"0a1b2c3d4e5f\"}");
  ASSERT_TRUE(recs[1].wait_for_state(zel::CLIP_CONFIRMED, 20s)) << recs[1].message_of(7);
  ASSERT_TRUE(wait_sent(server, "storage_access_request", 3));
  EXPECT_EQ(zel_test::count_sent(server, "storage_access_request"), 4u);
  EXPECT_THAT(recs[3].states(), ElementsAre(0, 2));
  EXPECT_THAT(recs[4].states(), ElementsAre(0));
}

TEST_F(Pipeline, StorageFailuresEndTheClipAndTheNextOneStillUploads) {
  CloudServer server;
  zel_test::LogCapture log;
  // A SAS signed with the wrong key: the service refuses the PUT.
  auto& az = upload_test::emulator().az;
  std::string bad_sas = std::regex_replace(az.account_sas(), std::regex("sig=[^&]+"), "sig=AAAA");
  auto_answer(server, true, true, bad_sas);
  DeviceSession device(server, params(server));
  std::string path = upload_test::make_clip("refused.mp4", 3000, 4);
  ClipRecorder refused;
  zel::Upload::upload_clip(clip(path, kStart + 5000, refused));
  ASSERT_TRUE(refused.wait_for_final(30s));
  EXPECT_THAT(refused.states(), ElementsAre(0, 2, 3, 4, 7));
  EXPECT_THAT(refused.message_of(7), HasSubstr("curl_easy_perform() failed: "));
  EXPECT_THAT(refused.message_of(7), HasSubstr(" HTTP Status Code: 403"));

  // A clip file that changed after intake is not uploaded with the wrong length.
  auto_answer(server, true, true);
  std::string grown = upload_test::make_clip("grown.mp4", 3000, 5);
  ClipRecorder changed;
  zel::Upload::upload_clip(clip(grown, kStart + 6000, changed));
  upload_test::write_file(grown, upload_test::random_bytes(4000, 5));
  ASSERT_TRUE(changed.wait_for_final(30s));
  EXPECT_EQ(changed.states().back(), zel::CLIP_FAILED);
  EXPECT_THAT(changed.message_of(7), HasSubstr("3000"));

  ClipRecorder good;
  zel::Upload::upload_clip(clip(path, kStart + 7000, good));
  ASSERT_TRUE(good.wait_for_final(30s));
  EXPECT_THAT(good.states(), ElementsAre(0, 2, 3, 4, 5, 6)) << good.message_of(7);
}

TEST_F(Pipeline, LateCredentialsAndConfirmationsTimeOut) {
  CloudServer server;
  zel_test::LogCapture log;
  auto_answer(server, false, false);
  DeviceSession device(server, params(server));
  std::string path = upload_test::make_clip("late.mp4", 2000, 6);
  ClipRecorder waiting;
  zel::Upload::upload_clip(clip(path, kStart + 8000, waiting));
  ASSERT_TRUE(waiting.wait_for_state(zel::CLIP_WAITING_CREDENTIALS, 5s));
  zel::advance_clock(11);
  ASSERT_TRUE(waiting.wait_for_state(zel::CLIP_FAILED, 5s));
  EXPECT_EQ(waiting.message_of(7), "Credentials took more than 10 seconds");

  // Credentials that come later, or with an upper-case MAC, wait in the table and expire.
  server.request("getStorageAccess",
                 "{\"account\":\"a\",\"token\":\"t\",\"secret\":\"s\",\"start_at\":\"" +
                     std::to_string(kStart + 8000) + "\",\"camera_mac\":\"0A1B2C3D4E5F\"}",
                 "creds-upper");
  ASSERT_TRUE(server.wait_for_reply("creds-upper", 5s));
  zel::advance_clock(241);
  EXPECT_TRUE(log.wait_for("Credentials for 0A1B2C3D4E5F/" + std::to_string(kStart + 8000) + " expired.\n", 5s));

  // Uploaded but never acknowledged: the confirmation times out once, and a
  // re-submission asks again.
  auto_answer(server, true, false);
  ClipRecorder unacked;
  zel::ClipInfo c = clip(path, kStart + 9000, unacked, "0a1b2c3d4e5f");
  zel::Upload::upload_clip(c);
  ASSERT_TRUE(unacked.wait_for_state(zel::CLIP_UPLOADED, 30s)) << unacked.message_of(7);
  // The clock may move only once the record-end message has left (it stamps the wait).
  ASSERT_TRUE(wait_for_archives(server, 1, 5s));
  zel::advance_clock(11);
  ASSERT_TRUE(unacked.wait_for_state(zel::CLIP_FAILED, 5s));
  EXPECT_EQ(unacked.message_of(7), "Upload confirmation took more than 10 seconds");
  zel::advance_clock(11);
  std::this_thread::sleep_for(300ms);
  EXPECT_THAT(unacked.states(), ElementsAre(0, 2, 3, 4, 5, 7));  // reported once

  ClipRecorder again;
  c.callback = again.callback();
  size_t archives_before = 0;
  for (const auto& m : server.messages()) archives_before += is_archive(m);
  zel::Upload::upload_clip(c);
  EXPECT_THAT(again.states(), ElementsAre(5));
  EXPECT_EQ(again.message_of(5), "Re-sending upload confirmation");
  ASSERT_TRUE(wait_for_archives(server, archives_before + 1, 5s));
  server.request("transactionAck",
                 "{\"type\":\"archive\",\"from\":\"0a1b2c3d4e5f\",\"start_at\":\"" +
                     zel::toISOTime(kStart + 9000) + "\"}");
  // The confirmation reaches the clip that was uploaded, through its own callback.
  ASSERT_TRUE(unacked.wait_for_state(zel::CLIP_CONFIRMED, 5s));
  EXPECT_THAT(unacked.states(), ElementsAre(0, 2, 3, 4, 5, 7, 6));
  EXPECT_THAT(again.states(), ElementsAre(5));
}

TEST_F(Pipeline, CallbacksThatThrowOrAreMissingDoNotStrandTheClip) {
  CloudServer server;
  zel_test::LogCapture log;
  auto_answer(server, true, true);
  DeviceSession device(server, params(server));
  std::string path = upload_test::make_clip("throwing.mp4", 1500, 8);
  ClipRecorder rec;
  zel::ClipInfo c = clip(path, kStart + 10000, rec);
  auto inner = rec.callback();
  c.callback = [inner](int state, const zel::ClipInfo& info, std::string message) {
    inner(state, info, message);
    if (state == zel::CLIP_UPLOADING) throw std::runtime_error("host bug");
  };
  zel::Upload::upload_clip(c);
  ASSERT_TRUE(rec.wait_for_final(30s));
  EXPECT_THAT(rec.states(), ElementsAre(0, 2, 3, 4, 5, 6));
  EXPECT_TRUE(log.wait_for_containing("host bug", 1s));

  zel::ClipInfo silent = clip(path, kStart + 11000, rec);
  silent.callback = nullptr;
  zel::Upload::upload_clip(silent);
  std::string blob_path = kNvr + "/0a1b2c3d4e5f/2021-03-01/" + std::to_string(kStart + 11000) + ".mp4";
  ASSERT_TRUE(wait_for_archives(server, 2, 30s));
  EXPECT_EQ(upload_test::emulator().az.get_blob(blob_path).size(), 1504u);
}

TEST_F(Pipeline, DisconnectDuringUploadsLeavesNoClipPending) {
  CloudServer server;
  auto_answer(server, true, false);
  ClipRecorder rec;
  {
    DeviceSession device(server, params(server));
    std::string path = upload_test::make_clip("slow.mp4", 4 * 1024 * 1024, 9);
    zel::ClipInfo c = clip(path, kStart + 12000, rec);
    zel::UploadOpts opts;
    opts.upload_callback = [](const std::string&, int, int64_t, int64_t) {
      std::this_thread::sleep_for(20ms);  // a slow uplink
      return 0;
    };
    zel::Upload::upload_clip(c, opts);
    ASSERT_TRUE(rec.wait_for_state(zel::CLIP_UPLOADING, 20s));
    auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(zel::Upload::disconnect());
    EXPECT_LT(std::chrono::steady_clock::now() - start, 35s);
    EXPECT_TRUE(zel::Messaging::get().get_pending_clips().empty());
  }
  std::vector<int> states = rec.states();
  ASSERT_FALSE(states.empty());
  EXPECT_TRUE(states.back() == zel::CLIP_UPLOADED || states.back() == zel::CLIP_FAILED)
      << states.back();
}

}  // namespace
}  // namespace clip_test

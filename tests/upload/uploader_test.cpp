// Uploader against the blob emulator over HTTPS (and, for what the emulator cannot show or
// never answers, a recording HTTPS endpoint). Blobs are read back from the emulator and
// decrypted with the openssl command.
#include "upload/uploader.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <mutex>
#include <regex>
#include <string>
#include <vector>

#include "foundation/log.h"
#include "foundation/time_utils.h"
#include "https_recorder.h"
#include "shared_emulator.h"
#include "upload_test_util.h"

using namespace upload_test;
using zel::UploadData;
using zel::Uploader;
using zel::UploadResult;

namespace {

const char kSecret[] = "clip-password-7";

std::string failed_text(CURLcode code) {
  return std::string("curl_easy_perform() failed: ") + curl_easy_strerror(code);
}

// Every log line written while it lives.
class LogCapture {
 public:
  LogCapture() {
    zel::set_log_observer([this](int level, const std::string& line) {
      std::lock_guard<std::mutex> lock(mutex_);
      lines_.emplace_back(level, line);
    });
  }
  ~LogCapture() { zel::set_log_observer(nullptr); }
  bool has(int level, const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& [l, line] : lines_)
      if (l == level && line.find(text) != std::string::npos) return true;
    return false;
  }
  std::string all() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::string s;
    for (const auto& [l, line] : lines_) s += std::to_string(l) + ": " + line;
    return s;
  }

 private:
  std::mutex mutex_;
  std::vector<std::pair<int, std::string>> lines_;
};

class UploaderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(emulator().ensure_running()) << emulator().error;
    zel::uploader_global_init();
  }
  void TearDown() override {
    // Tests that point the library elsewhere must not leak that into the next test.
    setenv("ZEL_BLOB_DOMAIN", az().blob_domain().c_str(), 1);
  }

  static zel_test::Azurite& az() { return emulator().az; }

  UploadData job(const std::string& path, int64_t start_time,
                 const std::string& account = zel_test::Azurite::kAccount) {
    UploadData d;
    d.start = zel::time_now();
    d.nvr_mac = kNvr;
    d.camera_mac = kCamera;
    d.start_time = start_time;
    d.path = path;
    d.account = account;
    d.token = az().account_sas(account);
    d.secret = kSecret;
    d.expect_timeout_s = 1;
    d.timeout_s = 60;
    d.expected_size = static_cast<int64_t>(std::filesystem::file_size(path));
    return d;
  }

  static std::string blob_path(int64_t start_time, const std::string& day) {
    return std::string(kNvr) + "/" + kCamera + "/" + day + "/" + std::to_string(start_time) +
           ".mp4";
  }
};

TEST_F(UploaderTest, StoresTheEncryptedClipAsABlockBlobUnderItsDatePath) {
  std::string clip = make_clip("upload-main.mp4", 3 * 1024 * 1024 + 5, 21);
  std::string expected_cipher = openssl_encrypt(clip, kSecret);
  Uploader uploader(zel_test::test_certs().ca);
  UploadData d = job(clip, 1704067200);  // 2024-01-01T00:00:00Z
  UploadResult r = uploader.upload(d);
  ASSERT_TRUE(r.success) << r.message;
  EXPECT_EQ(r.bytes, expected_cipher.size());

  const std::string path = blob_path(1704067200, "2024-01-01");
  const std::string head =
      "Uploaded: " + clip + "\nTo: " + az().endpoint() + "/" + path + "\nSpeed: ";
  ASSERT_EQ(r.message.substr(0, head.size()), head);
  EXPECT_TRUE(std::regex_match(r.message.substr(head.size()),
                               std::regex("[0-9.e+]+ kbytes/sec during [0-9.e+-]+ seconds")))
      << r.message;

  zel_test::BlobProperties props = az().blob_properties(path);
  EXPECT_EQ(props.status, 200);
  EXPECT_EQ(props.blob_type, "BlockBlob");
  EXPECT_EQ(props.length, static_cast<int64_t>(expected_cipher.size()));
  std::string stored = az().get_blob(path);
  EXPECT_TRUE(stored == expected_cipher) << "stored bytes differ from openssl's ciphertext";
  EXPECT_TRUE(openssl_decrypt(stored, kSecret) == read_file(clip));
}

TEST_F(UploaderTest, DateFolderIsTheUtcDayOfTheStart) {
  std::string clip = make_clip("upload-dates.mp4", 1000, 22);
  Uploader uploader(zel_test::test_certs().ca);
  const std::vector<std::pair<int64_t, std::string>> cases = {
      {0, "1970-01-01"}, {1704067199, "2023-12-31"}, {1709208000, "2024-02-29"}};
  for (const auto& [start, day] : cases) {
    UploadData d = job(clip, start);
    UploadResult r = uploader.upload(d);
    ASSERT_TRUE(r.success) << r.message;
    zel_test::BlobProperties props = az().blob_properties(blob_path(start, day));
    EXPECT_EQ(props.status, 200) << "no blob at " << blob_path(start, day);
    EXPECT_EQ(props.length, 1008);
  }
}

TEST_F(UploaderTest, HandleIsKeptPerAccountAndRenewedAfterAFailure) {
  std::string clip = make_clip("upload-accounts.mp4", 5000, 23);
  Uploader uploader(zel_test::test_certs().ca);
  EXPECT_EQ(uploader.handles_made(), 0u);

  UploadData a1 = job(clip, 1704067201);
  ASSERT_TRUE(uploader.upload(a1).success);
  UploadData a2 = job(clip, 1704067202);
  ASSERT_TRUE(uploader.upload(a2).success);
  EXPECT_EQ(uploader.handles_made(), 1u) << "same account: the handle is reused";

  UploadData b = job(clip, 1704067203, kSecondAccount);
  UploadResult rb = uploader.upload(b);
  ASSERT_TRUE(rb.success) << rb.message;
  EXPECT_EQ(uploader.handles_made(), 2u) << "another account: a new handle";
  EXPECT_EQ(az().blob_properties(blob_path(1704067203, "2024-01-01"), kSecondAccount).status, 200);
  EXPECT_EQ(az().blob_properties(blob_path(1704067203, "2024-01-01")).status, 404)
      << "the second account's blob must not land in the first account";

  UploadData bad = job(clip, 1704067204, kSecondAccount);
  bad.token = az().account_sas(kSecondAccount, "rl");
  ASSERT_FALSE(uploader.upload(bad).success);
  UploadData after = job(clip, 1704067205, kSecondAccount);
  ASSERT_TRUE(uploader.upload(after).success);
  EXPECT_EQ(uploader.handles_made(), 3u) << "a failure drops the handle";
}

// Refusals by the service: the status goes into the message, the service's own error
// code into a warning, and nothing is stored.
TEST_F(UploaderTest, RefusalsReportStatusAndServiceErrorCode) {
  std::string clip = make_clip("upload-refused.mp4", 2000, 24);
  struct Case {
    std::string name;
    std::string token;
    std::string container;
    long status;
    std::string code;
  };
  std::string good = az().account_sas();
  std::string bad_sig = std::regex_replace(good, std::regex("sig=[^&]*"), "sig=AAAA");
  const std::vector<Case> cases = {
      {"signature does not match", bad_sig, kNvr, 403, "AuthorizationFailure"},
      {"no write permission", az().account_sas(zel_test::Azurite::kAccount, "rl"), kNvr, 403,
       "AuthorizationPermissionMismatch"},
      {"container missing", good, "ffeeddccbbaa", 404, "ContainerNotFound"},
  };
  for (const Case& c : cases) {
    LogCapture log;
    Uploader uploader(zel_test::test_certs().ca);
    UploadData d = job(clip, 1704075555);
    d.token = c.token;
    d.nvr_mac = c.container;
    UploadResult r = uploader.upload(d);
    EXPECT_FALSE(r.success) << c.name;
    EXPECT_EQ(r.bytes, 0u) << c.name;
    EXPECT_EQ(r.message, failed_text(CURLE_OK) + " HTTP Status Code: " + std::to_string(c.status))
        << c.name;
    EXPECT_TRUE(log.has(zel::LOG_WARN, c.code)) << c.name << "; log:\n" << log.all();
    EXPECT_FALSE(log.has(zel::LOG_WARN, "sig=")) << "the signature must not reach the log";
  }
  EXPECT_EQ(az().blob_properties(blob_path(1704075555, "2024-01-01")).status, 404);
}

TEST_F(UploaderTest, ProgressFunctionDecidesAndSeesTheClip) {
  std::string clip = make_clip("upload-progress.mp4", 200000, 25);
  const size_t encrypted = openssl_encrypt(clip, kSecret).size();
  {
    // Queued five seconds ago (a seam instead of waiting): the first progress tick already
    // counts as a new second, so the function is asked at once.
    std::vector<std::tuple<std::string, int, int64_t>> calls;
    Uploader uploader(zel_test::test_certs().ca);
    UploadData d = job(clip, 1704080001);
    d.start = zel::time_now() - 5;
    d.progress = [&](const std::string& camera, int elapsed, int64_t total, int64_t) {
      calls.emplace_back(camera, elapsed, total);
      return 1;
    };
    UploadResult r = uploader.upload(d);
    EXPECT_FALSE(r.success);
    EXPECT_EQ(r.message, failed_text(CURLE_ABORTED_BY_CALLBACK) + " - User aborted");
    ASSERT_EQ(calls.size(), 1u) << "aborted at the first question";
    EXPECT_EQ(std::get<0>(calls[0]), kCamera);
    EXPECT_GE(std::get<1>(calls[0]), 5);
    EXPECT_LE(std::get<2>(calls[0]), static_cast<int64_t>(encrypted));
    EXPECT_TRUE(d.aborted);
    EXPECT_EQ(az().blob_properties(blob_path(1704080001, "2024-01-01")).status, 404);
  }
  {
    // A function that lets the upload go on overrides the time limit counted from queuing.
    int asked = 0;
    Uploader uploader(zel_test::test_certs().ca);
    UploadData d = job(clip, 1704080002);
    d.start = zel::time_now() - 1000;
    d.timeout_s = 30;
    d.progress = [&](const std::string&, int, int64_t, int64_t) {
      ++asked;
      return 0;
    };
    UploadResult r = uploader.upload(d);
    EXPECT_TRUE(r.success) << r.message;
    EXPECT_GE(asked, 1);
    EXPECT_FALSE(d.aborted);
  }
  {
    // An exception from the application's function must not unwind through libcurl.
    LogCapture log;
    Uploader uploader(zel_test::test_certs().ca);
    UploadData d = job(clip, 1704080003);
    d.start = zel::time_now() - 5;
    d.progress = [](const std::string&, int, int64_t, int64_t) -> int {
      throw std::runtime_error("host callback broke");
    };
    UploadResult r = uploader.upload(d);
    EXPECT_FALSE(r.success);
    EXPECT_EQ(r.message, failed_text(CURLE_ABORTED_BY_CALLBACK) +
                             " - Progress function failed: host callback broke");
  }
}

TEST_F(UploaderTest, WithoutProgressFunctionTheTimeSinceQueuingCutsTheUpload) {
  std::string clip = make_clip("upload-queued-long.mp4", 200000, 26);
  Uploader uploader(zel_test::test_certs().ca);
  UploadData d = job(clip, 1704080010);
  d.timeout_s = 30;
  d.start = zel::time_now() - 30;  // waited its whole allowance in the queue
  UploadResult r = uploader.upload(d);
  EXPECT_FALSE(r.success);
  EXPECT_EQ(r.message, failed_text(CURLE_ABORTED_BY_CALLBACK) + " - User aborted");
  EXPECT_EQ(az().blob_properties(blob_path(1704080010, "2024-01-01")).status, 404);

  UploadData fresh = job(clip, 1704080011);
  fresh.timeout_s = 30;
  EXPECT_TRUE(uploader.upload(fresh).success) << "time left: the same upload goes through";
}

TEST_F(UploaderTest, ClipFileMissingOrChangedIsRefusedBeforeSending) {
  std::string clip = make_clip("upload-changing.mp4", 4000, 27);
  Uploader uploader(zel_test::test_certs().ca);
  {
    std::string missing = temp_dir() + "/upload-missing.mp4";
    UploadData d = job(clip, 1704090001);
    d.path = missing;
    StderrCapture err;
    UploadResult r = uploader.upload(d);
    EXPECT_FALSE(r.success);
    EXPECT_EQ(r.message, "Clip file could not be opened: " + missing);
    EXPECT_EQ(az().blob_properties(blob_path(1704090001, "2024-01-01")).status, 404);
  }
  {
    UploadData d = job(clip, 1704090002);  // expected size taken now: 4000
    write_file(clip, random_bytes(4100, 28));
    UploadResult r = uploader.upload(d);
    EXPECT_FALSE(r.success);
    EXPECT_EQ(r.message, "Clip file size changed: expected 4000 got 4100");
    EXPECT_EQ(az().blob_properties(blob_path(1704090002, "2024-01-01")).status, 404);
  }
  {
    UploadData d = job(clip, 1704090003);
    std::remove(clip.c_str());
    StderrCapture err;
    UploadResult r = uploader.upload(d);
    EXPECT_FALSE(r.success);
    EXPECT_EQ(r.message, "Clip file could not be opened: " + clip);
  }
}

TEST_F(UploaderTest, UnreachableServiceFails) {
  int port = zel_test::free_port();  // nothing listens there
  setenv("ZEL_BLOB_DOMAIN", (".blob.localhost:" + std::to_string(port)).c_str(), 1);
  std::string clip = make_clip("upload-down.mp4", 1000, 29);
  Uploader uploader(zel_test::test_certs().ca);
  UploadData d = job(clip, 1704100000);
  UploadResult r = uploader.upload(d);
  EXPECT_FALSE(r.success);
  EXPECT_EQ(r.message, failed_text(CURLE_COULDNT_CONNECT) + " HTTP Status Code: 0");
}

TEST_F(UploaderTest, SilentServerIsCutByTheTransferTimeout) {
  // Accepts connections (the kernel completes them) and never says a word.
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ASSERT_EQ(listen(fd, 4), 0);
  socklen_t len = sizeof addr;
  getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  setenv("ZEL_BLOB_DOMAIN", (".blob.localhost:" + std::to_string(ntohs(addr.sin_port))).c_str(), 1);

  std::string clip = make_clip("upload-silent.mp4", 1000, 30);
  Uploader uploader(zel_test::test_certs().ca);
  UploadData d = job(clip, 1704100001);
  d.timeout_s = 2;
  // The function keeps the queuing limit out of the way, so only the transfer timeout acts.
  d.progress = [](const std::string&, int, int64_t, int64_t) { return 0; };
  auto t0 = std::chrono::steady_clock::now();
  UploadResult r = uploader.upload(d);
  double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  close(fd);
  EXPECT_FALSE(r.success);
  EXPECT_EQ(r.message, failed_text(CURLE_OPERATION_TIMEDOUT) + " HTTP Status Code: 0");
  EXPECT_GE(took, 1.9);
  EXPECT_LT(took, 10.0);
}

TEST_F(UploaderTest, ServiceKilledMidUploadFailsAndTheNextUploadWorksAfterItsReturn) {
  std::string clip = make_clip("upload-killed.mp4", 64 * 1024 * 1024, 31);
  Uploader uploader(zel_test::test_certs().ca);
  UploadData d = job(clip, 1704110000);
  // Each question moves the library's clock by a second, so the function is asked on every
  // progress tick and can pull the plug once a good part of the body is on its way.
  long moved = 0;
  int64_t sent_at_kill = -1;
  d.start = zel::time_now() - 1;
  d.progress = [&](const std::string&, int, int64_t, int64_t now) {
    zel::advance_clock(1);
    ++moved;
    if (sent_at_kill < 0 && now >= 4 * 1024 * 1024) {
      sent_at_kill = now;
      az().stop();
    }
    return 0;
  };
  UploadResult r = uploader.upload(d);
  zel::advance_clock(-moved);
  ASSERT_GE(sent_at_kill, 0) << "the emulator was never stopped: " << r.message;
  EXPECT_FALSE(r.success);
  EXPECT_EQ(r.message.rfind("curl_easy_perform() failed: ", 0), 0u) << r.message;
  EXPECT_NE(r.message.find(" HTTP Status Code: "), std::string::npos) << r.message;

  ASSERT_TRUE(emulator().ensure_running()) << emulator().error;  // same port as before
  UploadData again = job(clip, 1704110000);
  UploadResult r2 = uploader.upload(again);
  ASSERT_TRUE(r2.success) << r2.message;
  std::string stored = az().get_blob(blob_path(1704110000, "2024-01-01"));
  EXPECT_TRUE(openssl_decrypt(stored, kSecret) == read_file(clip));
  std::remove(clip.c_str());  // temporary directories outlive the test; this one is large
}

// What goes on the wire, seen by a recording endpoint with the same certificate.
TEST_F(UploaderTest, RequestCarriesTheHeadersAndTheExpectChoice) {
  std::string clip = make_clip("upload-headers.mp4", 2 * 1024 * 1024 + 3, 32);
  std::string expected_cipher = openssl_encrypt(clip, kSecret);
  HttpsRecorder recorder;
  setenv("ZEL_BLOB_DOMAIN", (".blob.localhost:" + std::to_string(recorder.port())).c_str(), 1);
  Uploader uploader(zel_test::test_certs().ca);
  for (int expect : {1, 0}) {
    UploadData d = job(clip, 1704067200);
    d.token = "sv=2020-04-08&sig=abc%2B";
    d.expect_timeout_s = expect;
    UploadResult r = uploader.upload(d);
    ASSERT_TRUE(r.success) << r.message;
  }
  std::vector<HttpsRecorder::Request> reqs = recorder.requests();
  ASSERT_EQ(reqs.size(), 2u);
  for (size_t i = 0; i < reqs.size(); ++i) {
    const std::string& head = reqs[i].head;
    EXPECT_EQ(head.rfind("PUT /0011223344aa/aabbccddeeff/2024-01-01/1704067200.mp4"
                         "?sv=2020-04-08&sig=abc%2B HTTP/1.1\r\n",
                         0),
              0u)
        << head;
    EXPECT_NE(head.find("\r\nHost: devstoreaccount1.blob.localhost:" +
                        std::to_string(recorder.port()) + "\r\n"),
              std::string::npos)
        << head;
    EXPECT_NE(head.find("\r\nx_ms_date: 1704067200\r\n"), std::string::npos) << head;
    EXPECT_NE(head.find("\r\nx-ms-version: 2020-04-08\r\n"), std::string::npos) << head;
    EXPECT_NE(head.find("\r\nx-ms-blob-type: BlockBlob\r\n"), std::string::npos) << head;
    EXPECT_NE(head.find("\r\nContent-Length: " + std::to_string(expected_cipher.size()) + "\r\n"),
              std::string::npos)
        << head;
    EXPECT_EQ(head.find("chunked"), std::string::npos) << head;
    EXPECT_TRUE(reqs[i].body == expected_cipher) << "body differs from openssl's ciphertext";
  }
  EXPECT_NE(reqs[0].head.find("\r\nExpect: 100-continue\r\n"), std::string::npos) << reqs[0].head;
  EXPECT_EQ(reqs[1].head.find("Expect"), std::string::npos) << reqs[1].head;
}

TEST_F(UploaderTest, OnlyTwoHundredsAreSuccess) {
  std::string clip = make_clip("upload-codes.mp4", 100, 33);
  struct Case {
    std::string status_line;
    std::string extra_headers;
    std::string body;
    bool success;
    std::string logged_code;
  };
  const std::vector<Case> cases = {
      {"HTTP/1.1 201 Created", "", "", true, ""},
      {"HTTP/1.1 200 OK", "", "", true, ""},
      {"HTTP/1.1 300 Multiple Choices", "", "", false, ""},
      {"HTTP/1.1 409 Conflict", "x-ms-error-code: FromTheHeader\r\n", "", false, "FromTheHeader"},
      {"HTTP/1.1 500 Internal Server Error", "",
       "<?xml version=\"1.0\"?><Error><Code>FromTheBody</Code></Error>", false, "FromTheBody"},
  };
  for (const Case& c : cases) {
    HttpsRecorder recorder({c.status_line, c.extra_headers, c.body, true});
    setenv("ZEL_BLOB_DOMAIN", (".blob.localhost:" + std::to_string(recorder.port())).c_str(), 1);
    LogCapture log;
    testing::internal::CaptureStdout();
    Uploader uploader(zel_test::test_certs().ca);
    UploadData d = job(clip, 1704067200);
    UploadResult r = uploader.upload(d);
    std::string stdout_text = testing::internal::GetCapturedStdout();
    EXPECT_EQ(r.success, c.success) << c.status_line << ": " << r.message;
    if (!c.success) {
      std::string code = c.status_line.substr(9, 3);
      EXPECT_EQ(r.message, failed_text(CURLE_OK) + " HTTP Status Code: " + code);
    }
    if (!c.logged_code.empty()) {
      EXPECT_TRUE(log.has(zel::LOG_WARN, c.logged_code)) << c.status_line << "\n" << log.all();
    }
    EXPECT_EQ(stdout_text, "") << "the answer's body must not reach standard output";
  }
}

TEST_F(UploaderTest, DebugSwitchMakesTheTransferVerbose) {
  std::string clip = make_clip("upload-debug.mp4", 100, 34);
  setenv("ZEL_DEBUG", "1", 1);
  std::string text;
  {
    StderrCapture err;
    Uploader uploader(zel_test::test_certs().ca);
    UploadData d = job(clip, 1704067300);
    EXPECT_TRUE(uploader.upload(d).success);
    text = err.text();
  }
  unsetenv("ZEL_DEBUG");
  EXPECT_NE(text.find("> PUT /0011223344aa/aabbccddeeff/"), std::string::npos) << text;
  {
    StderrCapture err;
    Uploader uploader(zel_test::test_certs().ca);
    UploadData d = job(clip, 1704067301);
    EXPECT_TRUE(uploader.upload(d).success);
    EXPECT_EQ(err.text().find("> PUT"), std::string::npos);
  }
}

}  // namespace

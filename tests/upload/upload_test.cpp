// Encryption judged by the openssl command, the uploader against blob storage and a
// recording endpoint, and the upload pool's statuses.
#include <gtest/gtest.h>

#include "foundation/time_utils.h"
#include "support/peer.h"
#include "upload/block_settings.h"
#include "upload/rate_limiter.h"
#include "upload/retry_policy.h"
#include "upload/streaming_crypto.h"
#include "upload/uploader.h"
#include "upload/uploader_cluster.h"

namespace zt {
namespace {

const char kSecret[] = "clip-password-7";
const std::string kFailed = "curl_easy_perform() failed: ";
const std::string kAborted = kFailed + curl_easy_strerror(CURLE_ABORTED_BY_CALLBACK);

std::string stream(zel::StreamingCrypto& c, size_t read_size) {
  std::string out, buf(read_size, '\0');
  while (size_t n = c.stream_to(&buf[0], read_size)) out.append(buf, 0, n);
  return out;
}

// File and read sizes around the 16-byte block, and a large odd file read in big rounds.
TEST(Crypto, ChosenSizesMatchTheOpensslCommand) {
  TempDir dir;
  for (size_t file_size : {size_t{0}, size_t{16}, size_t{17}, size_t{3 * 1024 * 1024 + 5}}) {
    std::string path = dir.file("clip", random_bytes(file_size, static_cast<unsigned>(file_size)));
    const std::string expected = openssl_enc(path, kSecret);
    for (size_t read_size : {1, 15, 16, 17, 65536}) {
      SCOPED_TRACE(std::to_string(file_size) + " bytes read " + std::to_string(read_size) + " at a time");
      zel::StreamingCrypto c(path, kSecret, zel::crypto_direction::ENCRYPTION);
      EXPECT_EQ(c.get_encrypted_size(), expected.size());
      EXPECT_TRUE(stream(c, read_size) == expected);
      EXPECT_TRUE(c.is_good() && c.finished());
    }
  }
}

TEST(Crypto, PaddingIsOneToSixteenEqualBytes) {
  TempDir dir;
  zel::StreamingCrypto dec(dir.file("x", "x"), kSecret, zel::crypto_direction::DECRYPTION);
  const std::pair<std::string, int> rows[] = {{"abc\x01", 1}, {std::string(16, '\x10'), 16}, {std::string(17, '\x11'), -1},
                                              {"abc\x00", -1}, {"ab\x02\x03\x02", -1}, {"\x05\x05", -1}};
  for (const auto& [tail, pad] : rows) EXPECT_EQ(dec.unpad(tail.data(), static_cast<int>(tail.size())), pad) << pad;
}

class Upload : public ::testing::Test {
 protected:
  void TearDown() override { setenv("ZEL_BLOB_DOMAIN", storage().listening().str("blob_domain").c_str(), 1); }
  zel::UploadData job(const std::string& path, int64_t start_time) {
    zel::UploadData d;
    d.start = zel::time_now(), d.nvr_mac = kUploadContainer, d.camera_mac = "aabbccddeeff";
    d.start_time = start_time, d.path = path, d.account = "devstoreaccount1", d.token = storage_token();
    d.secret = kSecret, d.timeout_s = 60, d.expected_size = static_cast<int64_t>(read_file(path).size());
    return d;
  }
  zel::Uploader uploader{cert("ca.pem")};
  TempDir dir;
};

// Every way an upload ends early: the message says which, and nothing is stored.
TEST_F(Upload, FailuresSayWhyAndStoreNothing) {
  std::string path = dir.file("clip.mp4", random_bytes(200000, 22));
  struct Row {
    const char* name;
    std::function<void(zel::UploadData&)> spoil;
    std::string message;
  } rows[] = {
      {"no write permission", [](zel::UploadData& d) { d.token = storage_token("rl"); },
       kFailed + "No error HTTP Status Code: 403"},
      {"allowance spent in the queue", [](zel::UploadData& d) { d.start -= 30, d.timeout_s = 30; },
       kAborted + " - User aborted"},
  };
  int64_t start = 1704080000;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    zel::UploadData d = job(path, ++start);
    row.spoil(d);
    zel::UploadResult r = uploader.upload(d);
    EXPECT_FALSE(r.success);
    EXPECT_EQ(r.message, row.message);
    EXPECT_EQ(r.http_status == 403, !r.error_code.empty() && !r.request_id.empty()) << r.error_code;
    EXPECT_EQ(storage().command("{\"cmd\":\"blob\",\"path\":\"0011223344aa/aabbccddeeff/2024-01-01/" +
                                std::to_string(start) + ".mp4\"}").num("status"), 404);
  }
}

// The request as it leaves, with and without waiting for "100 Continue".
TEST_F(Upload, RequestAsItLeaves) {
  std::string path = dir.file("clip.mp4", random_bytes(2 * 1024 * 1024 + 3, 32));
  const std::string sha = sha256_hex(openssl_enc(path, kSecret));
  long port = storage().command("{\"cmd\":\"record\",\"status\":201}").num("port");
  setenv("ZEL_BLOB_DOMAIN", (".blob.localhost:" + std::to_string(port)).c_str(), 1);
  for (int expect : {1, 0}) {
    SCOPED_TRACE(expect);
    size_t seen = storage().count([](const Event& e) { return e.kind == "request"; });
    zel::UploadData d = job(path, 1704067200);
    d.token = "sv=2020-04-08&sig=abc%2B", d.expect_timeout_s = expect;
    EXPECT_TRUE(uploader.upload(d).success);
    std::string head = storage().wait([](const Event& e) { return e.kind == "request"; }, seen).value_or(Event()).str("head");
    EXPECT_EQ(head.rfind("PUT /0011223344aa/aabbccddeeff/2024-01-01/1704067200.mp4?sv=2020-04-08&sig=abc%2B "
                         "HTTP/1.1\r\nHost: devstoreaccount1.blob.localhost:" + std::to_string(port) + "\r\n", 0), 0u)
        << head;
    for (std::string line : {"x_ms_date: 1704067200", "x-ms-version: 2020-04-08", "x-ms-blob-type: BlockBlob",
                             "Content-Length: 2097168"})
      EXPECT_NE(head.find("\r\n" + line + "\r\n"), std::string::npos) << line;
    EXPECT_EQ(head.find("Expect: 100-continue") != std::string::npos, expect > 0);
    EXPECT_EQ(storage().wait([](const Event& e) { return e.kind == "request"; }, seen)->str("sha256"), sha);
  }
}

constexpr uint64_t kBlock = 262144;

// Sizes around a block's edge: the committed blob is the single PUT's, byte for byte.
TEST_F(Upload, BlocksAroundTheEdgeCommitTheSameBlob) {
  int64_t start = 1704090000;
  for (uint64_t size : {kBlock - 16, kBlock, kBlock + 1, 3 * kBlock + 5}) {
    SCOPED_TRACE(size);
    std::string path = dir.file("b" + std::to_string(size), random_bytes(size, static_cast<unsigned>(size)));
    zel::UploadData d = job(path, ++start);
    d.block_bytes = kBlock;
    zel::UploadResult r = uploader.upload(d);
    EXPECT_TRUE(r.success) << r.message;
    EXPECT_EQ(r.bytes, size / 16 * 16 + 16);
    EXPECT_EQ(storage().command("{\"cmd\":\"blob\",\"path\":\"0011223344aa/aabbccddeeff/2024-01-01/" +
                                std::to_string(start) + ".mp4\"}").str("sha256"), sha256_hex(openssl_enc(path, kSecret)));
  }
}

// The requests as they leave, and the service's answers that end a clip.
TEST_F(Upload, BlockRequestsAndTheAnswersThatEndThem) {
  zel::set_backoff_cap(10ms);
  std::string path = dir.file("clip.mp4", random_bytes(2 * kBlock + 5, 3));  // blocks of 262144, 262144, 16
  const std::string q = "PUT /0011223344aa/aabbccddeeff/2024-01-01/1704067200.mp4?sv=1&sig=x&comp=";
  const std::string list = "<?xml version=\"1.0\" encoding=\"utf-8\"?><BlockList><Latest>MDAwMDAw</Latest>"
                           "<Latest>MDAwMDAx</Latest><Latest>MDAwMDAy</Latest></BlockList>";
  const std::vector<std::string> sent = {q + "block&blockid=MDAwMDAw 262144", q + "block&blockid=MDAwMDAx 262144",
                                         q + "block&blockid=MDAwMDAy 16", q + "blocklist " + sha256_hex(list)};
  std::vector<std::string> twice = sent;
  twice.insert(twice.end(), sent.begin(), sent.end());
  const std::string lost = "{\"status\":400,\"headers\":{\"x-ms-error-code\":\"InvalidBlockList\"}}";
  struct Row {
    std::string answer, message;
    std::vector<std::string> requests;
  } rows[] = {
      {"\"status\":201}", "", sent},
      {"\"status\":503}", kFailed + "No error HTTP Status Code: 503 - block 1 of 3 failed 8 times",
       std::vector<std::string>(8, sent[0])},
      {"\"status\":201,\"when\":{\"comp=blocklist\":" + lost + "}}",  // restarted once, then given up
       kFailed + "No error HTTP Status Code: 400 - InvalidBlockList - block list", twice},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.answer);
    long port = storage().command("{\"cmd\":\"record\"," + row.answer).num("port");
    setenv("ZEL_BLOB_DOMAIN", (".blob.localhost:" + std::to_string(port)).c_str(), 1);
    auto is_request = [](const Event& e) { return e.kind == "request"; };
    size_t seen = storage().count(is_request);
    zel::UploadData d = job(path, 1704067200);
    d.token = "sv=1&sig=x", d.block_bytes = kBlock;
    zel::UploadResult r = uploader.upload(d);
    EXPECT_EQ(r.success ? "" : r.message, row.message);
    std::vector<std::string> got;
    for (size_t i = 0; i < row.requests.size(); ++i) {
      Event e = storage().wait(is_request, seen + i).value_or(Event());
      std::string head = e.str("head");
      got.push_back(head.substr(0, head.find(" HTTP/1.1")) + " " +
                    (head.find("blocklist") != std::string::npos ? e.str("sha256") : std::to_string(e.num("length"))));
      EXPECT_EQ(head.find("x-ms-blob-type"), std::string::npos);
      EXPECT_NE(head.find("\r\nx_ms_date: 1704067200\r\nx-ms-version: 2020-04-08\r\n"), std::string::npos);
    }
    EXPECT_EQ(got, row.requests);
    EXPECT_FALSE(storage().wait(is_request, seen + row.requests.size(), 200ms));
  }
}

// A reset in the middle of a block costs that block one more try, nothing else. The
// pool's cap paces the sender (loopback's socket buffers would swallow a block at once).
TEST_F(Upload, ResetMidBlockCostsOneRetry) {
  zel::set_backoff_cap(10ms);
  Peer relay("fault_relay.py", {"--relay", "blob=" + std::to_string(storage().listening().num("port"))});
  setenv("ZEL_BLOB_DOMAIN", (".blob.localhost:" + std::to_string(relay.listening().num("port"))).c_str(), 1);
  zel::upload_rate_limiter().set_rate(1536 * 1024);
  std::string path = dir.file("clip.mp4", random_bytes(12 * kBlock, 5));
  zel::UploadData d = job(path, 1704099000);
  d.block_bytes = 4 * kBlock;
  bool reset = false;
  d.progress = [&](const std::string&, int, int64_t, int64_t sent) {
    if (!reset && sent % (4 * kBlock) != 0) reset = true, relay.line("blob reset"), relay.line("blob pass");
    return 0;
  };
  const int64_t retried = zel::block_counters().blocks_retried;
  zel::UploadResult r = uploader.upload(d);
  zel::upload_rate_limiter().set_rate(0);
  EXPECT_TRUE(r.success && reset) << r.message;
  EXPECT_EQ(zel::block_counters().blocks_retried - retried, 1);
  EXPECT_EQ(storage().command("{\"cmd\":\"blob\",\"path\":\"0011223344aa/aabbccddeeff/2024-01-01/1704099000.mp4\"}")
                .str("sha256"), sha256_hex(openssl_enc(path, kSecret)));
}

// Start, then outcome, once per clip; read while the threads write (for ThreadSanitizer).
TEST_F(Upload, PoolReportsStartThenOutcomeOnce) {
  std::string path = dir.file("clip.mp4", random_bytes(300000, 41));
  zel::UploaderCluster pool(cert("ca.pem"));
  pool.set_size(2);
  std::map<std::string, std::vector<std::string>> seen;
  for (int i = 0; i < 4; ++i) {
    zel::PendingClip p;
    p.nvr_mac = kUploadContainer, p.clip.path = path, p.clip.camera_mac = "aabbccddeeff";
    p.clip.start_time = 1704067300 + i, p.clip.size = 300000;
    p.credentials = {"devstoreaccount1", storage_token(i == 3 ? "rl" : "racwdl"), kSecret, "", "", 0};
    pool.upload(p);
  }
  EXPECT_TRUE(eventually([&] {
    for (const zel::UploadStatus& s : pool.get_statuses())
      seen[s.key].push_back(std::to_string(s.state) + (s.state == 5 ? " " + std::to_string(s.bytes) : ""));
    return seen.size() == 4 && std::all_of(seen.begin(), seen.end(), [](auto& e) { return e.second.size() == 2; });
  }, 30s));
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(seen["aabbccddeeff" + std::to_string(1704067300 + i)], (std::vector<std::string>{"4", "5 300016"}));
  EXPECT_EQ(seen["aabbccddeeff1704067303"], (std::vector<std::string>{"4", "7"}));
  EXPECT_TRUE(pool.get_statuses().empty());

  // Jobs no thread has taken can be withdrawn, oldest first.
  pool.set_size(0);
  zel::PendingClip p;
  for (int64_t start : {7, 3}) p.clip.start_time = start, p.clip.camera_mac = "c", pool.upload(p);
  EXPECT_EQ(pool.take_queued_keys(), (std::vector<std::string>{"c7", "c3"}));
  EXPECT_EQ(pool.queued(), 0u);
}

}  // namespace
}  // namespace zt

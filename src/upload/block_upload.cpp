#include "upload/block_upload.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <sstream>
#include <thread>

#include "foundation/log.h"
#include "foundation/time_utils.h"
#include "upload/block_list.h"
#include "upload/block_settings.h"
#include "upload/credential_board.h"
#include "upload/curl_proxy.h"
#include "upload/rate_limiter.h"
#include "upload/retry_policy.h"
#include "upload/upload_status.h"
#include "upload/uploader.h"
#include "upload/uploader_cluster.h"

namespace zel {

namespace {

const std::string kFailed = "curl_easy_perform() failed: ";
// As for the single PUT: a try that sends nothing for this long is dead.
constexpr int64_t kStallSeconds = 60;
constexpr int kMaxRefreshes = 3;
// A token that runs out within this margin would fail in the middle of the next block.
constexpr int64_t kExpiryMargin = 30;

bool cancelled(const UploadData& d) { return d.cancelled != nullptr && *d.cancelled; }

bool stale_credentials(const std::string& code) {
  return code == "AuthenticationFailed" || code == "AuthorizationFailure";
}

// The token's "se" (signed expiry) as seconds since the epoch; -1 when it has none.
int64_t sas_expiry(const std::string& token) {
  size_t at = token.rfind("se=", 0) == 0 ? 0 : token.find("&se=");
  if (at == std::string::npos) return -1;
  at = token.find('=', at) + 1;
  std::string text;
  for (size_t i = at; i < token.size() && token[i] != '&'; ++i) {
    if (token[i] == '%' && i + 2 < token.size() && isxdigit(static_cast<unsigned char>(token[i + 1])) &&
        isxdigit(static_cast<unsigned char>(token[i + 2]))) {
      text += static_cast<char>(std::strtol(token.substr(i + 1, 2).c_str(), nullptr, 16));
      i += 2;
    } else {
      text += token[i];
    }
  }
  struct tm t {};
  if (sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d", &t.tm_year, &t.tm_mon, &t.tm_mday,
             &t.tm_hour, &t.tm_min, &t.tm_sec) < 3) {
    return -1;
  }
  t.tm_year -= 1900;
  t.tm_mon -= 1;
  return static_cast<int64_t>(timegm(&t));
}

}  // namespace

BlockUpload::BlockUpload(Uploader& u, UploadData& data, const std::string& blob_url,
                         uint64_t encrypted_size)
    : uploader(u),
      d(data),
      base(blob_url.substr(0, blob_url.find('?'))),
      key(upload_key(data)),
      encrypted(encrypted_size),
      blocks((encrypted_size + data.block_bytes - 1) / data.block_bytes) {}

BlockUpload::~BlockUpload() {
  if (d.board != nullptr) d.board->forget(key);
}

UploadResult BlockUpload::run() {
  const auto began = std::chrono::steady_clock::now();
  for (;;) {
    // From block 0: the first attempt, or a restart with a new secret or after the
    // service lost the blocks sent.
    cipher = std::make_unique<BlockCipher>(d.path, d.secret);
    done = 0;
    if (!cipher->is_open() || cipher->encrypted_size() != encrypted) {
      fail("Clip file could not be read: " + d.path);
      return failed_result();
    }
    Step step = Step::DONE;
    for (uint64_t n = 0; n <= blocks && step == Step::DONE; ++n) step = send(n);
    if (step == Step::FAILED) return failed_result();
    if (step == Step::DONE) break;
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
  zel_log(LEVEL_NOTICE, "Uploaded %s in %llu blocks: %llu ciphertext bytes sent for %llu\n",
          base.c_str(), static_cast<unsigned long long>(blocks),
          static_cast<unsigned long long>(bytes_read), static_cast<unsigned long long>(encrypted));
  std::ostringstream message;
  message << "Uploaded: " << d.path << "\n"
          << "To: " << base << "\n"
          << "Speed: " << (seconds > 0 ? static_cast<double>(encrypted) / seconds : 0) * 0.0009765625
          << " kbytes/sec during " << seconds << " seconds";
  return {true, encrypted, message.str()};
}

UploadResult BlockUpload::failed_result() const {
  UploadResult r{false, 0, failure};
  r.http_status = last.status, r.error_code = last.error_code, r.request_id = last.request_id;
  return r;
}

std::string BlockUpload::name(uint64_t n) const {
  if (n == blocks) return "block list";
  return "block " + std::to_string(n + 1) + " of " + std::to_string(blocks);
}

BlockUpload::Step BlockUpload::fail(const std::string& message) {
  failure = message;
  log_failure(last, message, base, d.path);
  return Step::FAILED;
}

std::string BlockUpload::reason(const Try& t) const {
  std::string text;
  if (t.abort == Abort::STALL) {
    text = std::string(curl_easy_strerror(CURLE_ABORTED_BY_CALLBACK)) +
           " - Upload stalled: nothing sent for " + std::to_string(kStallSeconds) + " seconds";
  } else if (t.abort == Abort::TRY_TIMEOUT) {
    text = curl_easy_strerror(CURLE_OPERATION_TIMEDOUT);
  } else {
    text = curl_easy_strerror(t.result);
    if (t.result == CURLE_OK) text += " HTTP Status Code: " + std::to_string(t.status);
  }
  if (!t.proxy_text.empty()) text += " - " + t.proxy_text;
  return text;
}

bool BlockUpload::sas_expiring() const {
  const int64_t se = sas_expiry(d.token);
  return se >= 0 && se - time_now() < kExpiryMargin;
}

BlockUpload::Step BlockUpload::send(uint64_t n) {
  const bool list = n == blocks;
  int tries = 0;
  bool refreshed_here = false;
  for (;;) {
    if (d.board != nullptr && refreshes < kMaxRefreshes && sas_expiring()) {
      Step s = refresh(n);
      if (s != Step::DONE) return s;
    }
    if (!list && !cipher->begin(n, d.block_bytes, chain)) {
      return fail("Clip file could not be read: " + d.path);
    }
    ++tries;
    Try t = perform(n);
    if (t.ok()) {
      if (!list) {
        memcpy(chain, cipher->tail(), sizeof chain);
        done += std::min(d.block_bytes, encrypted - n * d.block_bytes);
      }
      return Step::DONE;
    }
    if (t.abort == Abort::INTERRUPTED || cancelled(d)) return fail(kUploadInterrupted);
    const std::string aborted = kFailed + curl_easy_strerror(CURLE_ABORTED_BY_CALLBACK);
    if (t.abort == Abort::HOST) {
      return fail(aborted + " - " + (host_reason.empty() ? "User aborted" : host_reason));
    }
    if (t.result == CURLE_ABORTED_BY_CALLBACK && t.abort == Abort::NONE) {
      return fail(aborted + " - Error while encrypting file");
    }
    if (t.status == 403 && stale_credentials(t.error_code)) {
      if (refreshed_here || refreshes >= kMaxRefreshes || d.board == nullptr) {
        return fail(kFailed + reason(t) + " - " + t.error_code + " on " + name(n));
      }
      refreshed_here = true;
      --tries;  // the refusal says nothing about the path
      Step s = refresh(n);
      if (s != Step::DONE) return s;
      continue;
    }
    if (list && t.status == 400 && t.error_code == "InvalidBlockList" && !list_restarted) {
      // The service dropped the uncommitted blocks: send them all again, once.
      list_restarted = true;
      zel_log(LEVEL_WARN, "Block list of %s refused as InvalidBlockList: starting again\n",
              base.c_str());
      return Step::RESTART;
    }
    const bool again = t.abort == Abort::STALL || t.abort == Abort::TRY_TIMEOUT ||
                       retryable(t.result) || (t.result == CURLE_OK && retryable_status(t.status));
    if (!again) {
      std::string code = t.error_code.empty() ? "" : " - " + t.error_code;
      return fail(kFailed + reason(t) + code + " - " + name(n));
    }
    if (tries >= kMaxTries) {
      return fail(kFailed + reason(t) + " - " + name(n) + " failed " + std::to_string(kMaxTries) +
                  " times");
    }
    ++block_counters().blocks_retried;
    const std::chrono::milliseconds wait = backoff(tries, t.retry_after_s);
    zel_log(LEVEL_WARN, "Try %d of %s of %s failed (%s); again in %lld ms\n", tries, name(n).c_str(),
            base.c_str(), reason(t).c_str(), static_cast<long long>(wait.count()));
    // The back-off sleeps in slices so the host hears about the upload once a second.
    const auto until = std::chrono::steady_clock::now() + wait;
    for (auto now = std::chrono::steady_clock::now(); now < until;
         now = std::chrono::steady_clock::now()) {
      const auto slice = std::min<std::chrono::steady_clock::duration>(until - now, std::chrono::seconds(1));
      const bool stopped = d.board != nullptr
                               ? d.board->sleep(std::chrono::duration_cast<std::chrono::milliseconds>(slice))
                               : (std::this_thread::sleep_for(slice), false);
      if (stopped || cancelled(d)) return fail(kUploadInterrupted);
      if (!tick(static_cast<int64_t>(done))) return fail(aborted + " - User aborted");
    }
  }
}

BlockUpload::Step BlockUpload::refresh(uint64_t n) {
  d.board->ask(key);
  zel_log(LEVEL_NOTICE, "Asking for fresh storage credentials for %s at %s\n", base.c_str(),
          name(n).c_str());
  CloudCredentials fresh;
  for (;;) {
    CredentialBoard::Wait w =
        d.board->wait(key, d.credential_timeout_s, std::chrono::seconds(1), fresh);
    if (w == CredentialBoard::Wait::FRESH) break;
    if (w == CredentialBoard::Wait::STOPPED || cancelled(d)) return fail(kUploadInterrupted);
    if (w == CredentialBoard::Wait::EXPIRED) {
      return fail("Credentials refresh for block " + std::to_string(std::min(n, blocks - 1) + 1) +
                  " took more than " + std::to_string(d.credential_timeout_s) + " seconds");
    }
    if (!tick(static_cast<int64_t>(done))) {
      return fail(kFailed + curl_easy_strerror(CURLE_ABORTED_BY_CALLBACK) + " - User aborted");
    }
  }
  ++refreshes;
  ++block_counters().credentials_refreshed;
  d.token = fresh.token;
  if (fresh.secret == d.secret) return Step::DONE;
  // The blocks sent are ciphertext under the old secret: they cannot be continued.
  if (++secret_changes > 1) return fail("Storage secret changed twice during the upload");
  d.secret = fresh.secret;
  zel_log(LEVEL_WARN, "Storage secret of %s changed: starting again from block 1\n", base.c_str());
  return Step::RESTART;
}

bool BlockUpload::tick(int64_t sent) {
  const int64_t elapsed = time_now() - d.start;  // from the hand-over, as for the single PUT
  if (elapsed == d.last_elapsed) return !d.aborted;
  d.last_elapsed = elapsed;
  if (!d.progress) return true;
  reported = std::max(reported, sent);
  try {
    d.aborted = d.progress(d.camera_mac, static_cast<int>(elapsed), static_cast<int64_t>(encrypted),
                           reported) != 0;
  } catch (const std::exception& e) {
    host_reason = std::string("Progress function failed: ") + e.what();
    d.aborted = true;
  } catch (...) {
    host_reason = "Progress function failed: unknown exception";
    d.aborted = true;
  }
  return !d.aborted;
}

BlockUpload::Try BlockUpload::perform(uint64_t n) {
  Try t;
  CURL* h = uploader.handle_for(d.account);
  if (h == nullptr) {
    t.result = CURLE_FAILED_INIT;
    return t;
  }
  sending_list = n == blocks;
  StoragePut put;
  put.url = base + "?" + d.token;
  if (sending_list) {
    list_body = block_list_body(blocks);
    list_pos = 0;
    put.length = static_cast<curl_off_t>(list_body.size());
    put.url += "&comp=blocklist";
  } else {
    put.length = static_cast<curl_off_t>(std::min(d.block_bytes, encrypted - n * d.block_bytes));
    put.url += "&comp=block&blockid=" + block_id(n);
  }
  // As for the single PUT, without x-ms-blob-type: a block is no blob of its own.
  put.whole_blob = false;
  put.proxy_host = d.account + blob_domain();
  put.x_ms_date = d.start_time;
  put.expect_timeout_s = d.expect_timeout_s;
  // Each try has the whole limit: a slow uplink meets it block by block.
  put.timeout_s = d.timeout_s;
  put.read = &BlockUpload::on_read;
  put.progress = &BlockUpload::on_progress;
  put.data = this;
  abort = Abort::NONE;
  try_start = time_now();
  last_sent = -1;
  last_sent_at = try_start;
  static_cast<StorageReply&>(t) = put_to_storage(h, put);
  t.abort = abort;
  last = t;
  return t;
}

size_t BlockUpload::on_read(char* buffer, size_t size, size_t nitems, void* self) {
  auto* b = static_cast<BlockUpload*>(self);
  size_t allowed;
  // Under the pool's cap, wait here for this thread's share; the pool's stop still ends it.
  while ((allowed = upload_rate_limiter().take(size * nitems)) == 0) {
    if (cancelled(b->d)) {
      b->abort = Abort::INTERRUPTED;
      return CURL_READFUNC_ABORT;
    }
  }
  if (b->sending_list) {
    size_t n = std::min(allowed, b->list_body.size() - b->list_pos);
    memcpy(buffer, b->list_body.data() + b->list_pos, n);
    b->list_pos += n;
    return n;
  }
  size_t n = b->cipher->read(buffer, allowed);
  b->bytes_read += n;
  return b->cipher->is_good() ? n : CURL_READFUNC_ABORT;
}

int BlockUpload::on_progress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t ulnow) {
  auto* b = static_cast<BlockUpload*>(self);
  if (cancelled(b->d)) {
    b->abort = Abort::INTERRUPTED;
    return 1;
  }
  const int64_t now = time_now();
  if (ulnow != b->last_sent) {
    b->last_sent = ulnow;
    b->last_sent_at = now;
  } else if (now - b->last_sent_at >= kStallSeconds) {
    b->abort = Abort::STALL;
    return 1;
  }
  // Without a host function, the check's own cut-off counts from the start of this try.
  if (!b->d.progress && b->d.timeout_s > 0 && now - b->try_start >= b->d.timeout_s) {
    b->abort = Abort::TRY_TIMEOUT;
    return 1;
  }
  const int64_t sent = static_cast<int64_t>(b->done) + (b->sending_list ? 0 : ulnow);
  if (!b->tick(sent)) {
    b->abort = Abort::HOST;
    return 1;
  }
  return 0;
}

}  // namespace zel

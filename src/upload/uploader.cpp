#include "upload/uploader.h"

#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <memory>
#include <mutex>
#include <sstream>

#include "foundation/log.h"
#include "foundation/time_utils.h"
#include "upload/block_upload.h"
#include "upload/curl_proxy.h"
#include "upload/curl_tls.h"
#include "upload/curl_trace.h"
#include "upload/rate_limiter.h"
#include "upload/storage_request.h"
#include "upload/streaming_crypto.h"
#include "upload/upload_status.h"

namespace zel {

namespace {

// A transfer that sends nothing for this long is dead, whatever its whole-transfer limit:
// a peer that stopped reading, or never answers, would otherwise hold its thread for ever.
constexpr int64_t kStallSeconds = 60;

// What the progress check works on: the job, what it last saw sent and when, and why it
// ended the transfer (a failure of the application's progress function must not unwind
// through libcurl).
struct Transfer {
  UploadData* d = nullptr;
  StreamingCrypto* crypto = nullptr;
  int64_t last_sent = -1;
  int64_t last_sent_at = 0;
  std::string abort_reason;
};

}  // namespace

void uploader_global_init() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

std::string blob_domain() {
  const char* domain = std::getenv("ZEL_BLOB_DOMAIN");
  if (domain != nullptr && *domain != '\0') {
    return domain;
  }
  return ".blob.core.windows.net";
}

Uploader::Uploader(const std::string& ca) : ca_file(ca) {}

Uploader::~Uploader() = default;

void Uploader::init_handle() {
  handle.reset(curl_easy_init());
  if (handle == nullptr) {
    return;
  }
  ++handle_count;
  CURL* h = handle.get();
  curl_easy_setopt(h, CURLOPT_UPLOAD, 1L);
  // An empty path would make every transfer fail; leave libcurl's default store instead.
  if (!ca_file.empty()) {
    curl_easy_setopt(h, CURLOPT_CAINFO, ca_file.c_str());
  }
  curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 1L);
  apply_tls_policy(h);
  // Several upload threads run transfers with time-outs; signals are process-wide.
  curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
  if (std::getenv("ZEL_DEBUG") != nullptr) {
    curl_easy_setopt(h, CURLOPT_VERBOSE, 1L);
    curl_easy_setopt(h, CURLOPT_DEBUGFUNCTION, &curl_trace);
  }
}

size_t Uploader::read_callback(char* buffer, size_t size, size_t nitems, void* transfer) {
  auto* t = static_cast<Transfer*>(transfer);
  size_t allowed;
  // Under a cap, wait here for this thread's share; the pool's stop still ends it.
  while ((allowed = upload_rate_limiter().take(size * nitems)) == 0) {
    if (t->d->cancelled != nullptr && *t->d->cancelled) {
      t->abort_reason = kUploadInterrupted;
      return CURL_READFUNC_ABORT;
    }
  }
  size_t n = t->crypto->stream_to(buffer, allowed);
  return t->crypto->is_good() ? n : CURL_READFUNC_ABORT;
}

int Uploader::progress_callback(void* transfer, curl_off_t, curl_off_t, curl_off_t ultotal,
                                curl_off_t ulnow) {
  auto* t = static_cast<Transfer*>(transfer);
  UploadData& d = *t->d;
  if (d.cancelled != nullptr && *d.cancelled) {
    t->abort_reason = kUploadInterrupted;
    return 1;
  }
  // Counted from queuing, not from the start of the transfer: a clip that waited long for
  // a free thread has less time left.
  const int64_t now = time_now();
  const int64_t elapsed = now - d.start;
  if (elapsed == d.last_elapsed) {
    return d.aborted;  // once per second is enough
  }
  d.last_elapsed = elapsed;
  if (ulnow != t->last_sent) {
    t->last_sent = ulnow;
    t->last_sent_at = now;
  } else if (now - t->last_sent_at >= kStallSeconds) {
    t->abort_reason = "Upload stalled: nothing sent for " + std::to_string(kStallSeconds) + " seconds";
    return 1;
  }
  if (d.progress) {
    try {
      d.aborted = d.progress(d.camera_mac, static_cast<int>(elapsed), static_cast<int64_t>(ultotal),
                             static_cast<int64_t>(ulnow)) != 0;
    } catch (const std::exception& e) {
      t->abort_reason = std::string("Progress function failed: ") + e.what();
      d.aborted = true;
    } catch (...) {
      t->abort_reason = "Progress function failed: unknown exception";
      d.aborted = true;
    }
    return d.aborted;
  }
  // A whole-transfer limit of 0 (or less) means none, here as for libcurl's own time-out;
  // otherwise every upload would be cut off after its first second.
  if (d.timeout_s > 0 && elapsed >= d.timeout_s) {
    d.aborted = true;
    return 1;
  }
  return d.aborted;
}

CURL* Uploader::handle_for(const std::string& account) {
  // One connection cache per storage account: a new account starts afresh.
  if (handle == nullptr || current_account != account) init_handle();
  current_account = account;
  return handle.get();
}

UploadResult Uploader::upload(UploadData& d) {
  if (d.cancelled != nullptr && *d.cancelled) {
    return {false, 0, kUploadInterrupted};
  }
  uploader_global_init();
  CURL* h = handle_for(d.account);
  if (h == nullptr) {
    return {false, 0, "curl_easy_init() failed"};
  }
  const std::string address = blob_address(d.account, d.nvr_mac, d.camera_mac, d.start_time);

  StreamingCrypto crypto(d.path, d.secret, crypto_direction::ENCRYPTION);
  // Without the file, or with a file that is no longer the clip that was taken in, an
  // upload would store an empty or wrong blob under the clip's name; refuse before sending.
  if (!crypto.is_open()) {
    std::string message = "Clip file could not be opened: " + d.path;
    zel_log(LEVEL_WARN, "%s\n", message.c_str());
    return {false, 0, message};
  }
  if (d.expected_size >= 0 && crypto.get_file_size() != static_cast<uint64_t>(d.expected_size)) {
    std::string message = "Clip file size changed: expected " + std::to_string(d.expected_size) +
                          " got " + std::to_string(crypto.get_file_size());
    zel_log(LEVEL_WARN, "%s: %s\n", message.c_str(), d.path.c_str());
    return {false, 0, message};
  }
  const uint64_t size = crypto.get_encrypted_size();
  // A clip of one block or less gains nothing from blocks: it goes as one PUT.
  if (d.block_bytes > 0 && size > d.block_bytes) {
    return BlockUpload(*this, d, address, size).run();
  }

  Transfer transfer;
  transfer.d = &d;
  transfer.crypto = &crypto;
  transfer.last_sent_at = time_now();
  StoragePut put;
  put.url = address + "?" + d.token;
  put.proxy_host = d.account + blob_domain();
  put.x_ms_date = d.start_time;
  put.expect_timeout_s = d.expect_timeout_s;
  put.timeout_s = d.timeout_s;
  put.length = static_cast<curl_off_t>(size);
  put.read = &Uploader::read_callback;
  put.progress = &Uploader::progress_callback;
  put.data = &transfer;
  const StorageReply reply = put_to_storage(h, put);
  if (reply.status >= 200 && reply.status <= 299 && reply.result != CURLE_ABORTED_BY_CALLBACK)
    return uploaded(d, address, size);
  return failed(d, address, reply, transfer.abort_reason);
}

UploadResult Uploader::uploaded(const UploadData& d, const std::string& address, uint64_t size) {
  double speed = 0;
  double total_s = 0;
  // The fractional figures, not the whole-number _T forms: a short upload's speed and
  // time would read as 0.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  curl_easy_getinfo(handle.get(), CURLINFO_SPEED_UPLOAD, &speed);
#pragma GCC diagnostic pop
  curl_easy_getinfo(handle.get(), CURLINFO_TOTAL_TIME, &total_s);
  std::ostringstream message;
  // The address without its query: the query is the shared-access signature, a secret.
  message << "Uploaded: " << d.path << "\n"
          << "To: " << address << "\n"
          << "Speed: " << speed * 0.0009765625 << " kbytes/sec during " << total_s << " seconds";
  return {true, size, message.str()};
}

UploadResult Uploader::failed(const UploadData& d, const std::string& address,
                              const StorageReply& reply, const std::string& abort_reason) {
  std::string message = std::string("curl_easy_perform() failed: ") + curl_easy_strerror(reply.result);
  if (abort_reason == kUploadInterrupted) {
    message = kUploadInterrupted;
  } else if (reply.result == CURLE_ABORTED_BY_CALLBACK) {
    if (!abort_reason.empty()) {
      message += " - " + abort_reason;
    } else {
      message += d.aborted ? " - User aborted" : " - Error while encrypting file";
    }
  } else {
    message += " HTTP Status Code: " + std::to_string(reply.status);
  }
  if (!reply.proxy_text.empty()) message += " - " + reply.proxy_text;
  log_failure(reply, message, address, d.path);
  // A failed connection is not worth keeping: the next upload starts afresh.
  handle.reset();
  UploadResult result{false, 0, message};
  result.http_status = reply.status, result.error_code = reply.error_code, result.request_id = reply.request_id;
  return result;
}

void log_failure(const StorageReply& reply, const std::string& message, const std::string& address,
                 const std::string& path) {
  // The service's own reason first: a logger may cut long lines short.
  zel_log(LEVEL_WARN, "Upload failed%s%s: %s; to %s from %s%s%s\n",
          reply.error_code.empty() ? "" : ", service error code ", reply.error_code.c_str(),
          message.c_str(), address.c_str(), path.c_str(),
          reply.request_id.empty() ? "" : "; request id ", reply.request_id.c_str());
}

}  // namespace zel

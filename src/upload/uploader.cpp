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
#include "upload/streaming_crypto.h"
#include "upload/upload_status.h"

namespace zel {

namespace {

// An error document is short; anything past this is not worth keeping.
constexpr size_t kMaxBody = size_t{64} * 1024;
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

struct SlistFree {
  void operator()(curl_slist* l) const { curl_slist_free_all(l); }
};

std::string without_query(const std::string& url) { return url.substr(0, url.find('?')); }

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

Uploader::~Uploader() {
  if (handle != nullptr) {
    curl_easy_cleanup(handle);
  }
}

void Uploader::init_handle() {
  handle = curl_easy_init();
  if (handle == nullptr) {
    return;
  }
  ++handle_count;
  curl_easy_setopt(handle, CURLOPT_UPLOAD, 1L);
  // An empty path would make every transfer fail; leave libcurl's default store instead.
  if (!ca_file.empty()) {
    curl_easy_setopt(handle, CURLOPT_CAINFO, ca_file.c_str());
  }
  curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L);
  apply_tls_policy(handle);
  // Several upload threads run transfers with time-outs; signals are process-wide.
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  if (std::getenv("ZEL_DEBUG") != nullptr) {
    curl_easy_setopt(handle, CURLOPT_VERBOSE, 1L);
    curl_easy_setopt(handle, CURLOPT_DEBUGFUNCTION, &curl_trace);
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

size_t Uploader::body_callback(char* data, size_t size, size_t nmemb, void* self) {
  auto* u = static_cast<Uploader*>(self);
  size_t n = size * nmemb;
  if (u->response_body.size() < kMaxBody) {
    u->response_body.append(data, std::min(n, kMaxBody - u->response_body.size()));
  }
  return n;
}

size_t Uploader::header_callback(char* data, size_t size, size_t nitems, void* self) {
  auto* u = static_cast<Uploader*>(self);
  size_t n = size * nitems;
  static const char kName[] = "x-ms-error-code:";
  const size_t name_len = sizeof kName - 1;
  if (n > name_len && strncasecmp(data, kName, name_len) == 0) {
    std::string value(data + name_len, n - name_len);
    size_t first = value.find_first_not_of(" \t");
    size_t last = value.find_last_not_of(" \t\r\n");
    u->error_code_header =
        first == std::string::npos ? std::string() : value.substr(first, last - first + 1);
  }
  return n;
}

std::string Uploader::service_error_code() const {
  if (!error_code_header.empty()) {
    return error_code_header;
  }
  size_t open = response_body.find("<Code>");
  if (open == std::string::npos) {
    return std::string();
  }
  open += 6;
  size_t close = response_body.find("</Code>", open);
  if (close == std::string::npos) {
    return std::string();
  }
  return response_body.substr(open, close - open);
}

UploadResult Uploader::upload(UploadData& d) {
  if (d.cancelled != nullptr && *d.cancelled) {
    return {false, 0, kUploadInterrupted};
  }
  uploader_global_init();
  if (handle == nullptr) {
    init_handle();
  } else if (current_account != d.account) {
    // One connection cache per storage account: a new account starts afresh.
    curl_easy_cleanup(handle);
    handle = nullptr;
    init_handle();
  }
  current_account = d.account;
  if (handle == nullptr) {
    return {false, 0, "curl_easy_init() failed"};
  }

  char date[32] = "";
  time_t start = static_cast<time_t>(d.start_time);
  struct tm parts {};
  if (gmtime_r(&start, &parts) == nullptr || strftime(date, sizeof date, "%Y-%m-%d", &parts) == 0) {
    date[0] = '\0';
  }
  std::string url = "https://" + d.account + blob_domain() + "/" + d.nvr_mac + "/" + d.camera_mac +
                    "/" + date + "/" + std::to_string(d.start_time) + ".mp4" + "?" + d.token;

  StreamingCrypto crypto(d.path, d.secret, crypto_direction::ENCRYPTION);
  // Without the file, or with a file that is no longer the clip that was taken in, an
  // upload would store an empty or wrong blob under the clip's name; refuse before sending.
  if (!crypto.is_open()) {
    std::string message = "Clip file could not be opened: " + d.path;
    zel_log(LOG_WARN, "%s\n", message.c_str());
    return {false, 0, message};
  }
  if (d.expected_size >= 0 && crypto.get_file_size() != static_cast<uint64_t>(d.expected_size)) {
    std::string message = "Clip file size changed: expected " + std::to_string(d.expected_size) +
                          " got " + std::to_string(crypto.get_file_size());
    zel_log(LOG_WARN, "%s: %s\n", message.c_str(), d.path.c_str());
    return {false, 0, message};
  }
  curl_off_t size = static_cast<curl_off_t>(crypto.get_encrypted_size());
  // A clip of one block or less gains nothing from blocks: it goes as one PUT.
  if (d.block_bytes > 0 && static_cast<uint64_t>(size) > d.block_bytes) {
    return BlockUpload(*this, d, url, static_cast<uint64_t>(size)).run();
  }

  curl_slist* raw = nullptr;
  // x_ms_date deliberately carries the clip's start second, not an HTTP date.
  raw = curl_slist_append(raw, ("x_ms_date: " + std::to_string(d.start_time)).c_str());
  raw = curl_slist_append(raw, "x-ms-version: 2020-04-08");
  raw = curl_slist_append(raw, "x-ms-blob-type: BlockBlob");
  // An empty Expect header stops libcurl from waiting for "100 Continue".
  if (d.expect_timeout_s <= 0) {
    raw = curl_slist_append(raw, "Expect:");
  }
  std::unique_ptr<curl_slist, SlistFree> headers(raw);

  Transfer transfer;
  transfer.d = &d;
  transfer.crypto = &crypto;
  transfer.last_sent_at = time_now();
  response_body.clear();
  error_code_header.clear();

  curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
  // The same proxy decision as the link's, by the blob host.
  std::optional<ProxyRoute> proxy = apply_proxy(handle, d.account + blob_domain());
  curl_easy_setopt(handle, CURLOPT_READDATA, &transfer);
  curl_easy_setopt(handle, CURLOPT_READFUNCTION, &Uploader::read_callback);
  curl_easy_setopt(handle, CURLOPT_INFILESIZE_LARGE, size);
  curl_easy_setopt(handle, CURLOPT_TIMEOUT, static_cast<long>(d.timeout_s > 0 ? d.timeout_s : 0));
  if (d.expect_timeout_s > 0) {
    curl_easy_setopt(handle, CURLOPT_EXPECT_100_TIMEOUT_MS,
                     static_cast<long>(d.expect_timeout_s) * 1000L);
  }
  curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, &Uploader::progress_callback);
  curl_easy_setopt(handle, CURLOPT_XFERINFODATA, &transfer);
  curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &Uploader::body_callback);
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, this);
  curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &Uploader::header_callback);
  curl_easy_setopt(handle, CURLOPT_HEADERDATA, this);

  CURLcode res = curl_easy_perform(handle);
  long code = 0;
  curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &code);
  // The handle keeps pointers to these; they die with this call.
  curl_easy_setopt(handle, CURLOPT_HTTPHEADER, nullptr);
  curl_easy_setopt(handle, CURLOPT_READDATA, nullptr);
  curl_easy_setopt(handle, CURLOPT_XFERINFODATA, nullptr);
  headers.reset();

  if (code >= 200 && code <= 299 && res != CURLE_ABORTED_BY_CALLBACK) {
    double speed = 0;
    double total_s = 0;
    // The fractional figures, not the whole-number _T forms: a short upload's speed and
    // time would read as 0.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    curl_easy_getinfo(handle, CURLINFO_SPEED_UPLOAD, &speed);
#pragma GCC diagnostic pop
    curl_easy_getinfo(handle, CURLINFO_TOTAL_TIME, &total_s);
    std::ostringstream message;
    // Without the query: it is the shared-access signature, a secret.
    message << "Uploaded: " << d.path << "\n"
            << "To: " << without_query(url) << "\n"
            << "Speed: " << speed * 0.0009765625 << " kbytes/sec during " << total_s
            << " seconds";
    return {true, static_cast<uint64_t>(size), message.str()};
  }

  std::string message = std::string("curl_easy_perform() failed: ") + curl_easy_strerror(res);
  if (transfer.abort_reason == kUploadInterrupted) {
    message = kUploadInterrupted;
  } else if (res == CURLE_ABORTED_BY_CALLBACK) {
    if (!transfer.abort_reason.empty()) {
      message += " - " + transfer.abort_reason;
    } else {
      message += d.aborted ? " - User aborted" : " - Error while encrypting file";
    }
  } else {
    message += " HTTP Status Code: " + std::to_string(code);
  }
  std::string proxy_text = proxy ? proxy_failure(handle, res, *proxy) : std::string();
  if (!proxy_text.empty()) message += " - " + proxy_text;
  std::string service_code = service_error_code();
  // The service's own reason first: a logger may cut long lines short.
  zel_log(LOG_WARN, "Upload failed%s%s: %s; to %s from %s\n",
          service_code.empty() ? "" : ", service error code ", service_code.c_str(),
          message.c_str(), without_query(url).c_str(), d.path.c_str());
  curl_easy_cleanup(handle);
  handle = nullptr;
  return {false, 0, message};
}

}  // namespace zel

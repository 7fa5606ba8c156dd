#include "upload/storage_request.h"

#include <strings.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <optional>

#include "foundation/proxy_settings.h"
#include "upload/curl_proxy.h"
#include "upload/retry_policy.h"
#include "upload/uploader.h"

namespace zel {

namespace {

// An error document is short; anything past this is not worth keeping.
constexpr size_t kMaxBody = size_t{64} * 1024;

struct SlistFree {
  void operator()(curl_slist* l) const { curl_slist_free_all(l); }
};

// What comes back while the transfer runs, before it is parsed.
struct Answer {
  std::string body;
  std::string error_code;
  std::string request_id;
  std::string retry_after;
};

size_t on_body(char* data, size_t size, size_t nmemb, void* self) {
  auto* a = static_cast<Answer*>(self);
  const size_t n = size * nmemb;
  if (a->body.size() < kMaxBody) a->body.append(data, std::min(n, kMaxBody - a->body.size()));
  return n;
}

size_t on_header(char* data, size_t size, size_t nitems, void* self) {
  auto* a = static_cast<Answer*>(self);
  const size_t n = size * nitems;
  for (auto [name, field] : {std::pair{"x-ms-error-code:", &a->error_code},
                             {"x-ms-request-id:", &a->request_id},
                             {"retry-after:", &a->retry_after}}) {
    const size_t len = std::strlen(name);
    if (n <= len || strncasecmp(data, name, len) != 0) continue;
    std::string v(data + len, n - len);
    const size_t first = v.find_first_not_of(" \t");
    const size_t last = v.find_last_not_of(" \t\r\n");
    *field = first == std::string::npos ? std::string() : v.substr(first, last - first + 1);
  }
  return n;
}

std::string body_code(const std::string& body) {
  size_t open = body.find("<Code>");
  if (open == std::string::npos) return std::string();
  open += 6;
  const size_t close = body.find("</Code>", open);
  return close == std::string::npos ? std::string() : body.substr(open, close - open);
}

}  // namespace

std::string blob_address(const std::string& account, const std::string& container,
                         const std::string& camera_mac, int64_t start_time) {
  char date[32] = "";
  const time_t start = static_cast<time_t>(start_time);
  struct tm parts {};
  if (gmtime_r(&start, &parts) == nullptr || strftime(date, sizeof date, "%Y-%m-%d", &parts) == 0)
    date[0] = '\0';
  return "https://" + account + blob_domain() + "/" + container + "/" + camera_mac + "/" + date +
         "/" + std::to_string(start_time) + ".mp4";
}

StorageReply put_to_storage(CURL* h, const StoragePut& put) {
  curl_slist* raw = nullptr;
  raw = curl_slist_append(raw, ("x_ms_date: " + std::to_string(put.x_ms_date)).c_str());
  raw = curl_slist_append(raw, "x-ms-version: 2020-04-08");
  if (put.whole_blob) raw = curl_slist_append(raw, "x-ms-blob-type: BlockBlob");
  // An empty Expect header stops libcurl from waiting for "100 Continue".
  if (put.expect_timeout_s <= 0) raw = curl_slist_append(raw, "Expect:");
  std::unique_ptr<curl_slist, SlistFree> headers(raw);
  Answer answer;

  curl_easy_setopt(h, CURLOPT_URL, put.url.c_str());
  // The same proxy decision as the link's, by the blob host.
  std::optional<ProxyRoute> proxy = apply_proxy(h, put.proxy_host);
  curl_easy_setopt(h, CURLOPT_READFUNCTION, put.read);
  curl_easy_setopt(h, CURLOPT_READDATA, put.data);
  curl_easy_setopt(h, CURLOPT_INFILESIZE_LARGE, put.length);
  curl_easy_setopt(h, CURLOPT_TIMEOUT, static_cast<long>(put.timeout_s > 0 ? put.timeout_s : 0));
  if (put.expect_timeout_s > 0)
    curl_easy_setopt(h, CURLOPT_EXPECT_100_TIMEOUT_MS, static_cast<long>(put.expect_timeout_s) * 1000L);
  curl_easy_setopt(h, CURLOPT_XFERINFOFUNCTION, put.progress);
  curl_easy_setopt(h, CURLOPT_XFERINFODATA, put.data);
  curl_easy_setopt(h, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers.get());
  curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, &on_body);
  curl_easy_setopt(h, CURLOPT_WRITEDATA, &answer);
  curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, &on_header);
  curl_easy_setopt(h, CURLOPT_HEADERDATA, &answer);

  StorageReply reply;
  reply.result = curl_easy_perform(h);
  curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &reply.status);
  // The handle keeps pointers to these; they die with this call.
  for (CURLoption option : {CURLOPT_HTTPHEADER, CURLOPT_READDATA, CURLOPT_XFERINFODATA,
                            CURLOPT_WRITEDATA, CURLOPT_HEADERDATA})
    curl_easy_setopt(h, option, nullptr);
  reply.error_code = answer.error_code.empty() ? body_code(answer.body) : answer.error_code;
  reply.request_id = answer.request_id;
  reply.retry_after_s = parse_retry_after(answer.retry_after);
  if (proxy) reply.proxy_text = proxy_failure(h, reply.result, *proxy);
  return reply;
}

}  // namespace zel

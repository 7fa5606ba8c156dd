// One PUT to blob storage on an upload thread's reused libcurl handle, and the service's
// answer parsed once into fields: the single PUT and every block go through here, and only
// the edges (a clip's message, a log line) turn the fields into text.
#pragma once

#include <curl/curl.h>

#include <cstdint>
#include <memory>
#include <string>

namespace zel {

struct CurlEasyCleanup {
  void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
using CurlEasy = std::unique_ptr<CURL, CurlEasyCleanup>;

struct StoragePut {
  std::string url;         // with the access signature: never logged
  std::string proxy_host;  // the blob host, for the proxy decision
  int64_t x_ms_date = 0;   // deliberately the clip's start second, not an HTTP date
  bool whole_blob = true;  // a blob of its own (x-ms-blob-type); false for a block
  int expect_timeout_s = 0;  // wait for "100 Continue"; 0 or less: no wait
  int timeout_s = 0;         // the whole transfer; 0: none
  curl_off_t length = 0;
  curl_read_callback read = nullptr;
  curl_xferinfo_callback progress = nullptr;
  void* data = nullptr;      // handed to both callbacks
};

struct StorageReply {
  CURLcode result = CURLE_OK;
  long status = 0;
  std::string error_code;  // x-ms-error-code, else the body's <Code>
  std::string request_id;  // x-ms-request-id: what support asks for first
  long retry_after_s = -1;
  std::string proxy_text;  // why a proxy on the way refused, when one did
  bool ok() const { return result == CURLE_OK && status >= 200 && status <= 299; }
};

StorageReply put_to_storage(CURL* handle, const StoragePut& put);

// The address of a clip's blob, without the query.
std::string blob_address(const std::string& account, const std::string& container,
                         const std::string& camera_mac, int64_t start_time);

}  // namespace zel

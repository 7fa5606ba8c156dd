// Puts one clip into blob storage as a block blob with a single HTTPS PUT, encrypting the
// file on the fly. One Uploader per upload thread; it keeps its libcurl handle between
// uploads to the same storage account so the connection can be reused.
#pragma once

#include <curl/curl.h>

#include <cstddef>
#include <string>

#include "upload/upload_data.h"

namespace zel {

// Initialises libcurl once per process. It must run before any upload thread exists,
// because curl_global_init is not thread-safe; the upload pool calls it when it is made.
void uploader_global_init();

// Host part appended to the account name: the public blob service, or ZEL_BLOB_DOMAIN
// when set (for example ".blob.localhost:10000" to reach a local emulator).
std::string blob_domain();

class Uploader {
 public:
  friend class BlockUpload;  // sends its blocks on this handle
  explicit Uploader(const std::string& ca_file);
  ~Uploader();
  Uploader(const Uploader&) = delete;
  Uploader& operator=(const Uploader&) = delete;

  void init_handle();
  // Writes the progress state (aborted, last_elapsed) of d while the transfer runs.
  UploadResult upload(UploadData& d);

  // Number of easy handles made so far: a new one after a failure or an account change.
  unsigned handles_made() const { return handle_count; }

  static size_t read_callback(char* buffer, size_t size, size_t nitems, void* transfer);
  static int progress_callback(void* transfer, curl_off_t dltotal, curl_off_t dlnow,
                               curl_off_t ultotal, curl_off_t ulnow);

 private:
  static size_t body_callback(char* data, size_t size, size_t nmemb, void* self);
  static size_t header_callback(char* data, size_t size, size_t nitems, void* self);
  std::string service_error_code() const;

  CURL* handle = nullptr;
  std::string ca_file;
  std::string current_account;
  unsigned handle_count = 0;
  // The answer to the last request, kept to name the service's reason for a refusal.
  std::string response_body;
  std::string error_code_header;
};

}  // namespace zel

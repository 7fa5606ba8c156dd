// Puts one clip into blob storage as a block blob with a single HTTPS PUT (or, in block
// mode, hands it to BlockUpload), encrypting the file on the fly. One Uploader per upload thread; it keeps its libcurl handle between
// uploads to the same storage account so the connection can be reused.
#pragma once

#include <curl/curl.h>

#include <cstddef>
#include <string>

#include "upload/storage_request.h"
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
  // The handle for an account's uploads, made afresh for a new account; null when libcurl
  // cannot make one.
  CURL* handle_for(const std::string& account);
  // Writes the progress state (aborted, last_elapsed) of d while the transfer runs.
  UploadResult upload(UploadData& d);

  // Number of easy handles made so far: a new one after a failure or an account change.
  unsigned handles_made() const { return handle_count; }

  static size_t read_callback(char* buffer, size_t size, size_t nitems, void* transfer);
  static int progress_callback(void* transfer, curl_off_t dltotal, curl_off_t dlnow,
                               curl_off_t ultotal, curl_off_t ulnow);

 private:
  UploadResult uploaded(const UploadData& d, const std::string& address, uint64_t size);
  UploadResult failed(const UploadData& d, const std::string& address, const StorageReply& reply,
                      const std::string& abort_reason);

  CurlEasy handle;
  std::string ca_file;
  std::string current_account;
  unsigned handle_count = 0;
};

// The line every failed upload leaves in the log: the service's error code and request id
// (what support asks for first), never the access signature.
void log_failure(const StorageReply& reply, const std::string& message, const std::string& address,
                 const std::string& path);

}  // namespace zel

// One clip put into blob storage in blocks (Put Block, then Put Block List), so that a
// fault of a slow or flaky uplink costs one block, not the clip. Each block is tried up
// to kMaxTries times with back-off; time limits count from the start of each try. A
// refusal for stale credentials, or a token about to expire, asks for fresh ones through
// the pool. Runs on the upload thread, on the Uploader's libcurl handle.
#pragma once

#include <curl/curl.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "foundation/proxy_settings.h"
#include "upload/block_cipher.h"
#include "upload/storage_request.h"
#include "upload/upload_data.h"

namespace zel {

class Uploader;

class BlockUpload {
 public:
  // blob_url: the blob's address; its query (the token) is taken from d as it changes.
  BlockUpload(Uploader& uploader, UploadData& d, const std::string& blob_url,
              uint64_t encrypted_size);
  ~BlockUpload();
  BlockUpload(const BlockUpload&) = delete;
  BlockUpload& operator=(const BlockUpload&) = delete;

  UploadResult run();

 private:
  // Why the progress or read check ended a try.
  enum class Abort { NONE, INTERRUPTED, HOST, STALL, TRY_TIMEOUT };
  enum class Step { DONE, RESTART, FAILED };
  struct Try : StorageReply {
    Abort abort = Abort::NONE;
  };

  // Sends block n, or the block list when n == blocks, with its retries and refreshes.
  Step send(uint64_t n);
  Try perform(uint64_t n);
  Step refresh(uint64_t n);
  bool sas_expiring() const;
  // The host's progress function, at most once a second; false when it asks to abort.
  bool tick(int64_t sent);
  std::string reason(const Try& t) const;
  std::string name(uint64_t n) const;
  Step fail(const std::string& message);
  UploadResult failed_result() const;

  static size_t on_read(char* buffer, size_t size, size_t nitems, void* self);
  static int on_progress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t ulnow);

  Uploader& uploader;
  UploadData& d;
  std::string base;  // without the query: logs and messages never carry the token
  std::string key;
  uint64_t encrypted = 0;
  uint64_t blocks = 0;
  std::unique_ptr<BlockCipher> cipher;
  unsigned char chain[BlockCipher::kBlock] = {};
  uint64_t done = 0;      // ciphertext of the blocks stored by this attempt
  int64_t reported = 0;   // the most the host was told was sent: never goes back
  uint64_t bytes_read = 0;  // ciphertext libcurl took, retries included
  int refreshes = 0;
  int secret_changes = 0;
  bool list_restarted = false;
  std::string failure;
  std::string host_reason;

  // The try in progress.
  std::string list_body;
  size_t list_pos = 0;
  bool sending_list = false;
  Abort abort = Abort::NONE;
  int64_t try_start = 0;
  int64_t last_sent = -1;
  int64_t last_sent_at = 0;
  StorageReply last;  // the answer the failure line names
};

}  // namespace zel

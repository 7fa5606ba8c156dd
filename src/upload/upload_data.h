// One unit of upload work and its outcome. The pool makes an UploadData from a pending
// clip, so the clip tables may change while the upload runs; the progress check of the
// transfer writes into the first three fields, on the upload thread only.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "zel/records.h"

namespace zel {
class CredentialBoard;
}

namespace zel {

struct UploadData {
  bool aborted = false;
  int64_t start = 0;         // time_now() when the work was queued
  int64_t last_elapsed = 0;  // last whole second the progress check ran for
  std::string nvr_mac;       // first path segment of the blob: the container
  std::string camera_mac;    // lower-cased
  int64_t start_time = 0;
  std::string path;
  std::string account;
  std::string token;   // shared-access signature, appended after "?"
  std::string secret;  // encryption password
  std::string start_at;
  std::string credential_camera_mac;
  int64_t expires_at = 0;
  int32_t expect_timeout_s = 1;     // seconds to wait for "100 Continue"; 0 or less: no wait
  int32_t timeout_s = 30;           // whole-transfer limit, also counted from queuing
  UploadProgressCallback progress;  // a non-zero result aborts; may be empty
  int64_t expected_size = -1;       // the clip's size at intake; negative: not checked
  const std::atomic<bool>* cancelled = nullptr;  // the pool's stop: ends the transfer when set
  uint64_t block_bytes = 0;            // 0: one PUT; else Put Block of this size, then the list
  int32_t credential_timeout_s = 10;   // how long a fresh-credentials request may take
  CredentialBoard* board = nullptr;    // where a block upload asks for fresh credentials
};

struct UploadResult {
  bool success = false;
  uint64_t bytes = 0;  // announced and sent; 0 on failure
  std::string message;
  // A failure as the service answered it; its message is made from these.
  long http_status = 0;
  std::string error_code{};
  std::string request_id{};
};

}  // namespace zel

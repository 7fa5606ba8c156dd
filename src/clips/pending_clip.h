// One clip between intake and the server's confirmation.
#pragma once

#include <cstdint>
#include <string>

#include "zel/records.h"

namespace zel {

struct PendingClip {
  ClipInfo clip;                 // camera_mac lower-cased when taken from the queue
  UploadOpts opts;
  CloudCredentials credentials;  // empty until the upload starts
  std::string nvr_mac;
  int64_t last_change = 0;       // seconds; creation, hand-over to the pool, record-end sent
  int64_t uploaded_bytes = 0;    // reported with state 5
  bool in_flight = false;        // handed to the pool / record-end outstanding
  int32_t state = CLIP_WAITING_CREDENTIALS;
};

// Lower-cased camera MAC followed by the start second in decimal.
std::string pending_key(const std::string& lower_camera_mac, int64_t start_time);
// Camera MAC followed by the ISO start time.
std::string confirmation_key(const std::string& camera_mac, int64_t start_time);

}  // namespace zel

// Storage credentials: kept for 240 s under the clip's key, and they release the
// clip that waits for them.
#include "foundation/time_utils.h"
#include "messaging/messaging.h"
#include "upload/uploader_cluster.h"

namespace zel {

namespace {
constexpr long kCredentialLifetime = 240;
}

void Messaging::set_credentials(CloudCredentials creds) {
  creds.expires_at = time_now() + kCredentialLifetime;
  // No case change: credentials match only when the server echoes the lower-cased MAC
  // and the start second in decimal.
  const std::string key = creds.camera_mac + creds.start_at;
  credentials[key] = creds;

  auto it = pending_clips.find(key);
  if (it == pending_clips.end()) return;
  if (it->second.in_flight) {
    // A block upload that asked for them mid-clip takes them; a single PUT never asks.
    if (uploaders) uploaders->credential_board().deliver(key, creds);
    return;
  }
  PendingClip& entry = it->second;
  report_clip(entry.clip, CLIP_UPLOAD_STARTED, "");
  entry.state = CLIP_UPLOAD_STARTED;
  entry.in_flight = true;
  entry.last_change = time_now();
  entry.credentials = creds;
  hand_to_pool(entry);
}

}  // namespace zel

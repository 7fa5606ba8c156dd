// The status snapshot: the worker publishes its tables' counts at the end of every pass,
// the stages count what happens as it happens, and the host copies the result under a
// lock of its own, so asking never waits for a pass that a host callback may be holding.
#include "foundation/time_utils.h"
#include "link/websocket_client.h"
#include "messaging/messaging.h"
#include "upload/block_settings.h"
#include "upload/uploader_cluster.h"

namespace zel {

CloudStats Messaging::stats() {
  std::lock_guard<std::mutex> lock(stats_mutex);
  CloudStats s = published_stats;
  s.blocks_retried = block_counters().blocks_retried;
  s.credentials_refreshed = block_counters().credentials_refreshed;
  return s;
}

void Messaging::publish_stats() {
  WebSocketClient& link = WebSocketClient::instance();
  const auto outbound = static_cast<int64_t>(link.outbound_size());
  const auto inbound = static_cast<int64_t>(link.inbound_size());
  int64_t waiting = 0;
  int64_t uploading = 0;
  for (const auto& entry : pending_clips) ++(entry.second.in_flight ? uploading : waiting);
  int64_t awaiting = 0;
  for (const auto& entry : unacked_clips) awaiting += entry.second.in_flight ? 1 : 0;

  std::lock_guard<std::mutex> lock(stats_mutex);
  CloudStats& s = published_stats;
  s.outbound_queued = outbound;
  s.inbound_queued = inbound;
  s.motion_events_queued = static_cast<int64_t>(event_queue.size());
  s.access_events_queued = static_cast<int64_t>(access_event_queue.size());
  s.clips_queued = static_cast<int64_t>(clip_queue.size());
  s.clips_waiting_credentials = waiting;
  s.clips_uploading = uploading;
  s.clips_awaiting_confirmation = awaiting;
  s.credentials_held = static_cast<int64_t>(credentials.size());
  s.upload_threads = uploaders ? uploaders->size() : 0;
}

void Messaging::count_clip_state(int state) {
  if (state != CLIP_CONFIRMED && state != CLIP_FAILED) return;
  std::lock_guard<std::mutex> lock(stats_mutex);
  ++(state == CLIP_CONFIRMED ? published_stats.clips_confirmed : published_stats.clips_failed);
}

void Messaging::count_upload_status(const UploadStatus& status) {
  std::lock_guard<std::mutex> lock(stats_mutex);
  if (status.state == CLIP_UPLOADED) {
    ++published_stats.clips_uploaded;
    published_stats.bytes_uploaded += status.bytes;
  } else if (status.state == CLIP_FAILED) {
    published_stats.last_upload_error = status.message;
    published_stats.last_upload_error_at = time_now();
  }
}

}  // namespace zel

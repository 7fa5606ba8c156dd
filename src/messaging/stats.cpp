// The status snapshot: whoever changes a queue or a table stores its size in an atomic
// count, the stages count what happens as it happens under a lock of its own, and the host
// reads both, so asking never waits for a pass that a host callback may be holding.
#include "foundation/time_utils.h"
#include "foundation/tls_policy.h"
#include "link/websocket_client.h"
#include "messaging/messaging.h"
#include "upload/block_settings.h"
#include "outbox/outbox.h"
#include "upload/uploader_cluster.h"

namespace zel {

CloudStats Messaging::stats() {
  CloudStats s;
  {
    std::lock_guard<std::mutex> lock(stats_mutex);
    s = published_stats;
  }
  WebSocketClient& link = WebSocketClient::instance();
  s.outbound_queued = static_cast<int64_t>(link.outbound_size());
  s.inbound_queued = static_cast<int64_t>(link.inbound_size());
  s.motion_events_queued = counts.motion_events;
  s.access_events_queued = counts.access_events;
  s.clips_queued = counts.clips_queued;
  s.clips_waiting_credentials = counts.clips_waiting_credentials;
  s.clips_uploading = counts.clips_uploading;
  s.clips_awaiting_confirmation = counts.clips_awaiting_confirmation;
  s.credentials_held = counts.credentials_held;
  s.upload_threads = counts.upload_threads;
  s.clock_unset = clock_unset();
  s.reconnect_attempts = link.reconnect_attempts();
  s.next_attempt_at = link.next_attempt_at();
  s.blocks_retried = block_counters().blocks_retried;
  s.credentials_refreshed = block_counters().credentials_refreshed;
  s.outbox_bytes = counts.outbox_bytes;
  s.outbox_records = counts.outbox_records;
  s.outbox_dropped = counts.outbox_dropped;
  s.outbox_degraded = counts.outbox_degraded;
  return s;
}

void Messaging::update_counts() {
  int64_t waiting = 0;
  int64_t uploading = 0;
  for (const auto& entry : pending_clips) ++(entry.second.in_flight ? uploading : waiting);
  int64_t awaiting = 0;
  for (const auto& entry : unacked_clips) awaiting += entry.second.in_flight ? 1 : 0;
  counts.motion_events = static_cast<int64_t>(event_queue.size());
  counts.access_events = static_cast<int64_t>(access_event_queue.size());
  counts.clips_queued = static_cast<int64_t>(clip_queue.size());
  counts.clips_waiting_credentials = waiting;
  counts.clips_uploading = uploading;
  counts.clips_awaiting_confirmation = awaiting;
  counts.credentials_held = static_cast<int64_t>(credentials.size());
  counts.upload_threads = uploaders ? uploaders->size() : 0;
  if (outbox) {
    counts.outbox_bytes = static_cast<int64_t>(outbox->bytes());
    counts.outbox_records = static_cast<int64_t>(outbox->records());
    counts.outbox_dropped = static_cast<int64_t>(outbox->dropped());
    counts.outbox_degraded = outbox->degraded();
  }
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

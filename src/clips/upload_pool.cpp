// The upload pool as the clip pipeline sees it: created by connect, resized by the
// host, emptied by disconnect, and read once per pass for upload states.
#include "foundation/log.h"
#include "foundation/thread_role.h"
#include "foundation/time_utils.h"
#include "link/websocket_client.h"
#include "messaging/messaging.h"
#include "upload/block_settings.h"
#include "outbox/outbox.h"
#include "upload/uploader_cluster.h"

namespace zel {

Messaging::~Messaging() = default;

void UploaderClusterDeleter::operator()(UploaderCluster* cluster) const { delete cluster; }

namespace {
// Each thread holds a connection and a clip in flight; past this the recorder's uplink,
// not the pool, is the limit.
constexpr unsigned kMaxUploadThreads = 64;
}  // namespace

void Messaging::start_upload_pool(const std::string& ca_path) {
  std::lock_guard<std::recursive_timed_mutex> lock(work_mutex);
  uploaders.reset(new UploaderCluster(ca_path));
  block_counters().blocks_retried = 0;  // the totals count from connect
  block_counters().credentials_refreshed = 0;
  uploaders->set_size(upload_threads);
  update_counts();
}

void Messaging::hand_to_pool(PendingClip& pending) {
  if (uploaders) uploaders->upload(pending);
}

void Messaging::set_upload_threads(unsigned n) {
  // An upload thread that shrinks the pool could be asked to join itself.
  if (thread_role() == ThreadRole::UPLOADER) {
    zel_log(LEVEL_ERR, "Can't resize the upload pool from an upload thread\n");
    return;
  }
  std::lock_guard<std::recursive_timed_mutex> lock(work_mutex);
  if (!uploaders) return;
  // A pool without threads would leave every clip handed to it waiting for ever.
  if (n == 0) {
    zel_log(LEVEL_ERR, "Can't set 0 upload threads while connected; disconnect empties the pool\n");
    return;
  }
  if (n > kMaxUploadThreads) {
    zel_log(LEVEL_WARN, "Upload threads capped at %u (asked for %u)\n", kMaxUploadThreads, n);
    n = kMaxUploadThreads;
  }
  // Returns at once: threads that go finish their uploads in the background.
  const unsigned reached = uploaders->set_size(n);
  if (reached > 0) upload_threads = reached;
  update_counts();
}

bool Messaging::stop_upload_pool(std::chrono::steady_clock::time_point deadline,
                                 std::vector<ClipReport>& reports) {
  {
    std::unique_lock<std::recursive_timed_mutex> lock(work_mutex, std::defer_lock);
    if (!lock_work_by(lock, deadline)) return false;
    if (uploaders) stopping_pool = std::move(uploaders);
    update_counts();
  }
  if (stopping_pool) {
    // Unlocked: a progress function may be waiting for work_mutex right now.
    const bool stopped = stopping_pool->stop(deadline);
    std::unique_lock<std::recursive_timed_mutex> lock(work_mutex, std::defer_lock);
    if (!lock_work_by(lock, deadline)) return false;  // the next disconnect takes it from here
    // What the threads reported before they stopped still reaches the host...
    reports = apply_upload_statuses(stopping_pool->get_statuses());
    // ...and no clip keeps a pending slot for an upload that will never report.
    for (auto it = pending_clips.begin(); it != pending_clips.end();) {
      if (!it->second.in_flight) {
        ++it;
        continue;
      }
      it->second.state = CLIP_FAILED;
      reports.push_back({std::move(it->second.clip), CLIP_FAILED, kUploadInterrupted});
      it = pending_clips.erase(it);
    }
    update_counts();
    if (!stopped) {
      zel_log(LEVEL_ERR, "An upload thread is still in its progress function; it ends when that returns\n");
      stuck_pools.push_back(std::move(stopping_pool));
    }
    stopping_pool.reset();
  }
  reap_stuck_pools();
  return true;
}

void Messaging::reap_stuck_pools() {
  for (auto it = stuck_pools.begin(); it != stuck_pools.end();)
    it = (*it)->stop(std::chrono::steady_clock::now()) ? stuck_pools.erase(it) : it + 1;
}

void Messaging::manage_upload_threads() {
  if (!uploaders) return;
  // Block uploads that need fresh credentials mid-clip: asked once per link, so a request
  // lost with a dropped link goes again after the reconnection.
  for (const std::string& key : uploaders->credential_board().take_requests(stats().connections)) {
    auto it = pending_clips.find(key);
    if (it == pending_clips.end()) continue;
    WebSocketClient::instance().send_message(
        makeMessage(device_info, "zel-inbound", "storage_access_request",
                    upload_record_start(it->second), true),
        false);
  }
  for (const ClipReport& r : apply_upload_statuses(uploaders->get_statuses()))
    report_clip(r.clip, r.state, r.message);
}

std::vector<ClipReport> Messaging::apply_upload_statuses(const std::vector<UploadStatus>& statuses) {
  std::vector<ClipReport> reports;
  for (const UploadStatus& status : statuses) {
    auto it = pending_clips.find(status.key);
    if (it == pending_clips.end()) continue;  // ended already, e.g. by expiry
    PendingClip& entry = it->second;
    entry.state = status.state;
    count_upload_status(status);
    reports.push_back({entry.clip, status.state, status.message});

    if (status.state == CLIP_UPLOADED) {
      entry.uploaded_bytes = status.bytes;
      // The body carries the hand-over time, so it is built before last_change moves.
      std::string message =
          makeMessage(device_info, "jobs", "transaction", upload_record_end(entry), true);
      if (outbox) outbox->clip_uploaded(it->first, status.bytes, entry.last_change);
      entry.in_flight = true;
      entry.last_change = time_now();
      credentials.erase(it->first);
      unacked_clips[confirmation_key(entry.clip.camera_mac, entry.clip.start_time)] =
          std::move(entry);
      WebSocketClient::instance().send_message(message, false);
      pending_clips.erase(it);
    } else if (status.state == CLIP_FAILED) {
      pending_clips.erase(it);
    }
  }
  return reports;
}

}  // namespace zel

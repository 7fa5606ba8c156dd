// The upload pool as the clip pipeline sees it: created by connect, resized by the
// host, emptied by disconnect, and read once per pass for upload states.
#include "foundation/time_utils.h"
#include "link/websocket_client.h"
#include "messaging/messaging.h"

#include "upload/uploader_cluster.h"

namespace zel {

Messaging::~Messaging() = default;

void UploaderClusterDeleter::operator()(UploaderCluster* cluster) const { delete cluster; }

void Messaging::start_upload_pool(const std::string& ca_path) {
  std::lock_guard<std::recursive_mutex> lock(work_mutex);
  uploaders.reset(new UploaderCluster(ca_path));
  upload_threads = 1;
}

void Messaging::hand_to_pool(PendingClip& pending) {
  if (uploaders) uploaders->upload(pending);
}

void Messaging::set_upload_threads(unsigned n) {
  std::lock_guard<std::recursive_mutex> lock(work_mutex);
  if (!uploaders) return;
  uploaders->set_size(n);
  upload_threads = n;
}

void Messaging::stop_upload_pool() {
  std::lock_guard<std::recursive_mutex> lock(work_mutex);
  if (!uploaders) return;
  uploaders->set_size(0);
  // What the threads reported before they stopped still reaches the host...
  manage_upload_threads();
  // ...and no clip keeps a pending slot for an upload that will never report.
  for (auto it = pending_clips.begin(); it != pending_clips.end();) {
    if (!it->second.in_flight) {
      ++it;
      continue;
    }
    PendingClip failed = std::move(it->second);
    it = pending_clips.erase(it);
    failed.state = CLIP_FAILED;
    report_clip(failed.clip, CLIP_FAILED, "Upload interrupted by disconnect");
  }
  uploaders.reset();
}

void Messaging::manage_upload_threads() {
  if (!uploaders) return;
  for (const UploadStatus& status : uploaders->get_statuses()) {
    auto it = pending_clips.find(status.key);
    if (it == pending_clips.end()) continue;  // ended already, e.g. by expiry
    PendingClip& entry = it->second;
    entry.state = status.state;
    report_clip(entry.clip, status.state, status.message);

    if (status.state == CLIP_UPLOADED) {
      entry.uploaded_bytes = status.bytes;
      // The body carries the hand-over time, so it is built before last_change moves.
      std::string message =
          makeMessage(device_info, "jobs", "transaction", upload_record_end(entry), true);
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
}

}  // namespace zel

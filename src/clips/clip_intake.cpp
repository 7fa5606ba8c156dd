// Clip intake: checks on the host's thread, the clip queue, and the worker's step that
// turns a queued clip into a pending one and asks for its storage credentials.
#include <algorithm>
#include <exception>
#include <fstream>

#include "foundation/log.h"
#include "foundation/thread_role.h"
#include "foundation/time_utils.h"
#include "link/websocket_client.h"
#include "messaging/messaging.h"
#include "outbox/outbox.h"

namespace zel {

namespace {
constexpr int64_t kMaxClipSize = 256000000;

int64_t file_size(const std::string& path) {
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  if (!in) return -1;
  return static_cast<int64_t>(in.tellg());
}

std::string lower(std::string s) {
  for (char& ch : s) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
  return s;
}
}  // namespace

std::string pending_key(const std::string& lower_camera_mac, int64_t start_time) {
  return lower_camera_mac + std::to_string(start_time);
}

std::string confirmation_key(const std::string& camera_mac, int64_t start_time) {
  return camera_mac + toISOTime(static_cast<long>(start_time));
}

// A host callback that is missing or throws must not lose the clip nor report it twice:
// the stage carries on as if the call had returned.
void Messaging::report_clip(const ClipInfo& clip, int state, const std::string& message) {
  count_clip_state(state);
  if (state == CLIP_CONFIRMED || state == CLIP_FAILED) {
    std::lock_guard<std::recursive_timed_mutex> lock(work_mutex);
    if (outbox) outbox->clip_final(Outbox::clip_key(clip));
  }
  if (!clip.callback) return;
  CallbackScope scope;
  try {
    clip.callback(state, clip, message);
  } catch (const std::exception& e) {
    zel_log(LEVEL_ERR, "Clip callback for %s/%lld (state %d) failed: %s\n", clip.camera_mac.c_str(),
            static_cast<long long>(clip.start_time), state, e.what());
  } catch (...) {
    zel_log(LEVEL_ERR, "Clip callback for %s/%lld (state %d) failed\n", clip.camera_mac.c_str(),
            static_cast<long long>(clip.start_time), state);
  }
}

void Messaging::upload_clip(const ClipInfo& clip) { upload_clip(clip, UploadOpts{1, 10, 30, {}}); }

void Messaging::upload_clip(const ClipInfo& clip, const UploadOpts& opts) {
  const int64_t real_size = file_size(clip.path);
  std::string rejection;
  if (clip.start_time >= clip.end_time)
    rejection = "Start time >= End time";
  else if (clip.camera_mac.empty())
    rejection = "Camera mac address is empty";
  else if (clip.path.empty())
    rejection = "Path is empty";
  else if (real_size < 0)
    rejection = "Issue reading the file";
  else if (real_size != clip.size)
    rejection = "File sizes differ expected: " + std::to_string(clip.size) +
                " got: " + std::to_string(real_size);
  else if (real_size > kMaxClipSize)
    rejection = "File size is too large: " + std::to_string(real_size);
  if (!rejection.empty()) {
    report_clip(clip, CLIP_REJECTED, rejection);
    return;
  }

  std::lock_guard<std::recursive_timed_mutex> lock(work_mutex);
  auto it = unacked_clips.find(confirmation_key(clip.camera_mac, clip.start_time));
  if (it == unacked_clips.end()) {
    if (!replace_earlier_submission(clip)) return;
    clip_queue.emplace_back(clip, opts);
    if (outbox) outbox->accept_clip(Outbox::clip_key(clip), clip, opts);
    update_counts();
    report_clip(clip, CLIP_QUEUED, "");
    return;
  }
  // Uploaded already, but its confirmation is outstanding or lost: ask again.
  PendingClip& entry = it->second;
  entry.in_flight = true;
  entry.last_change = time_now();
  entry.state = CLIP_UPLOADED;
  WebSocketClient::instance().send_message(
      makeMessage(device_info, "jobs", "transaction", upload_record_end(entry), true), false);
  report_clip(clip, CLIP_UPLOADED, "Re-sending upload confirmation");
}

bool Messaging::replace_earlier_submission(const ClipInfo& clip) {
  const std::string key = pending_key(lower(clip.camera_mac), clip.start_time);
  auto pending = pending_clips.find(key);
  if (pending != pending_clips.end() && pending->second.in_flight) {
    report_clip(clip, CLIP_REJECTED, "Clip is already uploading");
    return false;
  }
  // Every submission ends with a final state: the one replaced ends here. Its credentials,
  // if they come, serve the new submission.
  ClipInfo replaced;
  if (pending != pending_clips.end()) {
    replaced = std::move(pending->second.clip);
    pending_clips.erase(pending);
  } else {
    auto queued = std::find_if(clip_queue.begin(), clip_queue.end(), [&key](const auto& entry) {
      return pending_key(lower(entry.first.camera_mac), entry.first.start_time) == key;
    });
    if (queued == clip_queue.end()) return true;
    replaced = std::move(queued->first);
    clip_queue.erase(queued);
  }
  update_counts();
  report_clip(replaced, CLIP_FAILED, "Replaced by a newer submission of the same clip");
  return true;
}

void Messaging::clear_queued_clips() {
  std::lock_guard<std::recursive_timed_mutex> lock(work_mutex);
  while (!clip_queue.empty()) {
    ClipInfo clip = std::move(clip_queue.front().first);
    clip_queue.pop_front();
    update_counts();
    report_clip(clip, CLIP_FAILED, "User cancelled");
  }
}

void Messaging::process_clip() {
  if (clip_queue.empty() || pending_clips.size() >= upload_threads) return;

  PendingClip pending;
  pending.clip = std::move(clip_queue.front().first);
  pending.opts = std::move(clip_queue.front().second);
  clip_queue.pop_front();
  pending.nvr_mac = device_mac;
  pending.last_change = time_now();
  pending.uploaded_bytes = 0;
  pending.in_flight = false;
  pending.state = CLIP_WAITING_CREDENTIALS;
  pending.clip.camera_mac = lower(pending.clip.camera_mac);
  const std::string key = pending_key(pending.clip.camera_mac, pending.clip.start_time);

  report_clip(pending.clip, CLIP_WAITING_CREDENTIALS, "");
  auto known = credentials.find(key);
  if (known == credentials.end()) {
    WebSocketClient::instance().send_message(
        makeMessage(device_info, "zel-inbound", "storage_access_request",
                    upload_record_start(pending), true),
        false);
  } else {
    // Credentials that came before the clip left the queue are used without asking again.
    report_clip(pending.clip, CLIP_UPLOAD_STARTED, "");
    pending.state = CLIP_UPLOAD_STARTED;
    pending.in_flight = true;
    pending.last_change = time_now();
    pending.credentials = known->second;
    hand_to_pool(pending);
  }
  pending_clips[key] = std::move(pending);
}

}  // namespace zel

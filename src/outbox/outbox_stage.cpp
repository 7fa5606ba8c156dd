// Where the outbox meets Messaging: turning it on, putting back what a dead process left,
// and following each event from its envelope to the pong that proves it.
#include <sys/stat.h>

#include <cctype>

#include "foundation/log.h"
#include "foundation/time_utils.h"
#include "link/websocket_client.h"
#include "messaging/messaging.h"
#include "outbox/outbox.h"

namespace zel {

void OutboxDeleter::operator()(Outbox* o) const { delete o; }

namespace {
constexpr const char* kClipChanged = "Clip file changed or removed since it was queued";

bool same_file(const ClipPayload& c) {
  struct stat st {};
  if (::stat(c.clip.path.c_str(), &st) != 0) return false;
  const int64_t mtime = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
  return st.st_size == c.file_size && mtime == c.file_mtime_ns;
}
}  // namespace

bool Messaging::set_outbox(const std::string& dir, uint64_t max_bytes) {
  bool opened = false;
  const bool stopped = when_stopped([&] {
    std::lock_guard<std::recursive_timed_mutex> lock(work_mutex);
    std::unique_ptr<Outbox> fresh = Outbox::open(dir, max_bytes);
    if (!fresh) return;
    // Events queued before this outbox are not in it: they keep their place, untracked.
    for (size_t i = 0; i < event_queue.size(); ++i) fresh->push_front_queued(EventKind::MOTION, 0);
    for (size_t i = 0; i < access_event_queue.size(); ++i)
      fresh->push_front_queued(EventKind::ACCESS, 0);
    outbox.reset(fresh.release());
    outbox_replayed = false;
    update_counts();
    opened = true;
  });
  if (!stopped) zel_log(LEVEL_ERR, "Outbox not set: set it before connect\n");
  return opened;
}

void Messaging::register_recovered_clips(ClipCallback cb) {
  std::lock_guard<std::recursive_timed_mutex> lock(work_mutex);
  recovered_clips_cb = std::move(cb);
  if (outbox_replayed) recover_clips();
}

void Messaging::replay_outbox() {
  if (!outbox) return;
  Outbox::Replay r = outbox->take_replayed_events();
  // In front of whatever was accepted since the outbox was opened, in their order.
  for (auto it = r.motion.rbegin(); it != r.motion.rend(); ++it) {
    event_queue.push_front(std::move(it->second));
    outbox->push_front_queued(EventKind::MOTION, it->first);
  }
  for (auto it = r.access.rbegin(); it != r.access.rend(); ++it) {
    access_event_queue.push_front(std::move(it->second));
    outbox->push_front_queued(EventKind::ACCESS, it->first);
  }
  update_counts();
  outbox_replayed = true;
  recover_clips();
}

void Messaging::recover_clips() {
  if (!outbox || !recovered_clips_cb || !outbox->has_recovered_clips()) return;
  for (auto& recovered : outbox->take_recovered_clips()) {
    ClipPayload& c = recovered.first;
    c.clip.callback = recovered_clips_cb;
    if (recovered.second.state == CLIP_UPLOADED) {
      // Uploaded already: only its confirmation is missing, and that is asked for again.
      PendingClip entry;
      entry.clip = std::move(c.clip);
      for (char& ch : entry.clip.camera_mac)
        ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
      entry.opts = c.opts;
      entry.nvr_mac = device_mac;
      entry.last_change = recovered.second.handed_over_at;
      entry.uploaded_bytes = recovered.second.bytes;
      entry.in_flight = true;
      entry.state = CLIP_UPLOADED;
      const std::string key = confirmation_key(entry.clip.camera_mac, entry.clip.start_time);
      unacked_clips[key] = std::move(entry);
      recovered_record_ends.push_back(key);
    } else if (!same_file(c)) {
      report_clip(c.clip, CLIP_FAILED, kClipChanged);
    } else {
      clip_queue.emplace_back(c.clip, c.opts);
      update_counts();
      report_clip(c.clip, CLIP_QUEUED, "");
    }
  }
  update_counts();
}

void Messaging::settle_outbox() {
  if (!outbox) return;
  WebSocketClient& link = WebSocketClient::instance();
  outbox->settle(link.take_proven(), link.connection_number());
  std::vector<std::string> keys;
  keys.swap(recovered_record_ends);
  for (const std::string& key : keys) {
    auto it = unacked_clips.find(key);
    if (it == unacked_clips.end() || it->second.state != CLIP_UPLOADED) continue;
    // The body carries the hand-over time; the confirmation's time-out starts now.
    std::string message =
        makeMessage(device_info, "jobs", "transaction", upload_record_end(it->second), true);
    it->second.last_change = time_now();
    link.send_message(message, false);
    report_clip(it->second.clip, CLIP_UPLOADED, "Re-sending upload confirmation");
  }
}

void Messaging::send_event(uint64_t seq, const std::string& envelope) {
  WebSocketClient& link = WebSocketClient::instance();
  if (!outbox || seq == 0) {
    link.send_message(envelope, false);
    return;
  }
  if (outbox->sent(seq, envelope, link.connection_number()) == 0)
    link.send_message(envelope, false);
  else
    link.send_tracked(envelope, seq);
}

bool Messaging::resend_event(EventKind kind) {
  uint64_t seq = 0;
  std::string envelope;
  if (!outbox || !outbox->next_resend(kind, seq, envelope)) return false;
  send_event(seq, envelope);
  return true;
}

}  // namespace zel

// Once per pass: fail clips whose credentials or confirmation are late, keep the
// confirmation table bounded, and drop credentials nobody used.
#include "foundation/log.h"
#include "foundation/time_utils.h"
#include "messaging/messaging.h"

namespace zel {

namespace {
constexpr size_t kMaxUnacked = 1000;
constexpr int64_t kRecentSpan = 299;
}  // namespace

void Messaging::expire_clip() {
  const int64_t now = time_now();

  for (auto it = pending_clips.begin(); it != pending_clips.end();) {
    PendingClip& entry = it->second;
    const int64_t timeout = entry.opts.timeout_seconds;
    if (entry.in_flight || entry.last_change + timeout >= now) {
      ++it;
      continue;
    }
    entry.state = CLIP_FAILED;
    PendingClip failed = std::move(entry);
    it = pending_clips.erase(it);
    report_clip(failed.clip, CLIP_FAILED,
                "Credentials took more than " + std::to_string(timeout) + " seconds");
  }

  for (auto it = unacked_clips.begin(); it != unacked_clips.end();) {
    PendingClip& entry = it->second;
    const int64_t timeout = entry.opts.timeout_seconds;
    if (entry.in_flight && entry.opts.confirm_timeout != 0 && entry.last_change + timeout < now) {
      entry.in_flight = false;
      entry.state = CLIP_FAILED;
      report_clip(entry.clip, CLIP_FAILED,
                  "Upload confirmation took more than " + std::to_string(timeout) + " seconds");
    }
    // Over the high-water mark it is the recently changed entries that go and the old
    // ones that stay; the cloud side is built around that order.
    if (unacked_clips.size() > kMaxUnacked && !(entry.last_change + kRecentSpan < now)) {
      zel_log(LEVEL_WARN, "Transaction for %s/%ld expired.\n", entry.clip.camera_mac.c_str(),
              static_cast<long>(entry.clip.start_time));
      it = unacked_clips.erase(it);
      continue;
    }
    ++it;
  }

  for (auto it = credentials.begin(); it != credentials.end();) {
    if (it->second.expires_at < now) {
      zel_log(LEVEL_WARN, "Credentials for %s/%s expired.\n", it->second.camera_mac.c_str(),
              it->second.start_at.c_str());
      it = credentials.erase(it);
    } else {
      ++it;
    }
  }
}

}  // namespace zel

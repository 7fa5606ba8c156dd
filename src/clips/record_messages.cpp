// The two messages around an upload: the storage access request before it and the
// record-end "archive" transaction after it. Fixed key order, values unescaped.
#include <sstream>

#include "foundation/time_utils.h"
#include "messaging/messaging.h"

namespace zel {

namespace {
std::string keyframe_text(const std::vector<double>& times) {
  std::string text = "[";
  for (size_t i = 0; i < times.size(); ++i) {
    std::ostringstream one;  // default formatting: 6 significant digits
    one << times[i];
    if (i > 0) text += ",";
    text += one.str();
  }
  return text + "]";
}
}  // namespace

std::string Messaging::upload_record_start(const PendingClip& pending) {
  const std::string now = getISOTime();
  const ClipInfo& clip = pending.clip;
  return "{\"type\":\"storage_access_request\",\"subject\":\"storage_access_request\",\"nvrId\":\"" +
         device_mac + "\",\"provider\":\"azure\",\"properties\":{\"provider\":\"azure\",\"cameraMac\":\"" +
         clip.camera_mac + "\",\"start_at\":\"" + toISOTime(static_cast<long>(clip.start_time)) +
         "\",\"end_at\":\"" + toISOTime(static_cast<long>(clip.end_time)) + "\",\"bytes\":\"" +
         std::to_string(static_cast<uint64_t>(clip.size)) + "\",\"created_at\":\"" + now +
         "\",\"updated_at\":\"" + now + "\"}}";
}

std::string Messaging::upload_record_end(const PendingClip& pending) {
  const std::string now = getISOTime();
  const ClipInfo& clip = pending.clip;
  return "{\"topic\":\"transaction\",\"model\":\"archive\",\"method\":\"changed\",\"nvrMac\":\"" +
         device_mac + "\",\"apiVersion\":\"2\",\"properties\":{\"mac_address\":\"" +
         clip.camera_mac + "\",\"start_at\":\"" + toISOTime(static_cast<long>(clip.start_time)) +
         "\",\"end_at\":\"" + toISOTime(static_cast<long>(clip.end_time)) +
         "\",\"created_at\":\"" + now + "\",\"updated_at\":\"" + now +
         "\",\"upload_start_at\":\"" + toISOTime(static_cast<long>(pending.last_change)) +
         "\",\"upload_end_at\":\"" + now + "\",\"keyframe_times\":\"" +
         keyframe_text(clip.keyframe_times) + "\",\"metadata\":\"" + clip.metadata +
         "\",\"duration\":\"" + std::to_string(clip.end_time - clip.start_time) +
         "\",\"bytes\":\"" + std::to_string(static_cast<uint64_t>(pending.uploaded_bytes)) +
         "\"},\"subject\":\"transaction\"}";
}

}  // namespace zel

// The host's facade: every operation forwards to the Messaging singleton, the logger or
// the upload rate limiter. From inside the host's log callback only stats() goes through:
// any other call could wait for a thread that waits to log, and is refused at once.
#include "zel/upload.h"

#include "foundation/log.h"
#include "foundation/proxy_settings.h"
#include "foundation/tls_policy.h"
#include "messaging/messaging.h"
#include "upload/block_settings.h"
#include "upload/rate_limiter.h"

namespace zel {

bool Upload::connect(const CloudConnect& cc, std::function<void()> on_connect,
                     std::function<void()> on_disconnect, const std::list<std::string>& cameras) {
  if (in_log_callback()) return false;
  return Messaging::get().connect(cc, std::move(on_connect), std::move(on_disconnect), cameras);
}

bool Upload::disconnect() {
  if (in_log_callback()) return false;
  return Messaging::get().disconnect();
}

bool Upload::stop() {
  if (in_log_callback()) return false;
  return Messaging::get().disconnect();
}

void Upload::register_cloud_status(std::function<void(CloudStatus)> cb) {
  if (in_log_callback()) return;
  Messaging::get().register_cloud_status(std::move(cb));
}

void Upload::register_list_actions(std::function<MsgResponse(std::string)> cb) {
  if (in_log_callback()) return;
  Messaging::get().register_list_actions(std::move(cb));
}

void Upload::register_perform_action(std::function<MsgResponse(ActionInfo)> cb) {
  if (in_log_callback()) return;
  Messaging::get().register_perform_action(std::move(cb));
}

void Upload::register_ota_update(std::function<MsgResponse(UpdateInfo)> cb) {
  if (in_log_callback()) return;
  Messaging::get().register_ota_update(std::move(cb));
}

void Upload::upload_clip(const ClipInfo& clip) {
  if (in_log_callback()) return;
  Messaging::get().upload_clip(clip);
}

void Upload::upload_clip(const ClipInfo& clip, const UploadOpts& opts) {
  if (in_log_callback()) return;
  Messaging::get().upload_clip(clip, opts);
}

void Upload::clear_queued_clips() {
  if (in_log_callback()) return;
  Messaging::get().clear_queued_clips();
}

void Upload::upload_event(const EventInfo& event) {
  if (in_log_callback()) return;
  Messaging::get().upload_event(event);
}

void Upload::upload_event(const AccessEventInfo& event) {
  if (in_log_callback()) return;
  Messaging::get().upload_event(event);
}

void Upload::send_camera_setting(const std::string& camera_mac, const std::string& name,
                                 const std::string& value) {
  if (in_log_callback()) return;
  Messaging::get().send_camera_setting(camera_mac, name, value);
}

void Upload::register_camera(const std::string& camera_mac) {
  if (in_log_callback()) return;
  Messaging::get().register_camera(camera_mac);
}

void Upload::register_item(const Item& item) {
  if (in_log_callback()) return;
  Messaging::get().register_item(item);
}

void Upload::cloud_sync() {
  if (in_log_callback()) return;
  Messaging::get().cloud_sync();
}

void Upload::send_action_scheduler(const std::string& action_scheduler_uuid,
                                   const std::string& recurrence_count) {
  if (in_log_callback()) return;
  Messaging::get().send_action_scheduler(action_scheduler_uuid, recurrence_count);
}

void Upload::set_upload_threads(unsigned n) {
  if (in_log_callback()) return;
  Messaging::get().set_upload_threads(n);
}

CloudStats Upload::stats() { return Messaging::get().stats(); }

void Upload::register_log(std::function<void(int, const std::string&)> cb) {
  if (in_log_callback()) return;
  set_log_callback(std::move(cb));
}

void Upload::set_log_levels(int levels) {
  if (in_log_callback()) return;
  zel::set_log_levels(levels);
}

void Upload::set_upload_rate_limit(uint64_t bytes_per_second) {
  if (in_log_callback()) return;
  upload_rate_limiter().set_rate(bytes_per_second);
}

bool Upload::set_block_upload(uint64_t block_bytes) {
  if (in_log_callback()) return false;
  return set_block_bytes(block_bytes);
}

bool Upload::set_proxy(const std::string& proxy_uri) {
  if (in_log_callback()) return false;
  return set_proxy_override(proxy_uri);
}

bool Upload::set_tls_policy(const TlsPolicy& policy) {
  if (in_log_callback()) return false;
  bool stored = false;
  if (Messaging::get().when_stopped([&] { stored = store_tls_policy(policy); })) return stored;
  zel_log(LEVEL_ERR, "TLS policy not changed: set it before connect\n");
  return false;
}

bool Upload::set_outbox(const std::string& dir, uint64_t max_bytes) {
  if (in_log_callback()) return false;
  return Messaging::get().set_outbox(dir, max_bytes);
}

void Upload::register_recovered_clips(ClipCallback cb) {
  if (in_log_callback()) return;
  Messaging::get().register_recovered_clips(std::move(cb));
}

}  // namespace zel

// The host's facade: every operation forwards to the Messaging singleton.
#include "zel/upload.h"

#include "foundation/proxy_settings.h"
#include "messaging/messaging.h"

namespace zel {

bool Upload::connect(const CloudConnect& cc, std::function<void()> on_connect,
                     std::function<void()> on_disconnect, const std::list<std::string>& cameras) {
  return Messaging::get().connect(cc, std::move(on_connect), std::move(on_disconnect), cameras);
}

bool Upload::disconnect() { return Messaging::get().disconnect(); }

bool Upload::stop() { return Messaging::get().disconnect(); }

void Upload::register_cloud_status(std::function<void(CloudStatus)> cb) {
  Messaging::get().register_cloud_status(std::move(cb));
}

void Upload::register_list_actions(std::function<MsgResponse(std::string)> cb) {
  Messaging::get().register_list_actions(std::move(cb));
}

void Upload::register_perform_action(std::function<MsgResponse(ActionInfo)> cb) {
  Messaging::get().register_perform_action(std::move(cb));
}

void Upload::register_ota_update(std::function<MsgResponse(UpdateInfo)> cb) {
  Messaging::get().register_ota_update(std::move(cb));
}

void Upload::upload_clip(const ClipInfo& clip) { Messaging::get().upload_clip(clip); }

void Upload::upload_clip(const ClipInfo& clip, const UploadOpts& opts) {
  Messaging::get().upload_clip(clip, opts);
}

void Upload::clear_queued_clips() { Messaging::get().clear_queued_clips(); }

void Upload::upload_event(const EventInfo& event) { Messaging::get().upload_event(event); }

void Upload::upload_event(const AccessEventInfo& event) { Messaging::get().upload_event(event); }

void Upload::send_camera_setting(const std::string& camera_mac, const std::string& name,
                                 const std::string& value) {
  Messaging::get().send_camera_setting(camera_mac, name, value);
}

void Upload::register_camera(const std::string& camera_mac) {
  Messaging::get().register_camera(camera_mac);
}

void Upload::register_item(const Item& item) { Messaging::get().register_item(item); }

void Upload::cloud_sync() { Messaging::get().cloud_sync(); }

void Upload::send_action_scheduler(const std::string& action_scheduler_uuid,
                                   const std::string& recurrence_count) {
  Messaging::get().send_action_scheduler(action_scheduler_uuid, recurrence_count);
}

void Upload::set_upload_threads(unsigned n) { Messaging::get().set_upload_threads(n); }

bool Upload::set_proxy(const std::string& proxy_uri) { return set_proxy_override(proxy_uri); }

}  // namespace zel

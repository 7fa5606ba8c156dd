// Telling the cloud what hardware the device has and how it is set up.
#include <cjson/cJSON.h>

#include "foundation/json_ptr.h"
#include "foundation/log.h"
#include "foundation/redact.h"
#include "link/websocket_client.h"
#include "messaging/messaging.h"

namespace zel {

void Messaging::register_item(const Item& item) {
  std::lock_guard<std::recursive_timed_mutex> lock(work_mutex);
  WebSocketClient::instance().send_message(
      makeMessage(device_info, "zel-inbound", "register", item.to_json(), true), false);
}

void Messaging::cloud_sync() {
  std::lock_guard<std::recursive_timed_mutex> lock(work_mutex);
  WebSocketClient::instance().send_message(
      makeMessage(device_info, "zel-inbound", "cloudsync", "{}", true), false);
}

void Messaging::register_camera(const std::string& camera_mac) {
  std::lock_guard<std::recursive_timed_mutex> lock(work_mutex);
  send_camera_to_cloud(camera_mac);
}

void Messaging::send_camera_to_cloud(const std::string& camera_mac) {
  JsonPtr doc(cJSON_Parse(camera_template.c_str()));
  if (!doc) return;
  cJSON_ReplaceItemInObject(doc.get(), "nvrMac", cJSON_CreateString(device_mac.c_str()));
  cJSON* properties = cJSON_GetObjectItemCaseSensitive(doc.get(), "properties");
  cJSON_ReplaceItemInObject(properties, "mac_address", cJSON_CreateString(camera_mac.c_str()));
  WebSocketClient::instance().send_message(
      makeMessage(device_info, "jobs", "transaction", print_unformatted(doc.get()), true), false);
}

void Messaging::send_camera_setting(const std::string& camera_mac, const std::string& name,
                                    const std::string& value) {
  std::lock_guard<std::recursive_timed_mutex> lock(work_mutex);
  JsonPtr parsed(cJSON_Parse(value.c_str()));
  if (!parsed) {
    zel_log(LEVEL_WARN, "Error parsing stringified_value: '%s'\n", mask_secrets(value).c_str());
    return;
  }
  // The value travels as the text it was given, not as the parsed JSON.
  JsonPtr properties(cJSON_CreateObject());
  cJSON_AddStringToObject(properties.get(), "name", name.c_str());
  cJSON_AddStringToObject(properties.get(), "value", value.c_str());
  cJSON_AddStringToObject(properties.get(), "mac_address", camera_mac.c_str());
  send_transaction("cameraSetting", print_unformatted(properties.get()), "changed");
}

void Messaging::send_action_scheduler(const std::string& action_scheduler_uuid,
                                      const std::string& recurrence_count) {
  std::lock_guard<std::recursive_timed_mutex> lock(work_mutex);
  send_transaction("actionScheduler",
                   "{\"action_scheduler_uuid\": \"" + action_scheduler_uuid +
                       "\",\"recurrence_count\": \"" + recurrence_count + "\"}",
                   "changed");
}

}  // namespace zel

// Dispatch by subject, and the handlers that only hand a request to the host.
#include "zel/json.h"
#include "foundation/json_ptr.h"
#include "handlers/zel_handler.h"
#include "messaging/messaging.h"

namespace zel {

const char* const kCouldNotParseContents = "{\"error\": \"Could not parse contents\"}";

MsgResponse ZelHandler::handleMessage(Messaging* messaging, std::string subject,
                                      std::string contents, cJSON* /*message*/) {
  if (subject == "pong") return pongHandler(messaging);
  if (subject == "getStorageAccess") return storageAccessHandler(contents, messaging);
  if (subject == "transaction") return transactionHandler(contents, messaging);
  if (subject == "transactionAck") return transactionAckHandler(contents, messaging);
  if (subject == "version") return versionHandler(contents, messaging);
  if (subject == "setSshPassword") return MsgResponse::Okay();
  if (subject == "cameraSettingWrite") return MsgResponse::Okay();
  if (subject == "details") return detailsHandler(messaging);
  if (subject == "status") return statusHandler(messaging);
  if (subject == "issueCertificate") return issueCertificateHandler(contents, messaging);
  if (subject == "update") return updateHandler(contents, messaging);
  if (subject == "updateFirmware") return updateHandler(contents, messaging);
  if (subject == "actions") return actionsHandler(contents, messaging);
  if (subject == "action") return actionHandler(contents, messaging);
  // The subject goes back as it came, unescaped.
  return MsgResponse::Error("{\"from\":\"zel-upload-lib\",\"error\":\"Not supported subject: " +
                            subject + "\"}");
}

MsgResponse ZelHandler::pongHandler(Messaging* messaging) {
  messaging->pong();
  return MsgResponse::EmptyResponse();
}

MsgResponse ZelHandler::versionHandler(const std::string& contents, Messaging* messaging) {
  CppJSON json(contents);
  const cJSON* root = json;
  CloudStatus status;
  status.enabled = cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(root, "enabled"));
  status.registered = cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(root, "registered"));
  const cJSON* account = cJSON_GetObjectItemCaseSensitive(root, "account_id");
  if (cJSON_IsNumber(account)) status.account_id = account->valueint;
  const cJSON* partner = cJSON_GetObjectItemCaseSensitive(root, "partner_id");
  if (cJSON_IsNumber(partner)) status.partner_id = partner->valueint;
  status.device_uuid = string_member(root, "device_uuid");
  messaging->cloud_status(status);
  return MsgResponse(messaging->get_version_json());
}

MsgResponse ZelHandler::actionsHandler(const std::string& contents, Messaging* messaging) {
  std::string device;
  {
    JsonPtr root(cJSON_Parse(contents.c_str()));
    if (!root) return MsgResponse::Error(kCouldNotParseContents);
    device = string_member(cJSON_GetObjectItemCaseSensitive(root.get(), "options"), "device");
  }
  return messaging->list_actions(device);
}

MsgResponse ZelHandler::actionHandler(const std::string& contents, Messaging* messaging) {
  ActionInfo info;
  {
    JsonPtr root(cJSON_Parse(contents.c_str()));
    if (!root) return MsgResponse::Error(kCouldNotParseContents);
    info.action = string_member(root.get(), "action");
    info.device = string_member(root.get(), "device");
    const cJSON* value = cJSON_GetObjectItemCaseSensitive(root.get(), "value");
    if (value != nullptr) info.value = print_unformatted(value);
  }
  return messaging->perform_action(info);
}

MsgResponse ZelHandler::updateHandler(const std::string& contents, Messaging* messaging) {
  UpdateInfo info;
  {
    JsonPtr root(cJSON_Parse(contents.c_str()));
    if (!root) return MsgResponse::Error(kCouldNotParseContents);
    info.url = string_member(root.get(), "url");
    info.hash = string_member(root.get(), "hash");
    info.device = string_member(root.get(), "device");
  }
  return messaging->ota_update(info);
}

MsgResponse Messaging::list_actions(std::string device) {
  if (!list_actions_cb) return MsgResponse::NotImpl();
  return list_actions_cb(device);
}

MsgResponse Messaging::perform_action(ActionInfo info) {
  if (!perform_action_cb) return MsgResponse::NotImpl();
  return perform_action_cb(info);
}

MsgResponse Messaging::ota_update(UpdateInfo info) {
  if (!ota_update_cb) return MsgResponse::NotImpl();
  return ota_update_cb(info);
}

}  // namespace zel

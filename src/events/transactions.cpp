// The generic transaction, and the server's "transaction" and "transactionAck" requests.
#include <cjson/cJSON.h>

#include "foundation/json_ptr.h"
#include "handlers/zel_handler.h"
#include "link/websocket_client.h"
#include "messaging/messaging.h"

namespace zel {

void Messaging::send_transaction(const std::string& model, const std::string& properties,
                                 const std::string& method) {
  JsonPtr doc(cJSON_Parse(transaction_template.c_str()));
  JsonPtr props(cJSON_Parse(properties.c_str()));
  if (!doc || !props) return;
  cJSON_ReplaceItemInObject(doc.get(), "nvrMac", cJSON_CreateString(device_mac.c_str()));
  cJSON_ReplaceItemInObject(doc.get(), "model", cJSON_CreateString(model.c_str()));
  cJSON_ReplaceItemInObject(doc.get(), "method", cJSON_CreateString(method.c_str()));
  cJSON_AddItemToObject(doc.get(), "properties", props.release());
  WebSocketClient::instance().send_message(
      makeMessage(device_info, "jobs", "transaction", print_unformatted(doc.get()), true), false);
}

void Messaging::transaction_ack(const TransactionAck& ack) {
  auto it = unacked_clips.find(ack.from + ack.start_at);
  // A late, repeated or unexpected acknowledgement changes nothing.
  if (it == unacked_clips.end() || it->second.state != CLIP_UPLOADED) return;
  PendingClip done = std::move(it->second);
  unacked_clips.erase(it);
  report_clip(done.clip, CLIP_CONFIRMED, "");
}

MsgResponse ZelHandler::transactionHandler(std::string contents, Messaging* messaging) {
  MsgResponse reply = MsgResponse::Okay();
  JsonPtr root(cJSON_Parse(contents.c_str()));
  if (root && string_member(root.get(), "model") == "user") messaging->send_version_to_cloud();
  return reply;
}

MsgResponse ZelHandler::transactionAckHandler(std::string contents, Messaging* messaging) {
  JsonPtr root(cJSON_Parse(contents.c_str()));
  if (!root) return MsgResponse::Okay();
  TransactionAck ack;
  ack.type = string_member(root.get(), "type");
  ack.from = string_member(root.get(), "from");
  ack.start_at = string_member(root.get(), "start_at");
  messaging->transaction_ack(ack);
  return MsgResponse::Okay();
}

}  // namespace zel

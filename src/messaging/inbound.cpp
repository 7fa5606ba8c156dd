// Inbound processing and the application-level keep-alive.
#include <cjson/cJSON.h>

#include <exception>

#include "foundation/json_ptr.h"
#include "foundation/log.h"
#include "foundation/redact.h"
#include "handlers/zel_handler.h"
#include "link/websocket_client.h"
#include "messaging/messaging.h"

namespace zel {

namespace {
constexpr int kMaxMissedPongs = 5;
// 5 pings, 30 s apart: the figure in the log line is fixed, not measured.
constexpr int kPongTimeoutSeconds = 150;
constexpr const char* kMissingContent = "{\"content\":\"\"}";
constexpr const char* kHostCallbackFailed = "{\"error\":\"Host callback failed\"}";

// A host callback that throws must not take the worker down; the server hears of it.
MsgResponse handle_guarded(Messaging* messaging, const std::string& subject,
                           const std::string& content, cJSON* root) {
  try {
    return ZelHandler::handleMessage(messaging, subject, content, root);
  } catch (const std::exception& e) {
    zel_log(LEVEL_ERR, "Handler for '%s' failed: %s\n", subject.c_str(), e.what());
  } catch (...) {
    zel_log(LEVEL_ERR, "Handler for '%s' failed\n", subject.c_str());
  }
  return MsgResponse::Error(kHostCallbackFailed);
}
}  // namespace

void Messaging::process_inbound() {
  WebSocketClient& link = WebSocketClient::instance();
  while (link.inbound_message_ready()) {
    std::string text = link.get_inbound_message();
    JsonPtr root(cJSON_Parse(text.c_str()));
    if (!root) {
      // Never the text itself: a request cut short may hold credentials.
      zel_log(LEVEL_WARN, "Error parsing received message: '%s'\n", describe_inbound(text).c_str());
      continue;
    }
    const cJSON* content_item = cJSON_GetObjectItemCaseSensitive(root.get(), "content");
    std::string content = content_item != nullptr ? print_unformatted(content_item) : kMissingContent;

    const cJSON* subject_item = cJSON_GetObjectItemCaseSensitive(root.get(), "subject");
    if (subject_item == nullptr) {
      zel_log(LEVEL_ERR, "Error: inbound message has no subject.  Cannot find handler.\n");
      continue;
    }
    if (!cJSON_IsString(subject_item) || subject_item->valuestring == nullptr) {
      zel_log(LEVEL_ERR, "Error: inbound message subject is not a string, dropped: '%s'\n",
              describe_inbound(text).c_str());
      continue;
    }
    std::string subject = subject_item->valuestring;

    MsgResponse resp = handle_guarded(this, subject, content, root.get());
    if (resp.content.empty()) continue;

    const cJSON* id_item = cJSON_GetObjectItemCaseSensitive(root.get(), "id");
    const cJSON* from_item = cJSON_GetObjectItemCaseSensitive(root.get(), "from");
    if (!cJSON_IsString(id_item) || !cJSON_IsString(from_item)) {
      zel_log(LEVEL_ERR, "Error: request '%s' has no string \"id\" and \"from\", reply dropped\n",
              subject.c_str());
      continue;
    }
    std::string reply = composeReply(device_info, id_item->valuestring, from_item->valuestring,
                                     subject, resp.ok ? "OK" : "ERROR", resp.content);
    if (!reply.empty()) link.send_message(reply, false);
  }
}

void Messaging::ping() {
  if (missed_pongs < kMaxMissedPongs) {
    ++missed_pongs;
    WebSocketClient::instance().send_message(
        makeMessage(device_info, "zel-inbound", "ping", "\"ping\"", true), false);
    return;
  }
  zel_log(LEVEL_NOTICE, "Pong message not received in %d seconds, disconnecting.\n",
          kPongTimeoutSeconds);
  WebSocketClient::instance().soft_disconnect();
  missed_pongs = 0;
}

void Messaging::pong() { missed_pongs = 0; }

void Messaging::send_version_to_cloud() {
  WebSocketClient::instance().send_message(
      makeMessage(device_info, "zel-inbound", "version", version_json, true), false);
}

}  // namespace zel

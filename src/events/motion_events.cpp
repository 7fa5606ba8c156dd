// Motion and analytics events: queued by host threads, sent one per worker pass.
#include "foundation/time_utils.h"
#include "link/websocket_client.h"
#include "messaging/messaging.h"

namespace zel {

void Messaging::upload_event(const EventInfo& event) {
  std::lock_guard<std::recursive_timed_mutex> lock(work_mutex);
  event_queue.push_back(event);
  update_counts();
}

void Messaging::process_event() {
  if (event_queue.empty()) return;
  EventInfo event = std::move(event_queue.front());
  event_queue.pop_front();

  const char* type_text = nullptr;
  if (event.type == 1) type_text = "MOTION";
  if (event.type == 2) type_text = "HYPERVIEW";
  if (type_text == nullptr) return;

  // This message family puts a blank after each colon; values go in unescaped.
  std::string body =
      "{\"apiVersion\": \"2\",\"method\": \"changed\",\"topic\": \"transaction\",\"subject\": "
      "\"transaction\",\"nvrMac\": \"" +
      device_mac + "\",\"model\": \"event\",\"properties\": {\"start_at\": \"" +
      toISOTime(static_cast<long>(event.start_time)) + "\",\"event_type\": \"" + type_text +
      "\",\"end_at\": \"" + toISOTime(static_cast<long>(event.end_time)) +
      "\",\"meta\": null,\"camera_mac\": \"" + event.camera_mac +
      "\",\"user_email\": null,\"thumbnail\": \"" + event.thumbnail + "\"}}";
  WebSocketClient::instance().send_message(
      makeMessage(device_info, "jobs", "transaction", body, true), false);
}

}  // namespace zel

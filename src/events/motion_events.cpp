// Motion and analytics events: queued by host threads, sent one per worker pass.
#include "foundation/time_utils.h"
#include "link/websocket_client.h"
#include "messaging/messaging.h"
#include "outbox/outbox.h"

namespace zel {

void Messaging::upload_event(const EventInfo& event) {
  std::lock_guard<std::recursive_timed_mutex> lock(work_mutex);
  event_queue.push_back(event);
  if (outbox) outbox->accept(event);
  update_counts();
}

void Messaging::process_event() {
  if (resend_event(EventKind::MOTION)) return;  // one a pass, the oldest first
  if (event_queue.empty()) return;
  EventInfo event = std::move(event_queue.front());
  event_queue.pop_front();
  const uint64_t seq = outbox ? outbox->take_queued(EventKind::MOTION) : 0;

  const char* type_text = nullptr;
  if (event.type == 1) type_text = "MOTION";
  if (event.type == 2) type_text = "HYPERVIEW";
  if (type_text == nullptr) {
    if (outbox) outbox->skipped(seq);
    return;
  }

  // This message family puts a blank after each colon; values go in unescaped.
  std::string body =
      "{\"apiVersion\": \"2\",\"method\": \"changed\",\"topic\": \"transaction\",\"subject\": "
      "\"transaction\",\"nvrMac\": \"" +
      device_mac + "\",\"model\": \"event\",\"properties\": {\"start_at\": \"" +
      toISOTime(static_cast<long>(event.start_time)) + "\",\"event_type\": \"" + type_text +
      "\",\"end_at\": \"" + toISOTime(static_cast<long>(event.end_time)) +
      "\",\"meta\": null,\"camera_mac\": \"" + event.camera_mac +
      "\",\"user_email\": null,\"thumbnail\": \"" + event.thumbnail + "\"}}";
  send_event(seq, makeMessage(device_info, "jobs", "transaction", body, true));
}

}  // namespace zel

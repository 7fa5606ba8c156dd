// Access-control events: queued by host threads, sent one per worker pass.
#include "foundation/time_utils.h"
#include "link/websocket_client.h"
#include "messaging/messaging.h"
#include "outbox/outbox.h"

namespace zel {

void Messaging::upload_event(const AccessEventInfo& event) {
  if (event.device_uuid.empty()) return;
  std::lock_guard<std::recursive_timed_mutex> lock(work_mutex);
  access_event_queue.push_back(event);
  if (outbox) outbox->accept(event);
  update_counts();
}

void Messaging::process_access_event() {
  if (resend_event(EventKind::ACCESS)) return;  // one a pass, the oldest first
  if (access_event_queue.empty()) return;
  AccessEventInfo event = std::move(access_event_queue.front());
  access_event_queue.pop_front();
  const uint64_t seq = outbox ? outbox->take_queued(EventKind::ACCESS) : 0;

  // The spacing is mixed on purpose: the server's parser was written against it.
  std::string body =
      "{\"apiVersion\": \"2\",\"method\": \"changed\",\"topic\": \"transaction\",\"subject\": "
      "\"transaction\",";
  if (account_id >= 1) body += "\"account_id\":\"" + std::to_string(account_id) + "\",";
  body += "\"device_uuid\": \"" + event.device_uuid + "\",";
  if (!event.credential_uuid.empty())
    body += "\"credential_uuid\":\"" + event.credential_uuid + "\",";
  body += "\"model\": \"accessEvent\",\"properties\": {\"event_type\": \"" + event.event_type +
          "\",\"start_at\": \"" + toISOTime(static_cast<long>(event.start_time)) +
          "\",\"end_at\": \"" + toISOTime(static_cast<long>(event.end_time)) + "\"";
  if (!event.meta.empty()) body += ",\"meta\":" + event.meta;
  if (!event.tag.empty()) body += ",\"tag\":\"" + event.tag + "\"";
  body += "}}";
  send_event(seq, makeMessage(device_info, "jobs", "transaction", body, true));
}

}  // namespace zel

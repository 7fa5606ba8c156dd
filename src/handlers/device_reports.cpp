// "details" and "status": the device describes itself with fixed placeholder figures.
#include "foundation/time_utils.h"
#include "handlers/zel_handler.h"
#include "messaging/messaging.h"

namespace zel {

namespace {
// The "time" member is seconds followed by "000", read by the server as milliseconds.
std::string report_head(Messaging* messaging) {
  return "{\"mac\":\"" + messaging->get_device_mac() + "\",\"version\":" +
         messaging->get_version_json();
}
}  // namespace

MsgResponse ZelHandler::detailsHandler(Messaging* messaging) {
  long now = time_now();
  std::string body = report_head(messaging);
  body += ",\"memory\":{\"free\":4130213000,\"total\":4130213888},\"wan\":[],\"lan\":[],\"time\":\"";
  body += std::to_string(now);
  body +=
      "000\",\"recorder\":\"N/A\",\"builds\":\"N/A\",\"uname\":\"N/A\",\"pci_info\":\"N/A\","
      "\"cpu_info\":\"N/A\",\"hw_fingerprint\":\"N/A\",\"who\":\"\",\"ps\":\"\",\"uptime\":\"0\"}";
  return MsgResponse(body);
}

MsgResponse ZelHandler::statusHandler(Messaging* messaging) {
  long now = time_now();
  std::string body = report_head(messaging);
  body +=
      ",\"online_count\":10,\"offline_count\":5,\"memory\":{\"free\":4130213000,\"total\":"
      "4130213888},\"wan\":[],\"lan\":[],\"time\":\"";
  body += std::to_string(now);
  body += "000\"}";
  return MsgResponse(body);
}

}  // namespace zel

#include "foundation/envelope.h"

#include <cjson/cJSON.h>

#include <chrono>
#include <memory>

#include "foundation/json_ptr.h"
#include "foundation/log.h"
#include "foundation/redact.h"
#include "foundation/time_utils.h"

namespace zel {

namespace {
long long now_microseconds() {
  auto since = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<long long>(
      std::chrono::duration_cast<std::chrono::microseconds>(since).count());
}
}  // namespace

std::string makeMessage(const DeviceInfo& dev, std::string to, std::string subject,
                        std::string content, bool content_is_json) {
  JsonPtr root(cJSON_CreateObject());
  std::string date = getISOTime();
  std::string id = dev.mac + std::to_string(now_microseconds());
  cJSON_AddStringToObject(root.get(), "id", id.c_str());
  cJSON_AddStringToObject(root.get(), "from", dev.mac.c_str());
  cJSON_AddStringToObject(root.get(), "to", to.c_str());
  cJSON_AddStringToObject(root.get(), "subject", subject.c_str());
  cJSON_AddStringToObject(root.get(), "date", date.c_str());
  cJSON_AddStringToObject(root.get(), "signature", "n/a");
  if (!dev.device_type.empty())
    cJSON_AddStringToObject(root.get(), "fromDeviceType", dev.device_type.c_str());
  if (content_is_json) {
    cJSON* parsed = cJSON_Parse(content.c_str());
    if (parsed == nullptr)
      zel_log(LEVEL_ERR, "Error parsing JSON: %s\n", mask_secrets(content).c_str());
    else
      cJSON_AddItemToObject(root.get(), "content", parsed);
  } else {
    cJSON_AddStringToObject(root.get(), "content", content.c_str());
  }
  return print_unformatted(root.get());
}

std::string composeReply(const DeviceInfo& dev, const std::string& original_id,
                         const std::string& to, const std::string& subject,
                         const std::string& status, const std::string& details) {
  JsonPtr parsed(cJSON_Parse(details.c_str()));
  if (!parsed) {
    zel_log(LEVEL_ERR, "Could not parse details: \n%s\n", mask_secrets(details).c_str());
    return std::string();
  }
  JsonPtr body(cJSON_CreateObject());
  cJSON_AddStringToObject(body.get(), "status", status.c_str());
  cJSON_AddItemToObject(body.get(), "details", parsed.release());
  if (to.empty() || subject.empty()) {
    zel_log(LEVEL_ERR, "From or Subject are empty\n");
    return std::string();
  }
  std::string msg = makeMessage(dev, to, subject, print_unformatted(body.get()), true);
  JsonPtr reparsed(cJSON_Parse(msg.c_str()));
  if (!reparsed) {
    zel_log(LEVEL_ERR, "Error parsing response message: %s\n", mask_secrets(msg).c_str());
    return std::string();
  }
  cJSON_AddStringToObject(reparsed.get(), "original_id", original_id.c_str());
  return print_unformatted(reparsed.get());
}

}  // namespace zel

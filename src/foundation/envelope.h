// The envelope every outgoing message wears, and the reply built from a handler's result.
#pragma once

#include <string>

namespace zel {

// Who is sending: "from" of every envelope, and "fromDeviceType" when set.
struct DeviceInfo {
  std::string mac;          // lower-cased device identifier
  std::string partner;
  std::string device_type;  // "controller" for access controllers, else empty
};

std::string makeMessage(const DeviceInfo& dev, std::string to, std::string subject,
                        std::string content, bool content_is_json);

// "" (after a line on standard output) when the details are not JSON or to/subject is empty.
std::string composeReply(const DeviceInfo& dev, const std::string& original_id,
                         const std::string& to, const std::string& subject,
                         const std::string& status, const std::string& details);

}  // namespace zel

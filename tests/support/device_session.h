// The library connected to a CloudServer as a host would connect it, and disconnected
// (with every table and queue emptied) when the test ends.
#pragma once

#include <atomic>
#include <list>
#include <string>

#include "support/cloud_server.h"
#include "zel/upload.h"

namespace zel_test {

constexpr const char* kDeviceMac = "00:AA:BB:CC:DD:EE";
constexpr const char* kDeviceMacLower = "00:aa:bb:cc:dd:ee";

zel::CloudConnect connect_params(const CloudServer& server);

// Raw text of the nth message the device sent on its own account (not a reply) with
// this subject; nullopt on time-out.
std::optional<std::string> wait_sent(CloudServer& server, const std::string& subject, size_t nth,
                                     std::chrono::milliseconds timeout = std::chrono::seconds(5));
size_t count_sent(CloudServer& server, const std::string& subject);

class DeviceSession {
 public:
  // Connects and, unless told otherwise, waits until the server saw the handshake.
  DeviceSession(CloudServer& server, const zel::CloudConnect& cc,
                std::list<std::string> cameras = {}, bool wait = true);
  explicit DeviceSession(CloudServer& server, std::list<std::string> cameras = {});
  ~DeviceSession();

  bool disconnect();  // idempotent
  int connects() const { return connected_count.load(); }
  int disconnects() const { return disconnected_count.load(); }

  std::atomic<int> connected_count{0};
  std::atomic<int> disconnected_count{0};

 private:
  bool done_ = false;
};

}  // namespace zel_test
